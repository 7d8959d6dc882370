// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/shared_segment.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cerrno>
#include <limits>

#include "qora/base/keep_errno.h"

namespace qora::client {

int32_t SharedSegment::create(uint64_t bytes) {
  remove();
  if (bytes > std::numeric_limits<uint32_t>::max()) {
    errno = EOVERFLOW;
    return -1;
  }
  const int id = ::shmget(IPC_PRIVATE, bytes, IPC_CREAT | 0600);
  if (id == -1) return -1;
  void* address = ::shmat(id, nullptr, 0);
  {
    KeepErrno keep;
    ::shmctl(id, IPC_RMID, nullptr);
  }
  if (address == reinterpret_cast<void*>(-1)) return -1;
  id_ = id;
  address_ = static_cast<uint8_t*>(address);
  return 1;
}

void SharedSegment::remove() {
  if (address_ == nullptr) return;
  KeepErrno keep;
  ::shmdt(address_);
  address_ = nullptr;
  id_ = -1;
}

}  // namespace qora::client
