// Any bytes through the manifest readers: the project manifest reads them whole; the file-entry
// reader takes the first line as the project folder and the rest as the entry's JSON text; and
// whatever parses is rendered as the log lines render it. Nothing may crash, hang, leak or grow
// without bound, and no entry may lead out of its folder, whatever the bytes.

#include "CoreKestly/Manifest/DCIManifestJSONInternal.h"
#include "CoreKestly/Platform/Values/DCILoggedTextInternal.h"
#include "CoreKestly/Manifest/DCIManifestV2ProjectItem.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace {

// The rendering's bound and the mark of a cut.
constexpr size_t kLongestDescription = kDCILoggedTextBytes + std::string_view("…").size();

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Information lines would echo every input; the error lines still run.
    setenv("VERBOSE_LOGGING", "no", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);

    const auto manifest = DCIManifestV2ProjectItem::init();
    if (manifest->readJSON(std::make_shared<const DCIData>(bytes))) {
        for (const auto& file : manifest->projectFiles()) {
            // Every entry stays inside whatever folder it is placed under.
            if (!DCIManifestV2ProjectFileItem::pathUnderFolder("/root", file->pathRelativeToProject())) std::abort();
            if (file->downloadURL().empty()) std::abort();
        }
    }

    if (const DCIManifestParse parsed = DCIManifestParseObject(bytes); parsed.object) {
        if (DCIManifestDescribe(*parsed.object).size() > kLongestDescription) std::abort();
    }

    const size_t newline = bytes.find('\n');
    if (newline != std::string_view::npos) {
        const std::string_view folder = bytes.substr(0, newline);
        DCIManifestV2ProjectFileItem::initWithProjectFolder(folder, "session", bytes.substr(newline + 1));
        DCIManifestV2ProjectFileItem::cleanseManifestPath(folder);
    }
    return 0;
}
