#include <gtest/gtest.h>

#include <random>

#include "plist/codec.h"
#include "support/python.h"

namespace tessary::plist {
namespace {

using testing::readFile;
using testing::runPython;
using testing::TempDir;

std::string text(const Bytes& b) {
    return {b.begin(), b.end()};
}

Result<Value> decodeText(const std::string& s) {
    return decode(std::string_view(s));
}

// One value of every kind the daemon meets, written by Python's plistlib in
// both forms, read by us, written back by us in both forms and read again by
// plistlib, which must find the very value it wrote.
TEST(PlistCodec, RoundTripsWithAnIndependentWriter) {
    TempDir dir;
    const std::string script = R"PY(
import plistlib, datetime, sys
d = sys.argv[1] if len(sys.argv) > 1 else "DIR"
value = {
    "Label": "com.example.Ünïcode ✓",
    "Case": {"key": 1, "Key": 2},
    "ProgramArguments": ["/bin/sh", "-c", "echo \"$HOME\" 100% \\ & <tag>", "line1\nline2", ""],
    "ints": [0, 1, -1, -5, 2**31, -2**31, 2**63 - 1, -2**63, 2**63, 2**64 - 1],
    "reals": [0.1, -2.5, 1e300, 5e-324, 3.0],
    "bools": [True, False],
    "data": bytes(range(256)),
    "empty": {"array": [], "dict": {}, "data": b"", "string": ""},
    "date": datetime.datetime(2024, 2, 29, 12, 34, 56),
    "nested": [[[{"deep": [1, [2, [3]]]}]]],
}
open("DIR/in.xml", "wb").write(plistlib.dumps(value, fmt=plistlib.FMT_XML))
open("DIR/in.bin", "wb").write(plistlib.dumps(value, fmt=plistlib.FMT_BINARY))
import os
if os.path.exists("DIR/out.xml"):
    for name in ("out.xml", "out.bin"):
        back = plistlib.loads(open("DIR/" + name, "rb").read())
        assert back == value, (name, back)
    assert open("DIR/out.xml", "rb").read().startswith(b'<?xml version="1.0"')
    assert open("DIR/out.bin", "rb").read().startswith(b"bplist00")
print("ok")
)PY";
    std::string s = script;
    for (auto pos = s.find("DIR"); pos != std::string::npos; pos = s.find("DIR", pos)) {
        s.replace(pos, 3, dir.path());
    }
    ASSERT_TRUE(runPython(s).ok);

    auto fromXml = decodeText(readFile(dir / "in.xml"));
    auto fromBin = decodeText(readFile(dir / "in.bin"));
    ASSERT_TRUE(fromXml.ok()) << fromXml.error().description;
    ASSERT_TRUE(fromBin.ok()) << fromBin.error().description;
    EXPECT_EQ(fromXml.value(), fromBin.value());

    const Value& v = fromBin.value();
    const Array& ints = *v.find("ints")->array();
    EXPECT_EQ(ints[3], Value::integer(-5));
    EXPECT_EQ(ints[7], Value::integer(INT64_MIN));
    EXPECT_EQ(ints[8], Value::unsignedInteger(1ULL << 63));
    EXPECT_EQ(ints[9], Value::unsignedInteger(UINT64_MAX));
    EXPECT_NE(ints[9], Value::integer(-1));
    EXPECT_EQ(*v.find("Case")->find("Key"), Value::integer(2));
    EXPECT_EQ(v.find("data")->data()->size(), 256U);

    for (Format f : {Format::Xml, Format::Binary}) {
        auto bytes = encode(v, f);
        ASSERT_TRUE(bytes.ok());
        auto again = decode(std::span<const std::uint8_t>(bytes.value()));
        ASSERT_TRUE(again.ok()) << again.error().description;
        EXPECT_EQ(again.value(), v);
        testing::writeFile(dir / (f == Format::Xml ? "out.xml" : "out.bin"), text(bytes.value()));
    }
    auto check = runPython(s);
    EXPECT_TRUE(check.ok) << check.output;
}

// Preferences are rewritten only when they differ: equality must see every
// difference of type and sign.
TEST(PlistValue, EqualityIsExactAndTyped) {
    EXPECT_NE(Value::integer(1), Value::boolean(true));
    EXPECT_NE(Value::real(0.0), Value::real(-0.0));
    EXPECT_EQ(Value::unsignedInteger(5), Value::integer(5));
    EXPECT_NE(Value::data(Bytes{1, 2}), Value("\x01\x02"));
}

TEST(PlistCodec, RefusesDamagedBytesWithAReason) {
    const Value sample(Dictionary{
        {"enabledServices", Value(Array{Value("a"), Value("b")})},
        {"n", Value::integer(300)},
        {"s", Value("x")},
    });
    for (Format f : {Format::Xml, Format::Binary}) {
        const std::string whole = text(encode(sample, f).value());
        // Every proper prefix is refused: a file cut short by a crash or a
        // full disk must never read as a smaller, valid dictionary.
        for (std::size_t n = 0; n < whole.size(); ++n) {
            std::string prefix = whole.substr(0, n);
            auto r = decodeText(prefix);
            if (r.ok()) {
                EXPECT_EQ(r.value(), sample) << "prefix of " << n << " bytes read as another value";
            } else {
                EXPECT_FALSE(r.error().description.empty());
            }
        }
    }

    // Hand-made binary lists: an array holding itself, a dictionary holding
    // itself, an array claiming 2^60 elements, a reference past the table.
    auto bplist = [](const std::string& object, unsigned refSize) {
        std::string out = "bplist00" + object;
        const std::size_t table = out.size();
        out += '\x08';  // offset of object 0
        out += std::string(6, '\0') + '\x01' + static_cast<char>(refSize);
        auto be64 = [&](std::uint64_t v) {
            for (int i = 7; i >= 0; --i) {
                out += static_cast<char>((v >> (8 * i)) & 0xff);
            }
        };
        be64(1);
        be64(0);
        be64(table);
        return out;
    };
    const std::string hostile[] = {
        bplist(std::string("\xA1\x00", 2), 1),
        bplist(std::string("\xD1\x00\x00", 3), 1),
        bplist(std::string("\xAF\x13\x10\x00\x00\x00\x00\x00\x00\x00", 10), 1),
        bplist(std::string("\x5F\x13\x40\x00\x00\x00\x00\x00\x00\x00", 10), 1),
        bplist(std::string("\xA1\x09", 2), 1),
        "bplist00",
        "<plist version=\"1.0\"><dict><key>a</key><string>b</string></dict>\n</p",
        "not a property list at all",
        std::string(4096, '\0'),
    };
    for (const auto& bytes : hostile) {
        EXPECT_FALSE(decodeText(bytes).ok());
    }
    // A well-formed list whose one dictionary key holds a NUL: libplist
    // aborts on such a key, so it must be refused before libplist sees it.
    std::string nulKey(
        "bplist00\xD1\x01\x02\x53"
        "a\0b"
        "\x10\x01\x08\x0B\x0F",
        20);
    nulKey += std::string(6, '\0') + "\x01\x01" + std::string(7, '\0') + "\x03" +
              std::string(15, '\0') + "\x11";  // the trailer: 3 objects, table at 17
    EXPECT_FALSE(decodeText(nulKey).ok());
    EXPECT_FALSE(decode(std::span<const std::uint8_t>()).ok());

    // Random damage to a binary list never crashes the decoder.
    std::string whole = text(encode(sample, Format::Binary).value());
    std::mt19937 rng(42);
    for (int i = 0; i < 3000; ++i) {
        std::string damaged = whole;
        for (int k = 0; k < 3; ++k) {
            damaged[rng() % damaged.size()] = static_cast<char>(rng());
        }
        (void)decodeText(damaged);
    }
}

TEST(PlistCodec, RefusesWhatTheFormsCannotHold) {
    Value tooDeep = Value::integer(1);
    for (int i = 0; i < kMaxNesting + 2; ++i) {
        tooDeep = Value(Array{tooDeep});
    }
    EXPECT_FALSE(encode(tooDeep, Format::Xml).ok());
    EXPECT_FALSE(encode(Value(std::string("a\0b", 3)), Format::Binary).ok());
    EXPECT_FALSE(encode(Value::date(Date{INT64_MAX}), Format::Xml).ok());
    EXPECT_FALSE(encode(Value(std::string("\xC0\xAF")), Format::Binary).ok());

    std::string deepXml = "<plist version=\"1.0\">";
    for (int i = 0; i < kMaxNesting + 2; ++i) {
        deepXml += "<array>";
    }
    for (int i = 0; i < kMaxNesting + 2; ++i) {
        deepXml += "</array>";
    }
    deepXml += "</plist>";
    auto r = decodeText(deepXml);
    ASSERT_FALSE(r.ok());
    EXPECT_NE(r.error().description.find("nested"), std::string::npos);
}

TEST(PlistValue, BooleanReadingAndDescription) {
    for (const char* yes : {"YES", "yes", "true", "T", "1", "  +7", "0009", "y"}) {
        EXPECT_TRUE(Value(yes).boolValue()) << yes;
    }
    for (const char* no : {"NO", "false", "0", "", "  ", "-0", "maybe"}) {
        EXPECT_FALSE(Value(no).boolValue()) << no;
    }
    EXPECT_TRUE(Value::integer(-3).boolValue());
    EXPECT_TRUE(Value::unsignedInteger(UINT64_MAX).boolValue());
    EXPECT_FALSE(Value::integer(0).boolValue());
    EXPECT_TRUE(Value::real(0.5).boolValue());
    EXPECT_FALSE(Value(Array{Value::boolean(true)}).boolValue());

    EXPECT_EQ(Value::unsignedInteger(UINT64_MAX).description(), "18446744073709551615");
    EXPECT_EQ(Value::data(Bytes{0xde, 0xad, 0xbe, 0xef, 0x01}).description(), "<deadbeef 01>");
    EXPECT_EQ(Value(Dictionary{{"Label", Value("x")}}).description(), "{ Label = x; }");
}

}  // namespace
}  // namespace tessary::plist
