#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace tessary::plist {

class Value;

// Keys compare exactly (byte for byte, so case-sensitively). The ordered map
// also gives every file we write a stable key order.
using Dictionary = std::map<std::string, Value, std::less<>>;
using Array = std::vector<Value>;
using Bytes = std::vector<std::uint8_t>;

// A property-list date: whole seconds since 2001-01-01T00:00:00Z, the epoch
// of both property-list forms. Fractions of a second are not kept: the XML
// form has none, and libplist's binary date conversion does not carry them
// through a round trip.
struct Date {
    std::int64_t seconds = 0;
    friend bool operator==(const Date&, const Date&) = default;
};

// A property-list integer. Binary lists hold any signed 64-bit value and, in
// their 16-byte form, unsigned values up to 2^64-1; `isUnsigned` is set only
// for the values above INT64_MAX, so every integer has one representation and
// equality is plain member equality.
struct Integer {
    std::uint64_t bits = 0;
    bool isUnsigned = false;

    static Integer fromSigned(std::int64_t v) { return {static_cast<std::uint64_t>(v), false}; }
    static Integer fromUnsigned(std::uint64_t v) {
        return {v, v > static_cast<std::uint64_t>(INT64_MAX)};
    }
    std::int64_t asSigned() const { return static_cast<std::int64_t>(bits); }
    friend bool operator==(const Integer&, const Integer&) = default;
};

// An immutable property-list value. Containers and strings are shared, so a
// copy costs one reference count; a "mutation" builds a new value. That is
// what lets a job's dictionary be swapped whole while another thread reads
// the old one.
class Value {
  public:
    enum class Type : std::uint8_t {
        Boolean,
        Integer,
        Real,
        String,
        Data,
        Date,
        Array,
        Dictionary
    };

    Value();                                              // an empty dictionary
    Value(std::string s);                                 // NOLINT(google-explicit-constructor)
    Value(std::string_view s) : Value(std::string(s)) {}  // NOLINT(google-explicit-constructor)
    Value(const char* s) : Value(std::string(s)) {}       // NOLINT(google-explicit-constructor)
    Value(Array a);                                       // NOLINT(google-explicit-constructor)
    Value(Dictionary d);                                  // NOLINT(google-explicit-constructor)
    // No implicit conversion from other pointers or from bool/int: they would
    // silently pick the wrong type.
    template <class T>
    Value(T*) = delete;

    static Value boolean(bool b);
    static Value integer(std::int64_t i);
    static Value unsignedInteger(std::uint64_t u);
    static Value integer(Integer i);
    static Value real(double d);
    static Value data(Bytes bytes);
    static Value date(Date d);

    Type type() const;
    bool isBoolean() const { return type() == Type::Boolean; }
    bool isInteger() const { return type() == Type::Integer; }
    bool isReal() const { return type() == Type::Real; }
    bool isString() const { return type() == Type::String; }
    bool isData() const { return type() == Type::Data; }
    bool isDate() const { return type() == Type::Date; }
    bool isArray() const { return type() == Type::Array; }
    bool isDictionary() const { return type() == Type::Dictionary; }

    // Typed views: empty or null when the value is of another type.
    std::optional<bool> asBoolean() const;
    std::optional<Integer> asInteger() const;
    std::optional<double> asReal() const;
    std::optional<Date> asDate() const;
    const std::string* string() const;
    const Bytes* data() const;
    const Array* array() const;
    const Dictionary* dictionary() const;

    // Dictionary lookup; null when this is not a dictionary or has no such key.
    const Value* find(std::string_view key) const;
    // The string under `key`, or null.
    const std::string* stringAt(std::string_view key) const;

    // The boolean reading of any value: booleans as they are; integers and
    // reals true when non-zero; strings true when, after leading white space
    // and an optional sign and leading zeros, they begin with 'Y', 'y', 'T',
    // 't' or a digit 1-9 ("YES", "true", "1", " +7" are true; "NO", "false",
    // "0", "" are false); every other type false.
    bool boolValue() const;

    // The text used for "%@" in log lines: strings as they are, numbers in
    // decimal, booleans as 1/0, data as <hex>, dates in ISO 8601, arrays as
    // (a, b), dictionaries as { key = value; }.
    std::string description() const;

    // Exact deep equality: types must match (integer 1 is not true), strings
    // and keys compare byte for byte, reals by bit pattern (all NaNs alike).
    friend bool operator==(const Value& a, const Value& b);

  private:
    using Storage = std::variant<bool, Integer, double, plist::Date,
                                 std::shared_ptr<const std::string>, std::shared_ptr<const Bytes>,
                                 std::shared_ptr<const Array>, std::shared_ptr<const Dictionary>>;
    explicit Value(Storage s) : s_(std::move(s)) {}
    Storage s_;
};

// Small helpers used wherever dictionaries are taken apart or rebuilt.
inline Dictionary dictionaryOf(const Value* v) {
    return (v != nullptr && v->dictionary() != nullptr) ? *v->dictionary() : Dictionary{};
}
inline Array arrayOf(const Value* v) {
    return (v != nullptr && v->array() != nullptr) ? *v->array() : Array{};
}
Array stringArray(const std::vector<std::string>& strings);

}  // namespace tessary::plist
