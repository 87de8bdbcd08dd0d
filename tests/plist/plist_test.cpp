#include <gtest/gtest.h>

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

// Values at the edges of what the forms hold, written by Python's plistlib in
// both forms, read by us, written back by us and read again by plistlib,
// which must find the very value it wrote.
TEST(PlistCodec, RoundTripsWithAnIndependentWriter) {
    TempDir dir;
    std::string script = R"PY(
import plistlib, datetime, os
value = {
    "Label": "com.example.Ünïcode ✓",
    "args": ["echo \"$HOME\" 100% \\ & <tag>", "line1\nline2", ""],
    "ints": [-5, -2**63, 2**63, 2**64 - 1],
    "reals": [0.1, 5e-324],
    "data": bytes(range(256)),
    "date": datetime.datetime(2024, 2, 29, 12, 34, 56),
    "nested": [[{"deep": []}], {}],
}
for fmt, name in ((plistlib.FMT_XML, "in.xml"), (plistlib.FMT_BINARY, "in.bin")):
    open("DIR/" + name, "wb").write(plistlib.dumps(value, fmt=fmt))
for name in ("out.xml", "out.bin"):
    if os.path.exists("DIR/" + name):
        back = plistlib.loads(open("DIR/" + name, "rb").read())
        assert back == value, (name, back)
)PY";
    for (auto pos = script.find("DIR"); pos != std::string::npos; pos = script.find("DIR", pos)) {
        script.replace(pos, 3, dir.path());
    }
    ASSERT_TRUE(runPython(script).ok);

    auto fromXml = decodeText(readFile(dir / "in.xml"));
    auto fromBin = decodeText(readFile(dir / "in.bin"));
    ASSERT_TRUE(fromXml.ok()) << fromXml.error().description;
    ASSERT_TRUE(fromBin.ok()) << fromBin.error().description;
    EXPECT_EQ(fromXml.value(), fromBin.value());
    const Array& ints = *fromBin.value().find("ints")->array();
    EXPECT_EQ(ints[1], Value::integer(INT64_MIN));
    EXPECT_EQ(ints[2], Value::unsignedInteger(1ULL << 63));
    EXPECT_NE(ints[3], Value::integer(-1));
    // Whole seconds since 2001-01-01.
    EXPECT_EQ(fromXml.value().find("date")->asDate()->seconds, 730902896);

    for (Format f : {Format::Xml, Format::Binary}) {
        testing::writeFile(dir / (f == Format::Xml ? "out.xml" : "out.bin"),
                           text(encode(fromBin.value(), f).value()));
    }
    auto check = runPython(script);
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

TEST(PlistCodec, RefusesCutShortListsAndKeysLibplistCannotTake) {
    const Value sample(Dictionary{{"enabledServices", Value(Array{Value("a"), Value("b")})},
                                  {"n", Value::integer(300)}});
    // A file cut short by a crash or a full disk must never read as a
    // smaller, valid dictionary.
    for (Format f : {Format::Xml, Format::Binary}) {
        const std::string whole = text(encode(sample, f).value());
        for (std::size_t n = 0; n < whole.size(); ++n) {
            auto r = decodeText(whole.substr(0, n));
            EXPECT_TRUE(!r.ok() || r.value() == sample) << "prefix of " << n << " bytes";
        }
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
}

TEST(PlistCodec, RefusesWhatTheFormsCannotHold) {
    Value tooDeep = Value::integer(1);
    for (int i = 0; i < kMaxNesting + 2; ++i) {
        tooDeep = Value(Array{tooDeep});
    }
    EXPECT_FALSE(encode(tooDeep, Format::Xml).ok());
    EXPECT_FALSE(encode(Value(std::string("a\0b", 3)), Format::Binary).ok());
    EXPECT_FALSE(encode(Value::date(Date{INT64_MAX}), Format::Xml).ok());
    EXPECT_FALSE(encode(Value(std::string("\xC0\xAF")), Format::Binary).ok());  // not UTF-8

    std::string deepXml = "<plist version=\"1.0\">";
    for (int i = 0; i < kMaxNesting + 2; ++i) {
        deepXml += "<array>";
    }
    for (int i = 0; i < kMaxNesting + 2; ++i) {
        deepXml += "</array>";
    }
    auto r = decodeText(deepXml + "</plist>");
    ASSERT_FALSE(r.ok());
    EXPECT_NE(r.error().description.find("nested"), std::string::npos);
}

TEST(PlistValue, BooleanReadingAndDescription) {
    for (const char* yes : {"YES", "true", "T", "  +7", "0009", "y"}) {
        EXPECT_TRUE(Value(yes).boolValue()) << yes;
    }
    for (const char* no : {"NO", "false", "0", "", "-0", "maybe"}) {
        EXPECT_FALSE(Value(no).boolValue()) << no;
    }
    EXPECT_TRUE(Value::unsignedInteger(UINT64_MAX).boolValue());
    EXPECT_TRUE(Value::real(0.5).boolValue());
    EXPECT_FALSE(Value(Array{Value::boolean(true)}).boolValue());

    EXPECT_EQ(Value::unsignedInteger(UINT64_MAX).description(), "18446744073709551615");
    EXPECT_EQ(Value::data(Bytes{0xde, 0xad, 0xbe, 0xef, 0x01}).description(), "<deadbeef 01>");
    EXPECT_EQ(Value(Dictionary{{"Label", Value("x")}}).description(), "{ Label = x; }");
}

}  // namespace
}  // namespace tessary::plist
