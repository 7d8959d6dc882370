// SPDX-License-Identifier: BSD-2-Clause
// tests/support/temporary_root.h -- A directory of its own for one test.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace qora::test {

// Holds `files` as symbolic links (path below it, target); gone at the end.
class TemporaryRoot {
 public:
  explicit TemporaryRoot(const std::vector<std::pair<std::string, std::string>>& files = {}) {
    char name[] = "/tmp/qora-test-XXXXXX";
    path_ = mkdtemp(name);
    for (const auto& [file, target] : files) {
      const std::filesystem::path link = path_ + "/" + file;
      std::filesystem::create_directories(link.parent_path());
      std::filesystem::create_symlink(target, link);
    }
  }
  ~TemporaryRoot() { std::filesystem::remove_all(path_); }
  TemporaryRoot(const TemporaryRoot&) = delete;
  TemporaryRoot& operator=(const TemporaryRoot&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace qora::test
