#include "plist/codec.h"

#include <plist/plist.h>

#include <bit>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <string_view>
#include <type_traits>

#include "base/malloc_ptr.h"
#include "base/utf8.h"

namespace tessary::plist {

namespace {

struct NodeFree {
    void operator()(plist_t node) const { plist_free(node); }
};
using NodePtr = std::unique_ptr<std::remove_pointer_t<plist_t>, NodeFree>;

// plist_to_xml and plist_to_bin hand out malloc'd buffers.
using BufferPtr = MallocPtr<char>;

Error decodeError(std::string what) {
    return Error{"TYPropertyListErrorDomain", 3840, std::move(what)};
}
Error encodeError(std::string what) {
    return Error{"TYPropertyListErrorDomain", 3851, std::move(what)};
}

// libplist 2.2 keeps every integer as 64 bits and marks the ones read as
// unsigned 128-bit values internally without saying so through its API; its
// XML writer shows the mark as a missing minus sign.
bool nodeIsUnsigned(plist_t node) {
    NodePtr copy(plist_copy(node));
    char* xml = nullptr;
    std::uint32_t len = 0;
    plist_to_xml(copy.get(), &xml, &len);
    BufferPtr owned(xml);
    if (xml == nullptr) {
        return false;
    }
    return std::string_view(xml, len).find("<integer>-") == std::string_view::npos;
}

// Dates from year 1 to 9999, in seconds since 2001-01-01: what both forms
// are read and written over here.
constexpr std::int64_t kFirstDate = -63113904000;  // 0001-01-01T00:00:00Z
constexpr std::int64_t kLastDate = 252423993599;   // 9999-12-31T23:59:59Z

// libplist 2.2 holds a date as a double of seconds, but its getter and its
// constructor take 32-bit seconds: dates before 1933 or after 2069 would come
// back changed without a word. Its binary writer and reader carry the
// double whole, so a date is read from, and made through, a one-object
// binary list.
std::optional<std::int64_t> dateSeconds(plist_t node) {
    NodePtr copy(plist_copy(node));
    char* bin = nullptr;
    std::uint32_t len = 0;
    plist_to_bin(copy.get(), &bin, &len);
    BufferPtr owned(bin);
    // "bplist00", then the date object: marker 0x33 and a big-endian double.
    if (bin == nullptr || len < 17 || static_cast<unsigned char>(bin[8]) != 0x33) {
        return std::nullopt;
    }
    std::uint64_t bits = 0;
    for (int i = 0; i < 8; ++i) {
        bits = (bits << 8) | static_cast<unsigned char>(bin[9 + i]);
    }
    const double seconds = std::floor(std::bit_cast<double>(bits));
    if (!(seconds >= static_cast<double>(kFirstDate) &&
          seconds <= static_cast<double>(kLastDate))) {
        return std::nullopt;
    }
    return static_cast<std::int64_t>(seconds);
}

plist_t newDate(std::int64_t seconds) {
    if (seconds >= std::numeric_limits<std::int32_t>::min() &&
        seconds <= std::numeric_limits<std::int32_t>::max()) {
        return plist_new_date(static_cast<std::int32_t>(seconds), 0);
    }
    std::string bin = "bplist00";
    bin += '\x33';
    const auto bits = std::bit_cast<std::uint64_t>(static_cast<double>(seconds));
    for (int i = 7; i >= 0; --i) {
        bin += static_cast<char>((bits >> (8 * i)) & 0xFF);
    }
    // The offset table (the object at 8), then the trailer: one-byte offsets
    // and references, one object, the top one, the table at 17.
    bin += '\x08';
    bin += std::string(6, '\0') + "\x01\x01" + std::string(7, '\0') + '\x01' +
           std::string(15, '\0') + '\x11';
    plist_t node = nullptr;
    plist_from_bin(bin.data(), static_cast<std::uint32_t>(bin.size()), &node);
    return node;
}

// libplist's XML writer gives a year before 1000 fewer than four digits,
// which other readers refuse: they are padded here. Text inside strings
// cannot hold "<date>" (its '<' is escaped), so the search finds dates only.
std::string padDateYears(std::string xml) {
    constexpr std::string_view kOpen = "<date>";
    for (std::size_t at = xml.find(kOpen); at != std::string::npos; at = xml.find(kOpen, at + 1)) {
        const std::size_t year = at + kOpen.size();
        const std::size_t dash = xml.find('-', year);
        if (dash != std::string::npos && dash - year < 4) {
            xml.insert(year, 4 - (dash - year), '0');
        }
    }
    return xml;
}

Result<Value> fromNode(plist_t node, int depth, Strings strings) {
    if (depth > kMaxNesting) {
        return decodeError("property list nested too deeply");
    }
    switch (plist_get_node_type(node)) {
        case PLIST_BOOLEAN: {
            std::uint8_t b = 0;
            plist_get_bool_val(node, &b);
            return Value::boolean(b != 0);
        }
        case PLIST_UINT: {
            std::uint64_t u = 0;
            plist_get_uint_val(node, &u);
            if (u > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) &&
                nodeIsUnsigned(node)) {
                return Value::unsignedInteger(u);
            }
            return Value::integer(static_cast<std::int64_t>(u));
        }
        case PLIST_REAL: {
            double d = 0;
            plist_get_real_val(node, &d);
            return Value::real(d);
        }
        case PLIST_STRING: {
            std::uint64_t len = 0;
            const char* p = plist_get_string_ptr(node, &len);
            std::string s(p != nullptr ? p : "", p != nullptr ? len : 0);
            if (strings == Strings::Utf8Only && !isValidUtf8(s)) {
                return decodeError("property list holds a string that is not UTF-8");
            }
            return Value(std::move(s));
        }
        case PLIST_DATA: {
            std::uint64_t len = 0;
            const char* p = plist_get_data_ptr(node, &len);
            const auto* b = reinterpret_cast<const std::uint8_t*>(p);
            return Value::data(p != nullptr ? Bytes(b, b + len) : Bytes{});
        }
        case PLIST_DATE: {
            // The fraction is dropped, as Date says.
            const auto seconds = dateSeconds(node);
            if (!seconds) {
                return decodeError("property list holds a date outside the years 1 to 9999");
            }
            return Value::date(Date{*seconds});
        }
        case PLIST_ARRAY: {
            Array out;
            const std::uint32_t n = plist_array_get_size(node);
            out.reserve(n);
            for (std::uint32_t i = 0; i < n; ++i) {
                auto item = fromNode(plist_array_get_item(node, i), depth + 1, strings);
                if (!item) {
                    return item.error();
                }
                out.push_back(std::move(item).value());
            }
            return Value(std::move(out));
        }
        case PLIST_DICT: {
            Dictionary out;
            plist_dict_iter it = nullptr;
            plist_dict_new_iter(node, &it);
            MallocPtr<void> ownedIter(it);
            for (;;) {
                char* key = nullptr;
                plist_t item = nullptr;
                plist_dict_next_item(node, it, &key, &item);
                BufferPtr ownedKey(key);
                if (item == nullptr) {
                    break;
                }
                if (key == nullptr || (strings == Strings::Utf8Only && !isValidUtf8(key))) {
                    return decodeError("property list holds a key that is not UTF-8");
                }
                auto v = fromNode(item, depth + 1, strings);
                if (!v) {
                    return v.error();
                }
                out.insert_or_assign(std::string(key != nullptr ? key : ""), std::move(v).value());
            }
            return Value(std::move(out));
        }
        default:
            return decodeError("property list holds a value of an unsupported type");
    }
}

Result<NodePtr> toNode(const Value& v, int depth) {
    if (depth > kMaxNesting) {
        return encodeError("property list nested too deeply");
    }
    switch (v.type()) {
        case Value::Type::Boolean:
            return NodePtr(plist_new_bool(*v.asBoolean() ? 1 : 0));
        case Value::Type::Integer: {
            const Integer i = *v.asInteger();
            if (!i.isUnsigned) {
                return NodePtr(plist_new_uint(i.bits));
            }
            // libplist only makes an unsigned 128-bit integer when it reads one.
            char xml[128];
            const int n = std::snprintf(
                xml, sizeof xml, "<plist version=\"1.0\"><integer>%" PRIu64 "</integer></plist>",
                i.bits);
            plist_t node = nullptr;
            plist_from_xml(xml, static_cast<std::uint32_t>(n), &node);
            if (node == nullptr) {
                return encodeError("unsigned integer could not be represented");
            }
            return NodePtr(node);
        }
        case Value::Type::Real:
            return NodePtr(plist_new_real(*v.asReal()));
        case Value::Type::Date: {
            const std::int64_t sec = v.asDate()->seconds;
            if (sec < kFirstDate || sec > kLastDate) {
                return encodeError("date outside the years 1 to 9999");
            }
            NodePtr node(newDate(sec));
            if (!node) {
                return encodeError("date could not be represented");
            }
            return node;
        }
        case Value::Type::String: {
            const std::string& s = *v.string();
            if (s.find('\0') != std::string::npos) {
                return encodeError("string holds a NUL character");
            }
            // libplist's writers would drop the bytes that are not UTF-8.
            if (!isValidUtf8(s)) {
                return encodeError("string is not UTF-8");
            }
            return NodePtr(plist_new_string(s.c_str()));
        }
        case Value::Type::Data: {
            const Bytes& b = *v.data();
            return NodePtr(plist_new_data(reinterpret_cast<const char*>(b.data()), b.size()));
        }
        case Value::Type::Array: {
            NodePtr out(plist_new_array());
            for (const Value& e : *v.array()) {
                auto item = toNode(e, depth + 1);
                if (!item) {
                    return item.error();
                }
                plist_array_append_item(out.get(), item.value().release());
            }
            return out;
        }
        case Value::Type::Dictionary: {
            NodePtr out(plist_new_dict());
            for (const auto& [k, e] : *v.dictionary()) {
                if (k.find('\0') != std::string::npos || !isValidUtf8(k)) {
                    return encodeError("dictionary key holds a NUL character or is not UTF-8");
                }
                auto item = toNode(e, depth + 1);
                if (!item) {
                    return item.error();
                }
                plist_dict_set_item(out.get(), k.c_str(), item.value().release());
            }
            return out;
        }
    }
    return encodeError("unknown value type");
}

}  // namespace

Result<Value> decode(std::string_view bytes, const Budget& budget, Strings strings) {
    if (bytes.empty()) {
        return decodeError("no property list: the data is empty");
    }
    if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
        return decodeError("property list too large");
    }
    if (std::string why = overBudget(bytes, budget); !why.empty()) {
        return decodeError(std::move(why));
    }
    const bool binary = bytes.substr(0, 8) == "bplist00";
    plist_t root = nullptr;
    plist_from_memory(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &root);
    NodePtr owned(root);
    if (root == nullptr) {
        return decodeError(binary ? "binary property list is damaged"
                                  : "XML property list does not parse");
    }
    return fromNode(root, 0, strings);
}

Result<Value> decode(std::span<const std::uint8_t> bytes, const Budget& budget, Strings strings) {
    return decode(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()),
                  budget, strings);
}

Result<Bytes> encode(const Value& value, Format format) {
    auto node = toNode(value, 0);
    if (!node) {
        return node.error();
    }
    char* out = nullptr;
    std::uint32_t len = 0;
    if (format == Format::Xml) {
        plist_to_xml(node.value().get(), &out, &len);
    } else {
        plist_to_bin(node.value().get(), &out, &len);
    }
    BufferPtr owned(out);
    if (out == nullptr) {
        return encodeError("property list could not be written");
    }
    if (format == Format::Xml) {
        const std::string xml = padDateYears(std::string(out, len));
        return Bytes(xml.begin(), xml.end());
    }
    const auto* b = reinterpret_cast<const std::uint8_t*>(out);
    return Bytes(b, b + len);
}

}  // namespace tessary::plist
