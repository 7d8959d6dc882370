// SPDX-License-Identifier: BSD-2-Clause
#include "qora/base/process_parameters.h"

#include <cassert>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "qora/base/keep_errno.h"
#include "qora/base/string.h"

namespace qora::process {
namespace {

constexpr int64_t kDefaultTextLimit = 1024;

struct Escape {
  char plain;
  char stored;
};
constexpr Escape kEscapes[] = {{',', 0x1E}, {'=', 0x1D}, {' ', 0x1F}};

// The character that stands for `character` going from one form to the other.
char translated(char character, char Escape::*from, char Escape::*to) {
  for (const Escape& escape : kEscapes) {
    if (escape.*from == character) return escape.*to;
  }
  return character;
}

void translate(char* text, char Escape::*from, char Escape::*to) {
  for (; *text != '\0'; ++text) *text = translated(*text, from, to);
}

bool isEmpty(const char* text) {
  return text == nullptr || text[0] == '\0';
}

}  // namespace

void escapeParameter(char* text) {
  assert(text != nullptr);
  translate(text, &Escape::plain, &Escape::stored);
}

void unescapeParameter(char* text) {
  assert(text != nullptr);
  translate(text, &Escape::stored, &Escape::plain);
}

int32_t isValidParameterText(const char* text, int32_t limit) {
  if (text == nullptr || strpbrk(text, "=,") != nullptr) return -1;
  if (limit == -1) return 1;
  const int64_t bound = limit != 0 ? limit : kDefaultTextLimit;
  return static_cast<int64_t>(strlen(text)) < bound ? 1 : -1;
}

int32_t isValidParameter(const char* key, const char* value, int32_t limit) {
  const bool valid = isValidParameterText(key, 0) == 1 && isValidParameterText(value, limit) == 1;
  return valid ? 1 : -1;
}

int32_t parseCount(const char* text) {
  assert(text != nullptr);
  if (*text < '0' || *text > '9') return -1;
  KeepErrno keep;
  const long long value = ::strtoll(text, nullptr, 10);
  return value <= std::numeric_limits<int32_t>::max() ? static_cast<int32_t>(value) : -1;
}

int32_t isItem(const char* position, const char* key) {
  assert(position != nullptr && key != nullptr);
  for (; *key != '\0'; ++key, ++position) {
    if (*position != *key || *position == ',') return 0;
  }
  return *position == ',' || *position == '\0' ? 1 : 0;
}

int32_t replaceParameterPrefix(char*& slot, const char* prefix, const char* replacement) {
  if (isEmpty(prefix) || isEmpty(replacement)) return 0;
  return string::replacePrefix(slot, prefix, replacement);
}

}  // namespace qora::process
