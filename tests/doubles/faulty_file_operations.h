#pragma once

#include <cerrno>
#include <set>
#include <string>

#include "platform/linux/fs/posix_file_operations.h"

namespace tessary::testing {

// The real file operations, with chosen operations made to fail the way the
// kernel would (a full disk, a read-only directory).
class FaultyFileOperations final : public FileOperations {
  public:
    enum class Op { Read, Write, SetPermissions, CreateDirectory, Move };

    void fail(Op op, int err = EIO) { failures_[op] = err; }
    void heal() { failures_.clear(); }

    bool exists(const std::string& p) override { return real_.exists(p); }
    Result<plist::Bytes> readFile(const std::string& p) override {
        if (auto it = failures_.find(Op::Read); it != failures_.end()) {
            return Error::posix(it->second, "Unable to read '" + p + "'");
        }
        return real_.readFile(p);
    }
    Status writeFileAtomically(const std::string& p, const plist::Bytes& b) override {
        return unless(Op::Write, p, [&] { return real_.writeFileAtomically(p, b); });
    }
    Status setPermissions(const std::string& p, std::uint32_t mode) override {
        return unless(Op::SetPermissions, p, [&] { return real_.setPermissions(p, mode); });
    }
    Status createDirectory(const std::string& p, bool i, std::optional<std::uint32_t> m) override {
        return unless(Op::CreateDirectory, p, [&] { return real_.createDirectory(p, i, m); });
    }
    Status copyFile(const std::string& f, const std::string& t) override {
        return real_.copyFile(f, t);
    }
    Result<std::string> copyBeside(const std::string& f, const std::string& t,
                                   std::uint32_t mode) override {
        return real_.copyBeside(f, t, mode);
    }
    Status moveItem(const std::string& f, const std::string& t) override {
        return unless(Op::Move, f, [&] { return real_.moveItem(f, t); });
    }
    Status replaceFile(const std::string& f, const std::string& t) override {
        return unless(Op::Move, t, [&] { return real_.replaceFile(f, t); });
    }
    Status removeItem(const std::string& p) override { return real_.removeItem(p); }
    Result<std::vector<std::string>> listDirectory(const std::string& p) override {
        return real_.listDirectory(p);
    }
    Result<FileAttributes> attributes(const std::string& p) override { return real_.attributes(p); }
    bool writableOnlyByRoot(const std::string& p) override { return real_.writableOnlyByRoot(p); }

  private:
    // The failure chosen for `op`, or what `real` does.
    template <typename Real>
    Status unless(Op op, const std::string& path, const Real& real) {
        auto it = failures_.find(op);
        return it == failures_.end()
                   ? real()
                   : Status(Error::posix(it->second, "Unable to touch '" + path + "'"));
    }
    linux_backend::PosixFileOperations real_;
    std::map<Op, int> failures_;
};

}  // namespace tessary::testing
