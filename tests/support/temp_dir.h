#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace tessary::testing {

// A fresh directory removed with everything in it at the end of the test.
class TempDir {
  public:
    TempDir() {
        std::string tmpl =
            (std::filesystem::temp_directory_path() / "tessary-test-XXXXXX").string();
        char* made = ::mkdtemp(tmpl.data());
        path_ = made != nullptr ? made : "";
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }

  private:
    std::string path_;
};

inline void writeFile(const std::string& path, const std::string& contents) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << contents;
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace tessary::testing
