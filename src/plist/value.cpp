#include "plist/value.h"

#include <bit>
#include <cctype>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace tessary::plist {

Value::Value() : s_(std::make_shared<const Dictionary>()) {}
Value::Value(std::string s) : s_(std::make_shared<const std::string>(std::move(s))) {}
Value::Value(Array a) : s_(std::make_shared<const Array>(std::move(a))) {}
Value::Value(Dictionary d) : s_(std::make_shared<const Dictionary>(std::move(d))) {}

Value Value::boolean(bool b) {
    return Value(Storage(b));
}
Value Value::integer(std::int64_t i) {
    return Value(Storage(Integer::fromSigned(i)));
}
Value Value::unsignedInteger(std::uint64_t u) {
    return Value(Storage(Integer::fromUnsigned(u)));
}
Value Value::integer(Integer i) {
    // Normalise so that an unsigned value in signed range equals its signed twin.
    return i.isUnsigned ? unsignedInteger(i.bits) : Value(Storage(i));
}
Value Value::real(double d) {
    return Value(Storage(d));
}
Value Value::data(Bytes bytes) {
    return Value(Storage(std::make_shared<const Bytes>(std::move(bytes))));
}
Value Value::date(Date d) {
    return Value(Storage(d));
}

Value::Type Value::type() const {
    switch (s_.index()) {
        case 0:
            return Type::Boolean;
        case 1:
            return Type::Integer;
        case 2:
            return Type::Real;
        case 3:
            return Type::Date;
        case 4:
            return Type::String;
        case 5:
            return Type::Data;
        case 6:
            return Type::Array;
        default:
            return Type::Dictionary;
    }
}

std::optional<bool> Value::asBoolean() const {
    if (const auto* b = std::get_if<bool>(&s_)) {
        return *b;
    }
    return std::nullopt;
}
std::optional<Integer> Value::asInteger() const {
    if (const auto* i = std::get_if<Integer>(&s_)) {
        return *i;
    }
    return std::nullopt;
}
std::optional<double> Value::asReal() const {
    if (const auto* d = std::get_if<double>(&s_)) {
        return *d;
    }
    return std::nullopt;
}
std::optional<Date> Value::asDate() const {
    if (const auto* d = std::get_if<Date>(&s_)) {
        return *d;
    }
    return std::nullopt;
}
const std::string* Value::string() const {
    const auto* p = std::get_if<std::shared_ptr<const std::string>>(&s_);
    return p != nullptr ? p->get() : nullptr;
}
const Bytes* Value::data() const {
    const auto* p = std::get_if<std::shared_ptr<const Bytes>>(&s_);
    return p != nullptr ? p->get() : nullptr;
}
const Array* Value::array() const {
    const auto* p = std::get_if<std::shared_ptr<const Array>>(&s_);
    return p != nullptr ? p->get() : nullptr;
}
const Dictionary* Value::dictionary() const {
    const auto* p = std::get_if<std::shared_ptr<const Dictionary>>(&s_);
    return p != nullptr ? p->get() : nullptr;
}

const Value* Value::find(std::string_view key) const {
    const Dictionary* d = dictionary();
    if (d == nullptr) {
        return nullptr;
    }
    auto it = d->find(key);
    return it == d->end() ? nullptr : &it->second;
}

const std::string* Value::stringAt(std::string_view key) const {
    const Value* v = find(key);
    return v != nullptr ? v->string() : nullptr;
}

namespace {

bool stringBoolValue(std::string_view s) {
    std::size_t i = 0;
    while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\n' || s[i] == '\r')) {
        ++i;
    }
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) {
        ++i;
    }
    while (i < s.size() && s[i] == '0') {
        ++i;
    }
    if (i >= s.size()) {
        return false;
    }
    const char c = s[i];
    return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

std::string formatReal(double d) {
    char buf[40];
    // Shortest text that reads back to the same double.
    for (int precision = 1; precision <= 17; ++precision) {
        (void)std::snprintf(buf, sizeof buf, "%.*g", precision, d);
        if (std::strtod(buf, nullptr) == d) {
            break;
        }
    }
    return buf;
}

std::string formatDate(Date d) {
    // 978307200 is 2001-01-01T00:00:00Z in Unix time.
    const auto t = static_cast<std::time_t>(d.seconds + 978307200);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[64];
    (void)std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S +0000", &tm);
    return buf;
}

// Strings in container descriptions are quoted when they hold anything
// beyond plain word characters, so that "(a, b)" stays readable.
void appendQuoted(std::string& out, const std::string& s) {
    bool plain = !s.empty();
    for (unsigned char c : s) {
        if (!(std::isalnum(c) != 0 || c == '.' || c == '_' || c == '-' || c == '/')) {
            plain = false;
            break;
        }
    }
    if (plain) {
        out += s;
        return;
    }
    out += '"';
    for (char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
        }
        if (c == '\n') {
            out += "\\n";
            continue;
        }
        out += c;
    }
    out += '"';
}

void describe(const Value& v, std::string& out, bool nested) {
    switch (v.type()) {
        case Value::Type::Boolean:
            out += *v.asBoolean() ? "1" : "0";
            return;
        case Value::Type::Integer: {
            const Integer i = *v.asInteger();
            out += i.isUnsigned ? std::to_string(i.bits) : std::to_string(i.asSigned());
            return;
        }
        case Value::Type::Real:
            out += formatReal(*v.asReal());
            return;
        case Value::Type::Date:
            out += formatDate(*v.asDate());
            return;
        case Value::Type::String:
            if (nested) {
                appendQuoted(out, *v.string());
            } else {
                out += *v.string();
            }
            return;
        case Value::Type::Data: {
            static constexpr char kHex[] = "0123456789abcdef";
            out += '<';
            std::size_t n = 0;
            for (std::uint8_t b : *v.data()) {
                if (n != 0 && n % 4 == 0) {
                    out += ' ';
                }
                out += kHex[b >> 4];
                out += kHex[b & 0xf];
                ++n;
            }
            out += '>';
            return;
        }
        case Value::Type::Array: {
            out += '(';
            bool first = true;
            for (const Value& e : *v.array()) {
                out += first ? "" : ", ";
                first = false;
                describe(e, out, true);
            }
            out += ')';
            return;
        }
        case Value::Type::Dictionary:
            out += '{';
            for (const auto& [k, e] : *v.dictionary()) {
                out += ' ';
                appendQuoted(out, k);
                out += " = ";
                describe(e, out, true);
                out += ';';
            }
            out += v.dictionary()->empty() ? "}" : " }";
            return;
    }
}

}  // namespace

bool Value::boolValue() const {
    switch (type()) {
        case Type::Boolean:
            return *asBoolean();
        case Type::Integer:
            return asInteger()->bits != 0;
        case Type::Real:
            return *asReal() != 0.0;
        case Type::String:
            return stringBoolValue(*string());
        default:
            return false;
    }
}

std::string Value::description() const {
    std::string out;
    describe(*this, out, false);
    return out;
}

bool operator==(const Value& a, const Value& b) {
    if (a.s_.index() != b.s_.index()) {
        return false;
    }
    switch (a.type()) {
        case Value::Type::Boolean:
            return *a.asBoolean() == *b.asBoolean();
        case Value::Type::Integer:
            return *a.asInteger() == *b.asInteger();
        case Value::Type::Real: {
            // Bit for bit, so that 0.0 and -0.0 differ; but every NaN is the
            // same value, since no written form keeps a NaN's payload.
            const double x = *a.asReal();
            const double y = *b.asReal();
            return (std::isnan(x) && std::isnan(y)) ||
                   std::bit_cast<std::uint64_t>(x) == std::bit_cast<std::uint64_t>(y);
        }
        case Value::Type::Date:
            return *a.asDate() == *b.asDate();
        case Value::Type::String:
            return a.string() == b.string() || *a.string() == *b.string();
        case Value::Type::Data:
            return a.data() == b.data() || *a.data() == *b.data();
        case Value::Type::Array:
            return a.array() == b.array() || *a.array() == *b.array();
        case Value::Type::Dictionary:
            return a.dictionary() == b.dictionary() || *a.dictionary() == *b.dictionary();
    }
    return false;
}

Array stringArray(const std::vector<std::string>& strings) {
    Array out;
    out.reserve(strings.size());
    for (const auto& s : strings) {
        out.emplace_back(s);
    }
    return out;
}

}  // namespace tessary::plist
