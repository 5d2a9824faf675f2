#include "tests/support/temp_dir.h"

#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace TessardTest {

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tessard-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    // Tests may leave read-only directories behind; make them writable first.
    for (auto it = std::filesystem::recursive_directory_iterator(path, ignored);
         it != std::filesystem::recursive_directory_iterator(); it.increment(ignored)) {
        if (it->is_directory(ignored) && !it->is_symlink(ignored))
            std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                         std::filesystem::perm_options::add, ignored);
    }
    std::filesystem::permissions(path, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ignored);
    std::filesystem::remove_all(path, ignored);
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out) throw std::runtime_error("cannot write " + path);
}

std::string ReadLink(const std::string& path) {
    char target[PATH_MAX];
    ssize_t n = readlink(path.c_str(), target, sizeof target);
    return n < 0 ? std::string() : std::string(target, static_cast<size_t>(n));
}

}  // namespace TessardTest
