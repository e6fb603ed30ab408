#include "CoreKestly/Platform/Search/DCIFileNamePatternInternal.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

// The input is a pattern, a NUL, then a file name: both come from outside (the service names
// the sample, the disk names the file). Names are bounded as the finder bounds them.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const size_t split = input.find('\0');
    const std::string_view patternText = input.substr(0, split).substr(0, 1024);
    const std::string_view name = split == std::string_view::npos ? patternText : input.substr(split + 1).substr(0, 1024);

    const DCIFileNamePattern pattern(patternText);
    pattern.matches(name);
    (void)pattern.foldedRegex().value_or("");
    (void)pattern.spellingGlobs();
    // Every text, wildcards and broken UTF-8 included, matches itself, and "*" matches all.
    if (!pattern.matches(patternText) || !DCIFileNamePattern("*").matches(name)) std::abort();
    return 0;
}
