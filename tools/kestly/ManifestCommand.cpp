// kestly manifest: reads a version-2 project manifest as the client would and shows the project
// and its file entries, as a table or as one JSON object.

#include "KestlyCommand.h"

#include "CoreKestly/Manifest/DCIManifestV2ProjectItem.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using File = std::shared_ptr<DCIManifestV2ProjectFileItem>;

struct ManifestOptions {
    std::string file;
    bool json = false;
};

// The whole content of `path` ("-" for standard input), or nothing with errno set.
std::optional<std::string> readAll(const std::string& path) {
    const bool standardInput = path == "-";
    const int fd = standardInput ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::string bytes;
    char buffer[65536];
    ssize_t got;
    while ((got = ::read(fd, buffer, sizeof buffer)) != 0) {
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) break;
        bytes.append(buffer, static_cast<size_t>(got));
    }
    const int readError = got < 0 ? errno : 0;
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

nlohmann::ordered_json fileAsJSON(const DCIManifestV2ProjectFileItem& file) {
    return {{"category", file.category()},
            {"pathRelativeToProject", file.pathRelativeToProject()},
            {"fileHash", orNull(file.fileHash())},
            {"fileSize", file.fileSize()},
            {"sasID", orNull(file.sasID())},
            {"downloadURL", file.downloadURL()},
            {"encoding", orNull(file.encoding())},
            {"decoded_hash", orNull(file.decoded_hash())},
            {"decoded_size", file.decoded_size()},
            {"decoded_format", orNull(file.decoded_format())}};
}

void printJSON(const DCIManifestV2ProjectItem& manifest, bool valid) {
    const auto date = manifest.dateCreated();
    nlohmann::ordered_json files = nlohmann::ordered_json::array();
    for (const File& file : manifest.projectFiles()) files.push_back(fileAsJSON(*file));
    const nlohmann::ordered_json out = {
        {"valid", valid},
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
        {"dateCreated", date ? nlohmann::ordered_json(utcText(*date)) : nlohmann::ordered_json(nullptr)},
        {"files", std::move(files)},
    };
    std::puts(out.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace).c_str());
}

// Terminal columns of UTF-8 text, counting each character as one.
size_t columns(const std::string& text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }));
}

std::string shown(const std::optional<std::string>& text) { return text ? *text : "-"; }

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

    const auto files = manifest.projectFiles();
    std::vector<std::vector<std::string>> rows = {{"CATEGORY", "SIZE", "ENCODING", "SAS ID", "PATH"}};
    for (const File& file : files) {
        rows.push_back({file->category(), std::to_string(file->fileSize()), shown(file->encoding()),
                        shown(file->sasID()), file->pathRelativeToProject()});
    }
    std::vector<size_t> widths(rows.front().size() - 1, 0);
    for (const auto& row : rows) {
        for (size_t column = 0; column < widths.size(); ++column)
            widths[column] = std::max(widths[column], columns(row[column]));
    }
    std::printf("\n");
    for (const auto& row : rows) {
        std::string line;
        for (size_t column = 0; column < widths.size(); ++column)
            line += row[column] + std::string(widths[column] - columns(row[column]) + 2, ' ');
        line += row.back();
        std::puts(line.c_str());
    }
    std::printf("%zu file%s\n", files.size(), files.size() == 1 ? "" : "s");
}

int showManifest(const ManifestOptions& options) {
    const auto bytes = readAll(options.file);
    if (!bytes) {
        std::fprintf(stderr, "kestly: %s: %s\n", options.file.c_str(), std::strerror(errno));
        return 2;
    }
    const auto manifest = DCIManifestV2ProjectItem::init();
    const bool valid = manifest->readJSON(std::make_shared<const DCIData>(*bytes));
    if (options.json) {
        printJSON(*manifest, valid);
    } else {
        printTable(*manifest, valid);
    }
    return valid ? 0 : 1;
}

}  // namespace

KestlyCommand addManifestCommand(CLI::App& app) {
    auto options = std::make_shared<ManifestOptions>();
    CLI::App* command = app.add_subcommand(
        "manifest", "Read a version-2 project manifest and show the project and its files; exit status 0 when it "
                    "is valid, 1 when it is not, 2 when FILE cannot be read");
    command->add_option("FILE", options->file, "The manifest, or - for standard input")->required();
    command->add_flag("--json", options->json, "Print one JSON object instead of a table");
    return {command, [options] { return showManifest(*options); }};
}
