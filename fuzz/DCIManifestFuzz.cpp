// Any bytes through the manifest readers: the project manifest reads them whole; the file-entry
// reader takes the first line as the project folder and the rest as the entry's JSON text; and
// whatever parses is rendered as the log lines render it. Nothing may crash, hang, leak or grow
// without bound, whatever the bytes.

#include "CoreKestly/Manifest/DCIManifestJSONInternal.h"
#include "CoreKestly/Manifest/DCIManifestV2ProjectItem.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace {

// The rendering's bound with room for the marks that close what was cut short.
constexpr size_t kLongestDescription = 17 * 1024;

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
            if (file->pathRelativeToProject().empty() || file->downloadURL().empty()) std::abort();
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
