#include <elf.h>
#include <gtest/gtest.h>

#include <cstring>

#include "platform/linux/fs/file_bundle_info.h"
#include "platform/linux/fs/file_product_info.h"
#include "plist/codec.h"
#include "support/temp_dir.h"

namespace tessary::linux_backend {
namespace {

using plist::Value;

TEST(FileProductInfo, FirstLineWithoutWhiteSpaceOrNothing) {
    testing::TempDir dir;
    FileProductInfo info(dir / "version", dir / "minimum");
    EXPECT_EQ(info.tessaryVersion(), std::nullopt);
    EXPECT_EQ(info.minimumTessaryVersion(), std::nullopt);
    testing::writeFile(dir / "version", "  5.11.1 \r\nsecond line\n");
    testing::writeFile(dir / "minimum", "5.0");
    EXPECT_EQ(info.tessaryVersion(), "5.11.1");
    EXPECT_EQ(info.minimumTessaryVersion(), "5.0");
    testing::writeFile(dir / "version", " \t\n5.2\n");  // a blank first line
    EXPECT_EQ(info.tessaryVersion(), std::nullopt);
}

// A bundle's Contents/Info.plist, and the dictionary an executable carries
// in its own section (the running daemon reads its own in the end-to-end
// tests); nothing from a damaged copy, nothing from outside the bundle.
TEST(FileBundleInfo, DictionaryOfABundleOrAnExecutable) {
    testing::TempDir dir;
    FileBundleInfo info;
    const std::string bundle = dir / "Tessary.app";
    auto writeInfo = [&](const Value& v, plist::Format format) {
        auto bytes = plist::encode(v, format).value();
        testing::writeFile(bundle + "/Contents/Info.plist",
                           std::string(bytes.begin(), bytes.end()));
    };
    EXPECT_EQ(info.infoDictionary(bundle), std::nullopt);
    const Value dict(plist::Dictionary{{"CFBundleExecutable", Value("Tessary")}});
    writeInfo(dict, plist::Format::Binary);
    EXPECT_EQ(info.infoDictionary(bundle), dict);
    EXPECT_EQ(info.mainExecutablePath(bundle + "/"), bundle + "/Contents/MacOS/Tessary");
    // Names that would lead out of the bundle's executable directory.
    for (const char* name : {"", "..", "../../bin/sh", "/bin/sh"}) {
        writeInfo(Value(plist::Dictionary{{"CFBundleExecutable", Value(name)}}),
                  plist::Format::Xml);
        EXPECT_EQ(info.mainExecutablePath(bundle), std::nullopt) << name;
    }
    writeInfo(Value(plist::Array{Value("x")}), plist::Format::Xml);
    EXPECT_EQ(info.infoDictionary(bundle), std::nullopt);

    const std::string original = testing::readFile(INFO_CARRIER);
    auto carried = info.infoDictionary(INFO_CARRIER);
    ASSERT_TRUE(carried);
    EXPECT_EQ(*carried->stringAt("CFBundleVersion"), "5.11.1");
    EXPECT_EQ(info.infoDictionary("/bin/true"), std::nullopt);  // carries none
    // Damaged: cut short in the section headers.
    Elf64_Ehdr header{};
    std::memcpy(&header, original.data(), sizeof header);
    testing::writeFile(dir / "damaged", original.substr(0, header.e_shoff + 10));
    EXPECT_EQ(info.infoDictionary(dir / "damaged"), std::nullopt);
}

}  // namespace
}  // namespace tessary::linux_backend
