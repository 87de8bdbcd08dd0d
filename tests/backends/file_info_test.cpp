#include <elf.h>
#include <gtest/gtest.h>

#include <cstring>

#include "platform/linux/file_bundle_info.h"
#include "platform/linux/file_product_info.h"
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

class FileBundleInfoTest : public ::testing::Test {
  protected:
    void writeInfo(const Value& v, plist::Format format) {
        auto bytes = plist::encode(v, format).value();
        testing::writeFile(bundle + "/Contents/Info.plist",
                           std::string(bytes.begin(), bytes.end()));
    }

    testing::TempDir dir;
    std::string bundle = dir / "Tessary.app";
    FileBundleInfo info;
};

TEST_F(FileBundleInfoTest, BundleInfoPlistInEitherForm) {
    EXPECT_EQ(info.infoDictionary(bundle), std::nullopt);
    const Value dict(plist::Dictionary{{"CFBundleExecutable", Value("Tessary")},
                                       {"CFBundleShortVersionString", Value("5.11.1")}});
    for (auto format : {plist::Format::Xml, plist::Format::Binary}) {
        writeInfo(dict, format);
        EXPECT_EQ(info.infoDictionary(bundle), dict);
        EXPECT_EQ(info.mainExecutablePath(bundle), bundle + "/Contents/MacOS/Tessary");
        EXPECT_EQ(info.mainExecutablePath(bundle + "/"), bundle + "/Contents/MacOS/Tessary");
    }
    // Names that would lead out of the bundle's executable directory.
    for (const char* name : {"", "..", "../../bin/sh", "/bin/sh"}) {
        writeInfo(Value(plist::Dictionary{{"CFBundleExecutable", Value(name)}}),
                  plist::Format::Xml);
        EXPECT_EQ(info.mainExecutablePath(bundle), std::nullopt) << name;
    }
    writeInfo(Value(plist::Array{Value("x")}), plist::Format::Xml);
    EXPECT_EQ(info.infoDictionary(bundle), std::nullopt);
}

TEST_F(FileBundleInfoTest, DictionaryAnExecutableCarries) {
    auto carried = info.infoDictionary(INFO_CARRIER);
    ASSERT_TRUE(carried);
    EXPECT_EQ(*carried->stringAt("CFBundleVersion"), "5.11.1");
    EXPECT_EQ(info.infoDictionary("/bin/true"), std::nullopt);  // carries none
    testing::writeFile(dir / "text", "#!/bin/sh\n");
    EXPECT_EQ(info.infoDictionary(dir / "text"), std::nullopt);
}

// Damaged copies of a real executable give nothing, and read nothing outside
// the file.
TEST_F(FileBundleInfoTest, DamagedExecutablesGiveNothing) {
    const std::string original = testing::readFile(INFO_CARRIER);
    ASSERT_GT(original.size(), sizeof(Elf64_Ehdr));
    Elf64_Ehdr header{};
    std::memcpy(&header, original.data(), sizeof header);
    ASSERT_EQ(header.e_ident[EI_CLASS], ELFCLASS64);

    auto check = [&](const std::string& bytes, const char* what) {
        testing::writeFile(dir / "damaged", bytes);
        EXPECT_EQ(info.infoDictionary(dir / "damaged"), std::nullopt) << what;
    };
    auto withHeader = [&](auto change) {
        Elf64_Ehdr h = header;
        change(h);
        std::string bytes = original;
        std::memcpy(bytes.data(), &h, sizeof h);
        return bytes;
    };
    for (std::size_t size : {sizeof header, static_cast<std::size_t>(header.e_shoff) + 10}) {
        check(original.substr(0, size), "truncated");
    }
    check(withHeader([](Elf64_Ehdr& h) { h.e_shoff = ~0ULL - 8; }), "headers past the end");
    check(withHeader([](Elf64_Ehdr& h) { h.e_shstrndx = h.e_shnum; }), "no name table");
    check(withHeader([](Elf64_Ehdr& h) { h.e_shentsize = 1; }), "odd header size");
    check(withHeader([](Elf64_Ehdr& h) { h.e_ident[EI_DATA] = ELFDATA2MSB; }), "byte order");

    // Every section placed or sized out of the file.
    for (auto field : {&Elf64_Shdr::sh_offset, &Elf64_Shdr::sh_size}) {
        std::string bytes = original;
        for (std::size_t i = 0; i < header.e_shnum; ++i) {
            Elf64_Shdr s{};
            const std::size_t at = header.e_shoff + i * sizeof s;
            std::memcpy(&s, bytes.data() + at, sizeof s);
            s.*field = ~0ULL - 16;
            std::memcpy(bytes.data() + at, &s, sizeof s);
        }
        check(bytes, "section out of the file");
    }
}

}  // namespace
}  // namespace tessary::linux_backend
