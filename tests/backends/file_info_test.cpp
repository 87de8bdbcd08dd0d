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

// A bundle's Contents/Info.plist in either form, and the dictionary an
// executable carries in its own section; nothing from damaged copies of
// that executable, and nothing read outside them.
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
    for (auto format : {plist::Format::Xml, plist::Format::Binary}) {
        writeInfo(dict, format);
        EXPECT_EQ(info.infoDictionary(bundle), dict);
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

    const std::string original = testing::readFile(INFO_CARRIER);
    auto carried = info.infoDictionary(INFO_CARRIER);
    ASSERT_TRUE(carried);
    EXPECT_EQ(*carried->stringAt("CFBundleVersion"), "5.11.1");
    EXPECT_EQ(info.infoDictionary("/bin/true"), std::nullopt);  // carries none
    Elf64_Ehdr header{};
    ASSERT_GT(original.size(), sizeof header);
    std::memcpy(&header, original.data(), sizeof header);
    ASSERT_EQ(header.e_ident[EI_CLASS], ELFCLASS64);
    auto check = [&](const std::string& bytes, const char* what) {
        testing::writeFile(dir / "damaged", bytes);
        EXPECT_EQ(info.infoDictionary(dir / "damaged"), std::nullopt) << what;
    };
    auto withHeader = [&](auto change) {
        Elf64_Ehdr h = header;
        change(h);
        return std::string(reinterpret_cast<const char*>(&h), sizeof h) + original.substr(sizeof h);
    };
    check("#!/bin/sh\n", "text");
    check(original.substr(0, header.e_shoff + 10), "truncated in the section headers");
    check(withHeader([](Elf64_Ehdr& h) { h.e_shoff = ~0ULL - 8; }), "headers past the end");
    check(withHeader([](Elf64_Ehdr& h) { h.e_shstrndx = h.e_shnum; }), "no name table");
    check(withHeader([](Elf64_Ehdr& h) { h.e_shentsize = 1; }), "odd header size");
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
