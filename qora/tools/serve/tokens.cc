// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/serve/tokens.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "qora/base/descriptor.h"

namespace qora::serve {
namespace {

constexpr size_t kTokenSize = 32;  // characters

std::string hexadecimal(const uint8_t* bytes, size_t count) {
  std::string text;
  for (size_t i = 0; i < count; ++i) {
    text += "0123456789abcdef"[bytes[i] >> 4];
    text += "0123456789abcdef"[bytes[i] & 15];
  }
  return text;
}

int32_t fail(std::string& problem, const std::string& path, const char* what) {
  problem = path + ": " + what;
  return -1;
}

bool isToken(std::string_view text) {
  return text.size() == kTokenSize &&
         text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

}  // namespace

int32_t makeTokens(Tokens& tokens, std::string& problem) {
  uint8_t bytes[kTokenSize];
  if (::getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
    problem = "the system gives no random bytes";
    return -1;
  }
  tokens.view = hexadecimal(bytes, kTokenSize / 2);
  tokens.control = hexadecimal(bytes + kTokenSize / 2, kTokenSize / 2);
  return 1;
}

int32_t keepTokens(const std::string& path, Tokens& tokens, std::string& problem) {
  const int flags = O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW;
  const Descriptor file(::open(path.c_str(), flags, S_IRUSR | S_IWUSR));
  struct stat status {};
  if (file.get() == -1 || ::fstat(file.get(), &status) == -1) {
    return fail(problem, path, std::strerror(errno));
  }
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0 || status.st_uid != ::geteuid()) {
    return fail(problem, path, "others can read the secrets; it has to be yours, mode 0600");
  }
  if (status.st_size == 0) {
    if (makeTokens(tokens, problem) == -1) return -1;
    const std::string text = tokens.view + "\n" + tokens.control + "\n";
    if (::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size())) {
      return 1;
    }
    return fail(problem, path, std::strerror(errno));
  }
  char text[2 * kTokenSize + 2];
  if (::read(file.get(), text, sizeof text) == static_cast<ssize_t>(sizeof text)) {
    tokens = {std::string(text, kTokenSize), std::string(text + kTokenSize + 1, kTokenSize)};
  }
  if (isToken(tokens.view) && isToken(tokens.control)) return 1;
  return fail(problem, path, "not two lines of 32 hexadecimal digits");
}

bool matchesToken(std::string_view token, std::string_view word) {
  if (token.empty() || token.size() != word.size()) return false;
  volatile uint8_t different = 0;
  for (size_t i = 0; i < token.size(); ++i) {
    different = static_cast<uint8_t>(different | (token[i] ^ word[i]));
  }
  return different == 0;
}

}  // namespace qora::serve
