// SPDX-License-Identifier: BSD-2-Clause
#include "qora/capture/x11_image_reader.h"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "qora/base/descriptor.h"

namespace qora::capture {
namespace {

constexpr uint32_t kAllPlanes = ~0u;
constexpr int32_t kPixelSize = 4;

size_t byteSize(const Area& area) {
  return static_cast<size_t>(area.width) * static_cast<size_t>(area.height) * kPixelSize;
}

// Sending a descriptor over any other socket would be the end of the connection.
bool canSendDescriptors(xcb_connection_t* connection) {
  sockaddr_storage peer{};
  socklen_t size = sizeof peer;
  const int fd = ::xcb_get_file_descriptor(connection);
  if (::getsockname(fd, reinterpret_cast<sockaddr*>(&peer), &size) == -1) return false;
  if (peer.ss_family != AF_UNIX) return false;
  X11Reply<xcb_shm_query_version_reply_t> version(
      ::xcb_shm_query_version_reply(connection, ::xcb_shm_query_version(connection), nullptr));
  return version != nullptr && (version->major_version > 1 ||
                                (version->major_version == 1 && version->minor_version >= 2));
}

}  // namespace

void X11ImageReader::makeRoom(size_t pixels) {
  unmap();
  const xcb_query_extension_reply_t* shm = ::xcb_get_extension_data(connection_, &xcb_shm_id);
  if (shm != nullptr && shm->present != 0) attach(pixels * kPixelSize);
}

// A server under another user may take a descriptor and refuse a System V segment; a server on
// another machine announces shared memory all the same, and refuses both.
void X11ImageReader::attach(size_t size) {
  size_ = size;
  segment_ = ::xcb_generate_id(connection_);
  if (canSendDescriptors(connection_) && attachDescriptor(size) == 1) return;
  if (attachSystemV(size) == 1) return;
  segment_ = XCB_NONE;
}

bool X11ImageReader::isAttached(xcb_void_cookie_t cookie) {
  const X11Error error(::xcb_request_check(connection_, cookie));
  return error == nullptr && ::xcb_connection_has_error(connection_) == 0;
}

int32_t X11ImageReader::attachDescriptor(size_t size) {
  Descriptor memory(::memfd_create("qora-capture", MFD_CLOEXEC));
  if (memory.get() == -1 || ::ftruncate(memory.get(), static_cast<off_t>(size)) == -1) return -1;
  void* address = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, memory.get(), 0);
  if (address == MAP_FAILED) return -1;
  memory_ = static_cast<uint8_t*>(address);
  systemV_ = false;
  // xcb closes the descriptor that it sends.
  const int sent = ::fcntl(memory.get(), F_DUPFD_CLOEXEC, 0);
  if (sent != -1 && isAttached(::xcb_shm_attach_fd_checked(connection_, segment_, sent, 0)))
    return 1;
  unmap();
  return -1;
}

int32_t X11ImageReader::attachSystemV(size_t size) {
  const int id = ::shmget(IPC_PRIVATE, size, IPC_CREAT | 0600);
  if (id == -1) return -1;
  void* address = ::shmat(id, nullptr, 0);
  bool attached = false;
  if (address != reinterpret_cast<void*>(-1)) {
    memory_ = static_cast<uint8_t*>(address);
    systemV_ = true;
    segment_ = ::xcb_generate_id(connection_);
    attached =
        isAttached(::xcb_shm_attach_checked(connection_, segment_, static_cast<uint32_t>(id), 0));
  }
  ::shmctl(id, IPC_RMID, nullptr);  // lives on while it is attached
  if (attached) return 1;
  unmap();
  return -1;
}

void X11ImageReader::unmap() {
  copies_.clear();
  if (memory_ == nullptr) return;
  // Of a segment that was never attached: the server says so, and nobody listens.
  if (segment_ != XCB_NONE) ::xcb_shm_detach(connection_, segment_);
  if (systemV_) {
    ::shmdt(memory_);
  } else {
    ::munmap(memory_, size_);
  }
  memory_ = nullptr;
}

int32_t X11ImageReader::read(std::span<const Area> areas, std::vector<Piece>& pieces) {
  pieces.clear();
  requests_.clear();
  if (segment_ == XCB_NONE) {
    requestCopies(areas);
    return takeCopies(areas, pieces);
  }
  requestShared(areas, pieces);
  return takeShared();
}

// The server packs an image's rows and knows no stride, so each begins where the last one ended.
void X11ImageReader::requestShared(std::span<const Area> areas, std::vector<Piece>& pieces) {
  size_t offset = 0;
  for (const Area& area : areas) {
    requests_.push_back(
        ::xcb_shm_get_image(connection_, window_, static_cast<int16_t>(area.x),
                            static_cast<int16_t>(area.y), static_cast<uint16_t>(area.width),
                            static_cast<uint16_t>(area.height), kAllPlanes,
                            XCB_IMAGE_FORMAT_Z_PIXMAP, segment_, static_cast<uint32_t>(offset))
            .sequence);
    pieces.push_back({area, memory_ + offset, area.width * kPixelSize});
    offset += byteSize(area);
  }
}

// Each reply is taken, whatever became of the one before, or it would stay in the connection.
int32_t X11ImageReader::takeShared() {
  int32_t result = 1;
  for (const unsigned request : requests_) {
    const X11Reply<xcb_shm_get_image_reply_t> reply(
        ::xcb_shm_get_image_reply(connection_, {request}, nullptr));
    if (reply == nullptr) result = 0;
  }
  if (::xcb_connection_has_error(connection_) == 0) return result;
  errno = EPIPE;
  return -1;
}

void X11ImageReader::requestCopies(std::span<const Area> areas) {
  for (const Area& area : areas) {
    requests_.push_back(::xcb_get_image(connection_, XCB_IMAGE_FORMAT_Z_PIXMAP, window_,
                                        static_cast<int16_t>(area.x), static_cast<int16_t>(area.y),
                                        static_cast<uint16_t>(area.width),
                                        static_cast<uint16_t>(area.height), kAllPlanes)
                            .sequence);
  }
}

int32_t X11ImageReader::takeCopies(std::span<const Area> areas, std::vector<Piece>& pieces) {
  int32_t result = 1;
  copies_.clear();
  for (size_t i = 0; i < areas.size(); ++i) {
    auto& reply = copies_.emplace_back(::xcb_get_image_reply(connection_, {requests_[i]}, nullptr));
    if (reply == nullptr ||
        static_cast<size_t>(::xcb_get_image_data_length(reply.get())) < byteSize(areas[i])) {
      result = 0;
    } else {
      pieces.push_back({areas[i], ::xcb_get_image_data(reply.get()), areas[i].width * kPixelSize});
    }
  }
  if (::xcb_connection_has_error(connection_) == 0) return result;
  errno = EPIPE;
  return -1;
}

}  // namespace qora::capture
