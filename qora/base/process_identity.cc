#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <limits>

#include "qora/base/error_text.h"
#include "qora/base/keep_errno.h"
#include "qora/base/logger.h"
#include "qora/base/process.h"
#include "qora/base/string.h"

namespace qora::process {
namespace {

// Tells a failure in two lines, the first made of `pieces`, and returns -1. errno stays. Unlike
// elsewhere in the family the error text stands behind a comma and without quotes; that is meant.
template <typename... Pieces>
int32_t failed(const Pieces&... pieces) {
  KeepErrno keep;
  ((logStream() << "Process: ERROR! ") << ... << pieces) << "\n";
  logStream() << "Process: ERROR! Error is " << keep.value << ", " << errorText(keep.value)
              << ".\n";
  return -1;
}

constexpr long kDefaultScratchSize = 16384;
constexpr int64_t kDefaultTextLimit = 1024;

struct Escape {
  char plain;
  char stored;
};
constexpr Escape kEscapes[] = {{',', 0x1E}, {'=', 0x1D}, {' ', 0x1F}};

// getpwnam_r and its siblings: 0 with a null result when there is no such entry.
template <typename Key, typename Record>
using LookupCall = int (*)(Key, Record*, char*, size_t, Record**);

// Makes one such call with a scratch array of the size that `limit`, a name of sysconf, tells.
template <typename Key, typename Record>
int32_t lookup(LookupCall<Key, Record> call, int32_t limit, Key key, Record& record,
               char*& scratch) {
  const long known = ::sysconf(limit);
  const auto size = static_cast<size_t>(known != -1 ? known : kDefaultScratchSize);
  scratch = new char[size];
  Record* found = nullptr;
  const int32_t error = call(key, &record, scratch, size, &found);
  if (error == 0 && found != nullptr) return 1;
  delete[] scratch;
  scratch = nullptr;
  errno = error != 0 ? error : ENOENT;
  return -1;
}

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

int32_t setUserId(uid_t user) {
  if (::setuid(user) == 0) return 1;
  return failed("Can't set user id to ", user, ".");
}

int32_t setGroupId(gid_t group) {
  if (::setgid(group) == 0) return 1;
  return failed("Can't set group id to ", group, ".");
}

int32_t lookupUser(const char* name, passwd& record, char*& scratch) {
  if (lookup(::getpwnam_r, _SC_GETPW_R_SIZE_MAX, name, record, scratch) == 1) return 1;
  return failed("Can't get information for user '", name, "'.");
}

int32_t lookupGroup(const char* name, group& record, char*& scratch) {
  if (lookup(::getgrnam_r, _SC_GETGR_R_SIZE_MAX, name, record, scratch) == 1) return 1;
  return failed("Can't get information for group '", name, "'.");
}

int32_t lookupUserById(uid_t id, passwd& record, char*& scratch) {
  if (lookup(::getpwuid_r, _SC_GETPW_R_SIZE_MAX, id, record, scratch) == 1) return 1;
  return failed("Can't get information for user id '", id, "'.");
}

int32_t lookupGroupById(gid_t id, group& record, char*& scratch) {
  if (lookup(::getgrgid_r, _SC_GETGR_R_SIZE_MAX, id, record, scratch) == 1) return 1;
  return failed("Can't get information for group id '", id, "'.");
}

int32_t userIdOf(const char* name) {
  passwd record;
  char* scratch;
  if (lookupUser(name, record, scratch) == -1) return -1;
  delete[] scratch;
  return static_cast<int32_t>(record.pw_uid);
}

int32_t groupIdOf(const char* name) {
  group record;
  char* scratch;
  if (lookupGroup(name, record, scratch) == -1) return -1;
  delete[] scratch;
  return static_cast<int32_t>(record.gr_gid);
}

int32_t userNameOf(char*& slot, uid_t id) {
  passwd record;
  char* scratch;
  if (lookupUserById(id, record, scratch) == -1) return -1;
  string::assign(slot, record.pw_name);
  delete[] scratch;
  return 1;
}

int32_t groupNameOf(char*& slot, gid_t id) {
  group record;
  char* scratch;
  if (lookupGroupById(id, record, scratch) == -1) return -1;
  string::assign(slot, record.gr_name);
  delete[] scratch;
  return 1;
}

void escapeParameter(char* text) {
  translate(text, &Escape::plain, &Escape::stored);
}

void unescapeParameter(char* text) {
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
  if (*text < '0' || *text > '9') return -1;
  KeepErrno keep;
  const long long value = ::strtoll(text, nullptr, 10);
  return value <= std::numeric_limits<int32_t>::max() ? static_cast<int32_t>(value) : -1;
}

int32_t isItem(const char* position, const char* key) {
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
