#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/error.h"
#include "plist/value.h"

namespace tessary {

// What identifies one version of a file: replacing a file changes at least
// one of these.
struct FileAttributes {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::uint64_t size = 0;
    std::int64_t modificationNanoseconds = 0;
    std::int64_t changeNanoseconds = 0;  // the inode's change time
    std::uint32_t mode = 0;
    std::uint32_t owner = 0;
    std::uint32_t group = 0;
    friend bool operator==(const FileAttributes&, const FileAttributes&) = default;
};

// File operations. Errors carry a description fit for the system log.
class FileOperations {
  public:
    virtual ~FileOperations() = default;

    virtual bool exists(const std::string& path) = 0;
    virtual Result<plist::Bytes> readFile(const std::string& path) = 0;
    // A reader sees the old file or the new one, never a part: a temporary
    // file in the same directory, flushed, renamed over `path`, directory
    // flushed. The new file keeps the default mode of a new file.
    virtual Status writeFileAtomically(const std::string& path, const plist::Bytes& bytes) = 0;
    virtual Status setPermissions(const std::string& path, std::uint32_t mode) = 0;
    // Default mode (0777 less the umask) when `mode` is not given.
    virtual Status createDirectory(const std::string& path, bool intermediates,
                                   std::optional<std::uint32_t> mode) = 0;
    // Fails when `to` exists.
    virtual Status copyFile(const std::string& from, const std::string& to) = 0;
    // Copies `from` into a new file in the directory of `to`, under a name
    // that no other writer, in this process or another, can be using; the
    // copy has exactly `mode` (whatever the mode of `from`) once it is whole,
    // and is flushed. Returns the copy's path, for `replaceFile`; nothing is
    // left behind when it fails.
    virtual Result<std::string> copyBeside(const std::string& from, const std::string& to,
                                           std::uint32_t mode) = 0;
    // Fails when `to` exists.
    virtual Status moveItem(const std::string& from, const std::string& to) = 0;
    // Puts the file `from` in the place of `to` in one step (both on one file
    // system): a reader of `to` sees the old file or the new, never a part.
    virtual Status replaceFile(const std::string& from, const std::string& to) = 0;
    // Removes a file or a directory with its contents.
    virtual Status removeItem(const std::string& path) = 0;
    // Entry names in the order the file system gives them.
    virtual Result<std::vector<std::string>> listDirectory(const std::string& path) = 0;
    virtual Result<FileAttributes> attributes(const std::string& path) = 0;
    // Whether nobody but root can change the file or directory at `path`
    // (links followed): it is owned by root, or by the user this process runs
    // as, and neither its group nor others may write it. False when it cannot
    // be read.
    virtual bool writableOnlyByRoot(const std::string& path) = 0;
};

}  // namespace tessary
