// kestly manifest: reads a version-2 project manifest as the client would and shows the project
// and its file entries, as a table or as one JSON object.

#include "KestlyCommand.h"

#include "TerminalText.h"

#include "CoreKestly/Manifest/DCIManifestV2ProjectItem.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using File = std::shared_ptr<DCIManifestV2ProjectFileItem>;

// Manifests are read whole into memory; a real one is a few megabytes, and this bounds what
// a stream without end (/dev/zero) can take.
constexpr size_t kLargestManifest = 256u << 20;

struct ManifestOptions {
    std::string file;
    bool json = false;
};

constexpr size_t kReadChunk = 1 << 16;

// Room for one more chunk: doubling, but straight to the largest buffer once half of it is
// full, so that an endless stream is never copied into a buffer larger than that.
void reserveChunk(std::vector<uint8_t>& bytes) {
    const size_t needed = bytes.size() + kReadChunk;
    if (bytes.capacity() >= needed) return;
    const size_t doubled = std::max(2 * bytes.capacity(), needed);
    bytes.reserve(doubled >= kLargestManifest ? kLargestManifest + kReadChunk : doubled);
}

// Reads `fd` to its end into `bytes`; answers 0, or the errno of the failure: EFBIG past
// kLargestManifest. A file's size is known ahead, and its bytes take one allocation.
int readInto(int fd, std::vector<uint8_t>& bytes) {
    struct stat status {};
    if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
        if (static_cast<uint64_t>(status.st_size) > kLargestManifest) return EFBIG;
        bytes.reserve(static_cast<size_t>(status.st_size) + kReadChunk);
    }
    while (bytes.size() <= kLargestManifest) {
        reserveChunk(bytes);
        const size_t filled = bytes.size();
        bytes.resize(filled + kReadChunk);
        const ssize_t got = ::read(fd, bytes.data() + filled, kReadChunk);
        bytes.resize(filled + static_cast<size_t>(std::max<ssize_t>(got, 0)));
        if (got == 0) return 0;
        if (got < 0 && errno != EINTR) return errno;
    }
    return EFBIG;
}

// The whole content of `path` ("-" for standard input), or nothing with errno set. The bytes
// are read straight into the buffer that the manifest reads, so that they are held once.
std::optional<std::vector<uint8_t>> readAll(const std::string& path) {
    const bool standardInput = path == "-";
    const int fd = standardInput ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::vector<uint8_t> bytes;
    const int readError = readInto(fd, bytes);
    if (!standardInput) ::close(fd);
    errno = readError;
    return readError == 0 ? std::optional(std::move(bytes)) : std::nullopt;
}

std::string utcText(const DCIDate& date) {
    const std::time_t seconds = DCIDate::Clock::to_time_t(date.timePoint());
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

template <class T>
nlohmann::ordered_json orNull(const std::optional<T>& value) {
    return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
}

// Prints the members of `object`, whose values are scalars, one a line at `indent`, as
// dump(2) would lay them out at that depth; `more` adds a comma after the last one.
void printMembers(const nlohmann::ordered_json& object, const char* indent, bool more) {
    for (auto member = object.begin(); member != object.end(); ++member) {
        const bool last = std::next(member) == object.end();
        std::printf("%s%s: %s%s\n", indent, nlohmann::ordered_json(member.key()).dump().c_str(),
                    member.value().dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace).c_str(),
                    last && !more ? "" : ",");
    }
}

// One file at a time, so that the output never holds a second copy of the manifest.
void printJSON(const DCIManifestV2ProjectItem& manifest, bool valid) {
    const auto date = manifest.dateCreated();
    std::puts("{");
    printMembers({{"valid", valid},
                  {"projectName", orNull(manifest.projectName())},
                  {"projectFolderPath", orNull(manifest.projectFolderPath())},
                  {"projectOwner", orNull(manifest.projectOwner())},
                  {"projectUUID", orNull(manifest.projectUUID())},
                  {"projectRevisionUUID", orNull(manifest.projectRevisionUUID())},
                  {"projectPreviousRevisionUUID", orNull(manifest.projectPreviousRevisionUUID())},
                  {"projectType", orNull(manifest.projectType())},
                  {"creatorID", manifest.creatorID()},
                  {"isCollaboration", manifest.isCollaboration()},
                  {"isContribution", manifest.isContribution()},
                  {"dateCreated", date ? nlohmann::ordered_json(utcText(*date)) : nlohmann::ordered_json(nullptr)}},
                 "  ", true);
    const auto files = manifest.projectFiles();
    std::puts(files.empty() ? "  \"files\": []" : "  \"files\": [");
    for (size_t i = 0; i < files.size(); ++i) {
        const DCIManifestV2ProjectFileItem& file = *files[i];
        std::puts("    {");
        printMembers({{"category", file.category()},
                      {"pathRelativeToProject", file.pathRelativeToProject()},
                      {"fileHash", orNull(file.fileHash())},
                      {"fileSize", file.fileSize()},
                      {"sasID", orNull(file.sasID())},
                      {"downloadURL", file.downloadURL()},
                      {"encoding", orNull(file.encoding())},
                      {"decoded_hash", orNull(file.decoded_hash())},
                      {"decoded_size", file.decoded_size()},
                      {"decoded_format", orNull(file.decoded_format())}},
                     "      ", false);
        std::puts(i + 1 < files.size() ? "    }," : "    }");
    }
    if (!files.empty()) std::puts("  ]");
    std::puts("}");
}

// Terminal columns of UTF-8 text, counting each character as one.
size_t columns(const std::string& text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }));
}

std::string shown(const std::optional<std::string>& text) { return text ? terminalText(*text) : "-"; }

std::vector<std::string> fileRow(const DCIManifestV2ProjectFileItem& file) {
    return {terminalText(file.category()), std::to_string(file.fileSize()), shown(file.encoding()),
            shown(file.sasID()), terminalText(file.pathRelativeToProject())};
}

void printRow(const std::vector<std::string>& row, const std::vector<size_t>& widths) {
    std::string line;
    for (size_t column = 0; column < widths.size(); ++column)
        line += row[column] + std::string(widths[column] - columns(row[column]) + 2, ' ');
    line += row.back();
    std::puts(line.c_str());
}

void printTable(const DCIManifestV2ProjectItem& manifest, bool valid) {
    const auto date = manifest.dateCreated();
    const std::vector<std::pair<const char*, std::string>> fields = {
        {"name", shown(manifest.projectName())},
        {"valid", valid ? "yes" : "no"},
        {"folder", shown(manifest.projectFolderPath())},
        {"owner", shown(manifest.projectOwner())},
        {"uuid", shown(manifest.projectUUID())},
        {"revision", shown(manifest.projectRevisionUUID())},
        {"previous revision", shown(manifest.projectPreviousRevisionUUID())},
        {"type", shown(manifest.projectType())},
        {"creator", std::to_string(manifest.creatorID())},
        {"collaboration", manifest.isCollaboration() ? "yes" : "no"},
        {"contribution", manifest.isContribution() ? "yes" : "no"},
        {"created", date ? utcText(*date) : "-"},
    };
    for (const auto& [label, value] : fields) std::printf("%-18s %s\n", label, value.c_str());

    // Rows are made twice, to measure and to print, rather than held: a manifest may list
    // hundreds of thousands of files.
    const auto files = manifest.projectFiles();
    const std::vector<std::string> heading = {"CATEGORY", "SIZE", "ENCODING", "SAS ID", "PATH"};
    std::vector<size_t> widths(heading.size() - 1, 0);
    const auto measure = [&widths](const std::vector<std::string>& row) {
        for (size_t column = 0; column < widths.size(); ++column)
            widths[column] = std::max(widths[column], columns(row[column]));
    };
    measure(heading);
    for (const File& file : files) measure(fileRow(*file));
    std::printf("\n");
    printRow(heading, widths);
    for (const File& file : files) printRow(fileRow(*file), widths);
    std::printf("%zu file%s\n", files.size(), files.size() == 1 ? "" : "s");
}

int showManifest(const ManifestOptions& options) {
    auto bytes = readAll(options.file);
    if (!bytes) {
        if (errno == EFBIG) {
            std::fprintf(stderr, "kestly: %s: larger than %zu MiB, the most a manifest may be\n",
                         options.file.c_str(), kLargestManifest >> 20);
        } else {
            std::fprintf(stderr, "kestly: %s: %s\n", options.file.c_str(), std::strerror(errno));
        }
        return 2;
    }
    const auto manifest = DCIManifestV2ProjectItem::init();
    const bool valid = manifest->readJSON(std::make_shared<const DCIData>(std::move(*bytes)));
    if (options.json) {
        printJSON(*manifest, valid);
    } else {
        printTable(*manifest, valid);
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
        std::fprintf(stderr, "kestly: writing the output: %s\n", std::strerror(errno));
        return 2;
    }
    if (!valid) std::fprintf(stderr, "kestly: %s: not a valid manifest (-v shows what the library found)\n", options.file.c_str());
    return valid ? 0 : 1;
}

}  // namespace

KestlyCommand addManifestCommand(CLI::App& app) {
    auto options = std::make_shared<ManifestOptions>();
    CLI::App* command = app.add_subcommand(
        "manifest", "Read a version-2 project manifest and show the project and its files; exit status 0 when it "
                    "is valid, 1 when it is not, 2 when FILE cannot be read or is larger than 256 MiB, when the output "
                    "cannot be written, and for a usage error");
    command->add_option("FILE", options->file, "The manifest, or - for standard input")->required();
    command->add_flag("--json", options->json, "Print one JSON object instead of a table");
    return {command, [options] { return showManifest(*options); }};
}
