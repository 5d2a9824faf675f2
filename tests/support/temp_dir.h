// A temporary directory that is removed with everything in it.
#pragma once

#include <set>
#include <string>

namespace TessardTest {

class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return path; }  // no trailing "/"
    std::string operator/(const std::string& name) const { return path + "/" + name; }

  private:
    std::string path;
};

std::string ReadFile(const std::string& path);  // throws std::runtime_error when unreadable
void WriteFile(const std::string& path, const std::string& content);
std::string ReadLink(const std::string& path);          // empty when not a symbolic link
std::set<std::string> ListDir(const std::string& dir);  // names of its entries

}  // namespace TessardTest
