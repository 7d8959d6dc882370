// tests/base/temporary_directory.h -- A new directory, open to all users, removed with its content.
#pragma once

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace qora::test {

struct TemporaryDirectory {
  std::string path = (std::filesystem::temp_directory_path() / "base-test-XXXXXX").string();

  TemporaryDirectory() {
    if (mkdtemp(path.data()) == nullptr || chmod(path.c_str(), 0755) == -1) abort();
  }
  ~TemporaryDirectory() { std::filesystem::remove_all(path); }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  std::string of(const std::string& name) const { return path + "/" + name; }
  void write(const std::string& name, const std::string& text) const {
    std::ofstream(of(name)) << text;
  }
  std::string read(const std::string& name) const {
    std::ostringstream text;
    text << std::ifstream(of(name)).rdbuf();
    return text.str();
  }
};

}  // namespace qora::test
