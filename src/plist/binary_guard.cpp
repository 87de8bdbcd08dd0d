#include "plist/binary_guard.h"

#include <cstdint>
#include <cstring>

namespace tessary::plist {

namespace {

constexpr std::size_t kHeader = 8;  // "bplist00"
constexpr std::size_t kTrailer = 32;

// A big-endian unsigned number of `width` bytes at `at`, if it fits.
bool readNumber(std::string_view b, std::size_t at, std::size_t width, std::uint64_t& out) {
    if (width == 0 || width > 8 || at > b.size() || b.size() - at < width) {
        return false;
    }
    out = 0;
    for (std::size_t i = 0; i < width; ++i) {
        out = (out << 8) | static_cast<unsigned char>(b[at + i]);
    }
    return true;
}

// The element count of the object whose marker is at `at`, and where its
// payload begins.
bool readCount(std::string_view b, std::size_t at, std::uint64_t& count, std::size_t& payload) {
    const auto marker = static_cast<unsigned char>(b[at]);
    count = marker & 0x0F;
    payload = at + 1;
    if (count != 0x0F) {
        return true;
    }
    // The count follows as an integer object: marker 0x1N, 2^N bytes.
    if (payload >= b.size()) {
        return false;
    }
    const auto intMarker = static_cast<unsigned char>(b[payload]);
    if ((intMarker & 0xF0) != 0x10 || (intMarker & 0x0F) > 3) {
        return false;
    }
    const std::size_t width = std::size_t{1} << (intMarker & 0x0F);
    if (!readNumber(b, payload + 1, width, count)) {
        return false;
    }
    payload += 1 + width;
    return true;
}

}  // namespace

bool binaryListHasNulInString(std::string_view b) {
    if (b.size() < kHeader + kTrailer) {
        return false;
    }
    const std::size_t trailer = b.size() - kTrailer;
    const auto offsetSize = static_cast<std::size_t>(static_cast<unsigned char>(b[trailer + 6]));
    std::uint64_t objects = 0;
    std::uint64_t table = 0;
    if (!readNumber(b, trailer + 8, 8, objects) || !readNumber(b, trailer + 24, 8, table) ||
        offsetSize == 0 || offsetSize > 8 || table > trailer) {
        return false;
    }
    // Only as many entries as the table can hold, whatever the count says.
    const std::uint64_t entries = std::min<std::uint64_t>(objects, (trailer - table) / offsetSize);
    for (std::uint64_t i = 0; i < entries; ++i) {
        std::uint64_t offset = 0;
        // Any offset inside the data counts, the header's bytes included:
        // libplist reads objects wherever the table points.
        if (!readNumber(b, table + i * offsetSize, offsetSize, offset) || offset >= b.size()) {
            continue;
        }
        const auto type = static_cast<unsigned char>(b[offset]) & 0xF0;
        if (type != 0x50 && type != 0x60) {  // ASCII and UTF-16 strings
            continue;
        }
        std::uint64_t count = 0;
        std::size_t payload = 0;
        if (!readCount(b, static_cast<std::size_t>(offset), count, payload)) {
            continue;
        }
        const std::uint64_t unit = type == 0x50 ? 1 : 2;
        if (payload > b.size() || count > (b.size() - payload) / unit) {
            continue;
        }
        for (std::uint64_t k = 0; k < count; ++k) {
            const std::size_t at = payload + k * unit;
            if (b[at] == '\0' && (unit == 1 || b[at + 1] == '\0')) {
                return true;
            }
        }
    }
    return false;
}

}  // namespace tessary::plist
