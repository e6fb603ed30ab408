#include "CoreKestly/Platform/Values/DCIFormat.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <string>
#include <string_view>

namespace {

class Sample final : public DCIObject {
public:
    std::string description() const override { return "<Sample Bëat.als>"; }
};

}  // namespace

// The format comes from the input; the arguments are one of every kind, with the extremes of each, and
// run out before a long format does.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const auto sample = std::make_shared<Sample>();
    static const DCIValue value(std::numeric_limits<uint64_t>::max());
    const std::string_view format(reinterpret_cast<const char*>(data), size);

    const std::string message = DCIFormat(format, -1, std::numeric_limits<int64_t>::min(),
                                          std::numeric_limits<uint64_t>::max(), 3.5, -1e300,
                                          std::numeric_limits<double>::quiet_NaN(), "text", "Bëat", sample,
                                          std::shared_ptr<DCIObject>(), nullptr, static_cast<const void*>(data),
                                          value, 'x', true, 4096);

    // Text without a conversion comes through untouched.
    if (format.find('%') == std::string_view::npos && message != format) std::abort();
    return 0;
}
