#include <gtest/gtest.h>

#include <variant>

#include "plist/codec.h"
#include "support/handmade_plist.h"
#include "support/process.h"

namespace tessary::plist {
namespace {

using testing::HandMadeList;
using testing::readFile;
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
    "dates": [datetime.datetime(1, 1, 1), datetime.datetime(1900, 6, 15, 12),
              datetime.datetime(1932, 12, 31, 23, 59, 59), datetime.datetime(2070, 1, 1),
              datetime.datetime(9999, 12, 31, 23, 59, 59)],
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
    testing::writeFile(dir / "check.py", script);
    const std::vector<std::string> python = {"/usr/bin/python3", dir / "check.py"};
    ASSERT_EQ(testing::runProcess(python).exitCode, 0);

    auto fromXml = decodeText(readFile(dir / "in.xml"));
    auto fromBin = decodeText(readFile(dir / "in.bin"));
    ASSERT_TRUE(fromXml.ok()) << fromXml.error().description;
    ASSERT_TRUE(fromBin.ok()) << fromBin.error().description;
    EXPECT_EQ(fromXml.value(), fromBin.value());
    const Array& ints = *fromBin.value().find("ints")->array();
    EXPECT_EQ(ints[1], Value::integer(INT64_MIN));
    EXPECT_EQ(ints[2], Value::unsignedInteger(1ULL << 63));
    EXPECT_NE(ints[3], Value::integer(-1));
    // Whole seconds since 2001-01-01, from year 1 to 9999: libplist's own
    // date calls hold only 32 bits of them.
    EXPECT_EQ(fromXml.value().find("date")->asDate()->seconds, 730902896);
    EXPECT_EQ(fromXml.value().find("dates")->array()->front().asDate()->seconds, -63113904000);
    EXPECT_EQ(fromXml.value().find("dates")->array()->back().asDate()->seconds, 252423993599);

    for (Format f : {Format::Xml, Format::Binary}) {
        testing::writeFile(dir / (f == Format::Xml ? "out.xml" : "out.bin"),
                           text(encode(fromBin.value(), f).value()));
    }
    const auto check = testing::runProcess(python);
    EXPECT_EQ(check.exitCode, 0) << check.output;
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
    HandMadeList nulKey;
    nulKey.add(nulKey.dictionary({{1, 2}}));
    nulKey.add(HandMadeList::string(std::string("a\0b", 3)));
    nulKey.add(HandMadeList::string("v"));
    EXPECT_FALSE(decodeText(nulKey.bytes()).ok());
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

    auto r = decodeText(testing::deepXml(kMaxNesting + 2));
    ASSERT_FALSE(r.ok());
    EXPECT_NE(r.error().description.find("nested"), std::string::npos);
}

// A list of hand-made objects, one-byte references.
// Objects whose containers refer to others by index, one-byte references.
std::string listOf(const std::vector<std::variant<std::vector<int>, std::string>>& objects) {
    HandMadeList l;
    for (const auto& o : objects) {
        l.add(o.index() == 0 ? l.array(std::get<0>(o)) : HandMadeList::string(std::get<1>(o)));
    }
    return l.bytes();
}

// libplist builds a shared object once per reference: the budget counts it
// so, and refuses before anything is built.
TEST(PlistBudget, CountsSharedObjectsOncePerReference) {
    // [[ab, ab], [ab, ab]] out of three objects: 7 values, 4 strings of 3
    // bytes each as libplist holds them, two levels.
    const std::string shared = listOf({std::vector{1, 1}, std::vector{2, 2}, "ab"});
    const Budget exact{.maxNodes = 7, .maxBytes = 12, .maxDepth = 2, .maxItemBytes = 2};
    auto r = decode(std::string_view(shared), exact);
    ASSERT_TRUE(r.ok()) << r.error().description;
    const Value pair(Array{Value("ab"), Value("ab")});
    EXPECT_EQ(r.value(), Value(Array{pair, pair}));
    // Written out in either form, it costs what it cost: what was read can
    // be read again.
    for (Format f : {Format::Xml, Format::Binary}) {
        const Bytes again = encode(r.value(), f).value();
        EXPECT_TRUE(decode(std::span<const std::uint8_t>(again), exact).ok()) << text(again);
    }
    for (std::size_t Budget::*limit :
         {&Budget::maxNodes, &Budget::maxBytes, &Budget::maxDepth, &Budget::maxItemBytes}) {
        Budget less = exact;
        --(less.*limit);
        EXPECT_FALSE(decode(std::string_view(shared), less).ok());
    }

    // A shared array met first near the top and again lower down nests
    // deeper the second time: [[x], [[x]]] is three levels.
    const std::string deeperLater =
        listOf({std::vector{2, 1}, std::vector{2}, std::vector{3}, "x"});
    Budget levels = kRequestBudget;
    levels.maxDepth = 2;
    EXPECT_FALSE(decode(std::string_view(deeperLater), levels).ok());
    levels.maxDepth = 3;
    EXPECT_TRUE(decode(std::string_view(deeperLater), levels).ok());

    // Loops, direct and through another object, are refused.
    for (const std::string& loop :
         {listOf({std::vector{0}}), listOf({std::vector{1}, std::vector{0}})}) {
        auto looped = decode(std::string_view(loop), kRequestBudget);
        ASSERT_FALSE(looped.ok());
        EXPECT_NE(looped.error().description.find("refers to itself"), std::string::npos);
    }

    // Two references a level, 24 levels: 2^25 values out of under 200 bytes;
    // and a chain too deep for libplist's recursion.
    for (const std::string& hostile :
         {HandMadeList::nested(24, 2), HandMadeList::nested(40000, 1)}) {
        auto refused = decode(std::string_view(hostile), kFileBudget);
        ASSERT_FALSE(refused.ok());
        EXPECT_NE(refused.error().description.find("more than"), std::string::npos);
    }
}

// Comments, processing instructions and a document type are read wherever
// XML allows them; strings that are not UTF-8 are kept only where the caller
// asks.
TEST(PlistBudget, XmlFormsAndStringsThatAreNotUtf8) {
    const std::string trailing =
        "<?xml version=\"1.0\"?>\n<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
        "\"x\">\n<plist version=\"1.0\"><dict><!-- a > b --><key>k</key>"
        "<string><![CDATA[<x>]]></string></dict></plist>\n<!-- edited by hand -->\n<?pi?>\n";
    auto r = decodeText(trailing);
    ASSERT_TRUE(r.ok()) << r.error().description;
    EXPECT_EQ(r.value(), Value(Dictionary{{"k", Value("<x>")}}));
    for (const char* bad : {"<plist><string>x</string></plist><string>y</string>",
                            "<plist><string>x</string></plist> text", "<dict></dict>",
                            "<plist><string>x</string>", "<plist><string>x</string></plist"}) {
        EXPECT_FALSE(decodeText(bad).ok()) << bad;
    }
    EXPECT_FALSE(decodeText(testing::deepXml(40000)).ok());

    HandMadeList latin1;
    latin1.add(latin1.dictionary({{1, 2}}));
    latin1.add(HandMadeList::string("k"));
    latin1.add(HandMadeList::string("\xE9t"));
    EXPECT_FALSE(decode(std::string_view(latin1.bytes())).ok());
    auto kept = decode(std::string_view(latin1.bytes()), kRequestBudget, Strings::KeepInvalid);
    ASSERT_TRUE(kept.ok()) << kept.error().description;
    EXPECT_EQ(*kept.value().stringAt("k"), "\xE9t");
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
