// Arbitrary bytes into the property-list decoder. Whatever decodes must
// survive a round trip through both written forms unchanged.
#include <cstdint>
#include <cstdlib>

#include "plist/codec.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace tessary::plist;
    auto decoded = decode(std::span<const std::uint8_t>(data, size));
    if (!decoded) {
        return 0;
    }
    for (Format format : {Format::Xml, Format::Binary}) {
        auto encoded = encode(decoded.value(), format);
        if (!encoded) {
            continue;  // a string with a NUL byte, which only binary lists can hold
        }
        auto again = decode(std::span<const std::uint8_t>(encoded.value()));
        if (!again || !(again.value() == decoded.value())) {
            std::abort();
        }
    }
    return 0;
}
