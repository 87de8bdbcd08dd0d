#include "platform/linux/fs/posix_file_operations.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>

#include "base/unique_fd.h"

namespace tessary::linux_backend {

namespace {

std::string quoted(const std::string& path) {
    return "'" + path + "'";
}

Error failure(int err, const char* verb, const std::string& path) {
    return Error::posix(err, std::string("Unable to ") + verb + " " + quoted(path));
}

std::string parentOf(const std::string& path) {
    const auto slash = path.find_last_of('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool writeAll(int fd, const std::uint8_t* data, std::size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

// A name no other writer in this directory uses: process id, a counter and
// random bits, so that concurrent writers and leftovers of killed ones never
// collide.
std::string temporaryNameFor(const std::string& path) {
    static std::atomic<unsigned> counter{0};
    std::random_device rd;
    const auto slash = path.find_last_of('/');
    const std::string dir = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    char suffix[64];
    (void)std::snprintf(suffix, sizeof suffix, ".%d.%u.%08x", static_cast<int>(::getpid()),
                        counter.fetch_add(1), rd());
    return dir + "." + base + suffix + ".tmp";
}

// Copies what `in` holds to `out`; 0 or the errno of the failure.
int copyContents(int in, int out) {
    std::uint8_t buf[65536];
    for (;;) {
        const ssize_t n = ::read(in, buf, sizeof buf);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 || (n > 0 && !writeAll(out, buf, static_cast<std::size_t>(n)))) {
            return errno;
        }
        if (n == 0) {
            return 0;
        }
    }
}

Status fsyncDirectory(const std::string& dir) {
    UniqueFd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd || ::fsync(fd.get()) != 0) {
        return failure(errno, "flush directory", dir);
    }
    return {};
}

}  // namespace

bool PosixFileOperations::exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

Result<plist::Bytes> PosixFileOperations::readFile(const std::string& path) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        return failure(errno, "read", path);
    }
    plist::Bytes out;
    struct stat st {};
    if (::fstat(fd.get(), &st) == 0 && st.st_size > 0) {
        out.reserve(static_cast<std::size_t>(st.st_size));
    }
    std::uint8_t buf[16384];
    for (;;) {
        const ssize_t n = ::read(fd.get(), buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return failure(errno, "read", path);
        }
        if (n == 0) {
            break;
        }
        out.insert(out.end(), buf, buf + n);
    }
    return out;
}

Status PosixFileOperations::writeFileAtomically(const std::string& path,
                                                const plist::Bytes& bytes) {
    const std::string temp = temporaryNameFor(path);
    UniqueFd fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (!fd) {
        return failure(errno, "write", path);
    }
    int err = 0;
    if (!writeAll(fd.get(), bytes.data(), bytes.size()) || ::fsync(fd.get()) != 0) {
        err = errno;
    }
    if (::close(fd.release()) != 0 && err == 0) {
        err = errno;
    }
    if (err == 0 && ::rename(temp.c_str(), path.c_str()) != 0) {
        err = errno;
    }
    if (err != 0) {
        ::unlink(temp.c_str());
        return failure(err, "write", path);
    }
    // The rename is durable only once the directory entry is on disk.
    return fsyncDirectory(parentOf(path));
}

Status PosixFileOperations::setPermissions(const std::string& path, std::uint32_t mode) {
    if (::chmod(path.c_str(), static_cast<mode_t>(mode)) != 0) {
        return failure(errno, "set permissions of", path);
    }
    return {};
}

Status PosixFileOperations::createDirectory(const std::string& path, bool intermediates,
                                            std::optional<std::uint32_t> mode) {
    const mode_t m = mode ? static_cast<mode_t>(*mode) : 0777;
    auto makeOne = [&](const std::string& dir) -> int {
        if (::mkdir(dir.c_str(), m) != 0) {
            return errno;
        }
        // mkdir applies the umask; an explicit mode is meant exactly.
        if (mode && ::chmod(dir.c_str(), m) != 0) {
            return errno;
        }
        return 0;
    };
    if (!intermediates) {
        const int err = makeOne(path);
        return err == 0 ? Status{} : Status(failure(err, "create directory", path));
    }
    std::string prefix;
    std::size_t pos = 0;
    while (pos != std::string::npos) {
        pos = path.find('/', pos + 1);
        prefix = path.substr(0, pos);
        if (prefix.empty()) {
            continue;
        }
        struct stat st {};
        if (::stat(prefix.c_str(), &st) == 0) {
            if (!S_ISDIR(st.st_mode)) {
                return failure(ENOTDIR, "create directory", path);
            }
            continue;
        }
        const int err = makeOne(prefix);
        if (err != 0 && err != EEXIST) {
            return failure(err, "create directory", path);
        }
    }
    return {};
}

namespace {

// The bytes of `in` into a new file `to`, created with `createMode` and
// given `finalMode` once whole, flushed; no file is left when a step fails.
Status copyInto(int in, const std::string& to, mode_t createMode, mode_t finalMode) {
    UniqueFd out(::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, createMode));
    if (!out) {
        return failure(errno, "copy to", to);
    }
    int err = copyContents(in, out.get());
    if (err == 0 && (::fchmod(out.get(), finalMode) != 0 || ::fsync(out.get()) != 0)) {
        err = errno;
    }
    if (err != 0) {
        ::unlink(to.c_str());
        return failure(err, "copy to", to);
    }
    return {};
}

}  // namespace

Status PosixFileOperations::copyFile(const std::string& from, const std::string& to) {
    UniqueFd in(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (!in || ::fstat(in.get(), &st) != 0) {
        return failure(errno, "copy", from);
    }
    return copyInto(in.get(), to, st.st_mode & 07777, st.st_mode & 07777);
}

Result<std::string> PosixFileOperations::copyBeside(const std::string& from, const std::string& to,
                                                    std::uint32_t mode) {
    UniqueFd in(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
    if (!in) {
        return failure(errno, "copy", from);
    }
    // Its own name, so that two writers never write into, rename or remove
    // each other's copy; closed to everyone else until it is whole.
    std::string copy = temporaryNameFor(to);
    if (Status copied = copyInto(in.get(), copy, 0600, static_cast<mode_t>(mode)); !copied) {
        return copied.error();
    }
    return copy;
}

Status PosixFileOperations::moveItem(const std::string& from, const std::string& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
        return {};
    }
    const int err = errno;
    if (err != EXDEV) {
        return failure(err, "move", from);
    }
    // Across file systems: copy, then remove the source.
    Status copied = copyFile(from, to);
    if (!copied) {
        return copied;
    }
    return removeItem(from);
}

Status PosixFileOperations::replaceFile(const std::string& from, const std::string& to) {
    if (::rename(from.c_str(), to.c_str()) != 0) {
        return failure(errno, "replace", to);
    }
    return {};
}

Status PosixFileOperations::removeItem(const std::string& path) {
    if (!exists(path)) {
        return failure(ENOENT, "remove", path);
    }
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
    if (ec) {
        return failure(ec.value(), "remove", path);
    }
    return {};
}

Result<std::vector<std::string>> PosixFileOperations::listDirectory(const std::string& path) {
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(path.c_str()), &::closedir);
    if (!dir) {
        return failure(errno, "list", path);
    }
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(dir.get())) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            names.emplace_back(name);
        }
    }
    return names;
}

Result<FileAttributes> PosixFileOperations::attributes(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        return failure(errno, "read attributes of", path);
    }
    FileAttributes a;
    a.device = st.st_dev;
    a.inode = st.st_ino;
    a.size = static_cast<std::uint64_t>(st.st_size);
    a.modificationNanoseconds =
        static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    a.changeNanoseconds =
        static_cast<std::int64_t>(st.st_ctim.tv_sec) * 1000000000 + st.st_ctim.tv_nsec;
    a.mode = st.st_mode;
    a.owner = st.st_uid;
    a.group = st.st_gid;
    return a;
}

bool PosixFileOperations::writableOnlyByRoot(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && (st.st_uid == 0 || st.st_uid == ::geteuid()) &&
           (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

}  // namespace tessary::linux_backend
