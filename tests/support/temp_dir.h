// A temporary directory that is removed with everything in it, and whole-file helpers.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>

namespace TessardTest {

class TempDir {
  public:
    TempDir() {
        if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        // Plugins run as another user, and must reach what the tests install for them.
        std::filesystem::permissions(path, std::filesystem::perms::owner_all |
                                               std::filesystem::perms::group_exec |
                                               std::filesystem::perms::others_exec);
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return path; }  // no trailing "/"
    std::string operator/(const std::string& name) const { return path + "/" + name; }

  private:
    std::string path = std::filesystem::temp_directory_path() / "tessard-test-XXXXXX";
};

// Throws std::runtime_error when unreadable.
inline std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

inline void WriteFile(const std::string& path, const std::string& content) {
    if (!(std::ofstream(path, std::ios::binary | std::ios::trunc) << content))
        throw std::runtime_error("cannot write " + path);
}

// Empty when not a symbolic link.
inline std::string ReadLink(const std::string& path) {
    std::error_code error;
    return std::filesystem::read_symlink(path, error).string();
}

// Names of its entries.
inline std::set<std::string> ListDir(const std::string& dir) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir))
        names.insert(entry.path().filename());
    return names;
}

}  // namespace TessardTest
