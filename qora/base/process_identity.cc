// SPDX-License-Identifier: BSD-2-Clause
#include <unistd.h>

#include <cassert>
#include <cerrno>

#include "qora/base/process.h"
#include "qora/base/process_report.h"
#include "qora/base/string.h"

namespace qora::process {
namespace {

constexpr long kDefaultScratchSize = 16384;

// getpwnam_r and its siblings: 0 with a null result when there is no such entry.
template <typename Key, typename Record>
using LookupCall = int (*)(Key, Record*, char*, size_t, Record**);

// Makes one such call with a scratch array of the size that sysconf gives for `limit`.
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

}  // namespace

int32_t setUserId(uid_t user) {
  if (::setuid(user) == 0) return 1;
  return failed(kIdentityError, "Can't set user id to ", user, ".");
}

int32_t setGroupId(gid_t group) {
  if (::setgid(group) == 0) return 1;
  return failed(kIdentityError, "Can't set group id to ", group, ".");
}

int32_t lookupUser(const char* name, passwd& record, char*& scratch) {
  assert(name != nullptr);
  if (lookup(::getpwnam_r, _SC_GETPW_R_SIZE_MAX, name, record, scratch) == 1) return 1;
  return failed(kIdentityError, "Can't get information for user '", name, "'.");
}

int32_t lookupGroup(const char* name, group& record, char*& scratch) {
  assert(name != nullptr);
  if (lookup(::getgrnam_r, _SC_GETGR_R_SIZE_MAX, name, record, scratch) == 1) return 1;
  return failed(kIdentityError, "Can't get information for group '", name, "'.");
}

int32_t lookupUserById(uid_t id, passwd& record, char*& scratch) {
  if (lookup(::getpwuid_r, _SC_GETPW_R_SIZE_MAX, id, record, scratch) == 1) return 1;
  return failed(kIdentityError, "Can't get information for user id '", id, "'.");
}

int32_t lookupGroupById(gid_t id, group& record, char*& scratch) {
  if (lookup(::getgrgid_r, _SC_GETGR_R_SIZE_MAX, id, record, scratch) == 1) return 1;
  return failed(kIdentityError, "Can't get information for group id '", id, "'.");
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

}  // namespace qora::process
