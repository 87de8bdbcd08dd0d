#pragma once

#include "platform/file_operations.h"

namespace tessary::linux_backend {

class PosixFileOperations final : public FileOperations {
  public:
    bool exists(const std::string& path) override;
    Result<plist::Bytes> readFile(const std::string& path) override;
    Status writeFileAtomically(const std::string& path, const plist::Bytes& bytes) override;
    Status setPermissions(const std::string& path, std::uint32_t mode) override;
    Status createDirectory(const std::string& path, bool intermediates,
                           std::optional<std::uint32_t> mode) override;
    Status copyFile(const std::string& from, const std::string& to) override;
    Result<std::string> copyBeside(const std::string& from, const std::string& to,
                                   std::uint32_t mode) override;
    Status moveItem(const std::string& from, const std::string& to) override;
    Status replaceFile(const std::string& from, const std::string& to) override;
    Status removeItem(const std::string& path) override;
    Result<std::vector<std::string>> listDirectory(const std::string& path) override;
    Result<FileAttributes> attributes(const std::string& path) override;
    bool writableOnlyByRoot(const std::string& path) override;
};

}  // namespace tessary::linux_backend
