#include "platform/linux/fs/file_bundle_info.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "plist/codec.h"

namespace tessary::linux_backend {

namespace {

Error elfError(const std::string& path, const std::string& what) {
    return Error{"TYBundleErrorDomain", 1, path + ": " + what};
}

// Reads exactly `size` bytes at `offset`; false when the file is shorter.
bool readAt(int fd, std::uint64_t offset, void* out, std::size_t size) {
    auto* p = static_cast<std::uint8_t*>(out);
    while (size > 0) {
        const ssize_t n = ::pread(fd, p, size, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        p += n;
        offset += static_cast<std::uint64_t>(n);
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

// Whether [offset, offset + size) lies inside a file of `fileSize` bytes.
bool within(std::uint64_t offset, std::uint64_t size, std::uint64_t fileSize) {
    return offset <= fileSize && size <= fileSize - offset;
}

template <class Ehdr, class Shdr>
Result<plist::Bytes> sectionOf(int fd, std::uint64_t fileSize, const std::string& path,
                               std::string_view name, std::size_t limit) {
    Ehdr header{};
    if (!readAt(fd, 0, &header, sizeof header)) {
        return elfError(path, "truncated ELF header");
    }
    if (header.e_shoff == 0 || header.e_shentsize != sizeof(Shdr)) {
        return elfError(path, "no section headers");
    }
    auto sectionHeader = [&](std::uint64_t index, Shdr& out) {
        const std::uint64_t offset = header.e_shoff + index * sizeof(Shdr);
        return offset >= header.e_shoff && within(offset, sizeof(Shdr), fileSize) &&
               readAt(fd, offset, &out, sizeof out);
    };
    // Very large counts live in the first section header.
    std::uint64_t count = header.e_shnum;
    std::uint64_t namesIndex = header.e_shstrndx;
    if (count == 0 || namesIndex == SHN_XINDEX) {
        Shdr first{};
        if (!sectionHeader(0, first)) {
            return elfError(path, "section headers outside the file");
        }
        if (count == 0) {
            count = first.sh_size;
        }
        if (namesIndex == SHN_XINDEX) {
            namesIndex = first.sh_link;
        }
    }
    if (count > fileSize / sizeof(Shdr) || namesIndex >= count ||
        !within(header.e_shoff, count * sizeof(Shdr), fileSize)) {
        return elfError(path, "section headers outside the file");
    }
    // The header table and the name table each in one read: the section is
    // looked up on every status request.
    std::vector<Shdr> table(static_cast<std::size_t>(count));
    if (!readAt(fd, header.e_shoff, table.data(), table.size() * sizeof(Shdr))) {
        return elfError(path, "section headers outside the file");
    }
    const Shdr& names = table[static_cast<std::size_t>(namesIndex)];
    if (names.sh_type == SHT_NOBITS || !within(names.sh_offset, names.sh_size, fileSize) ||
        names.sh_size > limit) {
        return elfError(path, "no section names");
    }
    std::string nameTable(static_cast<std::size_t>(names.sh_size), '\0');
    if (!readAt(fd, names.sh_offset, nameTable.data(), nameTable.size())) {
        return elfError(path, "no section names");
    }

    for (const Shdr& section : table) {
        // The name must end inside the name table, with its NUL.
        if (section.sh_name >= nameTable.size() ||
            nameTable.size() - section.sh_name <= name.size()) {
            continue;
        }
        const std::string_view candidate(nameTable.data() + section.sh_name, name.size() + 1);
        if (candidate.substr(0, name.size()) != name || candidate.back() != '\0') {
            continue;
        }
        if (section.sh_type == SHT_NOBITS ||
            !within(section.sh_offset, section.sh_size, fileSize)) {
            return elfError(path, std::string(name) + " lies outside the file");
        }
        if (section.sh_size > limit) {
            return elfError(path, std::string(name) + " is too large");
        }
        plist::Bytes bytes(static_cast<std::size_t>(section.sh_size));
        if (!readAt(fd, section.sh_offset, bytes.data(), bytes.size())) {
            return elfError(path, "cannot read " + std::string(name));
        }
        return bytes;
    }
    return elfError(path, "no section " + std::string(name));
}

std::optional<plist::Value> dictionaryFrom(std::span<const std::uint8_t> bytes) {
    auto value = plist::decode(bytes);
    if (!value || !value.value().isDictionary()) {
        return std::nullopt;
    }
    return std::move(value).value();
}

}  // namespace

Result<plist::Bytes> readElfSection(const std::string& path, std::string_view name,
                                    std::size_t limit) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        return Error::posix(errno, "open " + path);
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) {
        return Error::posix(errno, "stat " + path);
    }
    const auto fileSize = static_cast<std::uint64_t>(st.st_size);
    unsigned char ident[EI_NIDENT];
    if (!readAt(fd.get(), 0, ident, sizeof ident) || std::memcmp(ident, ELFMAG, SELFMAG) != 0) {
        return elfError(path, "not an ELF file");
    }
    constexpr unsigned char kNativeData =
        __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? ELFDATA2LSB : ELFDATA2MSB;
    if (ident[EI_DATA] != kNativeData) {
        return elfError(path, "ELF file of the other byte order");
    }
    switch (ident[EI_CLASS]) {
        case ELFCLASS64:
            return sectionOf<Elf64_Ehdr, Elf64_Shdr>(fd.get(), fileSize, path, name, limit);
        case ELFCLASS32:
            return sectionOf<Elf32_Ehdr, Elf32_Shdr>(fd.get(), fileSize, path, name, limit);
        default:
            return elfError(path, "unknown ELF class");
    }
}

std::optional<plist::Value> FileBundleInfo::infoDictionary(std::string_view path) {
    const std::string p(path);
    struct stat st {};
    if (::stat(p.c_str(), &st) != 0) {
        return std::nullopt;
    }
    if (S_ISDIR(st.st_mode)) {
        const std::string info = p + "/Contents/Info.plist";
        UniqueFd fd(::open(info.c_str(), O_RDONLY | O_CLOEXEC));
        struct stat infoStat {};
        if (!fd || ::fstat(fd.get(), &infoStat) != 0 || !S_ISREG(infoStat.st_mode) ||
            static_cast<std::uint64_t>(infoStat.st_size) > kMaxSection) {
            return std::nullopt;
        }
        plist::Bytes bytes(static_cast<std::size_t>(infoStat.st_size));
        if (!readAt(fd.get(), 0, bytes.data(), bytes.size())) {
            return std::nullopt;
        }
        return dictionaryFrom(bytes);
    }
    if (!S_ISREG(st.st_mode)) {
        return std::nullopt;
    }
    auto section = readElfSection(p, kInfoSection, kMaxSection);
    if (!section) {
        return std::nullopt;
    }
    return dictionaryFrom(section.value());
}

std::optional<std::string> FileBundleInfo::mainExecutablePath(std::string_view bundlePath) {
    auto info = infoDictionary(bundlePath);
    const std::string* name = info ? info->stringAt("CFBundleExecutable") : nullptr;
    // A plain file name: the executable lives inside the bundle.
    if (name == nullptr || name->empty() || *name == "." || *name == ".." ||
        name->find('/') != std::string::npos || name->find('\0') != std::string::npos) {
        return std::nullopt;
    }
    std::string path(bundlePath);
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path + "/Contents/MacOS/" + *name;
}

}  // namespace tessary::linux_backend
