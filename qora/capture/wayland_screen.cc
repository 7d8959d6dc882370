// SPDX-License-Identifier: BSD-2-Clause
#include "qora/capture/wayland_screen.h"

#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>
#include <wayland-client.h>
#include <wlr-screencopy-client.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "qora/base/descriptor.h"

namespace qora::capture {
namespace {

constexpr uint32_t kManagerVersion = 3;  // the first that says when all kinds of buffers were named
constexpr int32_t kMostFailures = 100;   // a few are usual while an output changes
constexpr int32_t kPixelSize = 4;

}  // namespace

// All of them get the screen as `data`.
struct WaylandScreen::Listeners {
  static WaylandScreen& of(void* data) { return *static_cast<WaylandScreen*>(data); }

  static void global(void* data, wl_registry* registry, uint32_t name, const char* interface,
                     uint32_t version) {
    WaylandScreen& self = of(data);
    const auto is = [interface](const wl_interface& one) {
      return std::strcmp(interface, one.name) == 0;
    };
    if (is(wl_shm_interface)) {
      self.shm_ = static_cast<wl_shm*>(::wl_registry_bind(registry, name, &wl_shm_interface, 1));
    } else if (is(wl_output_interface) && self.output_ == nullptr) {
      self.output_ =
          static_cast<wl_output*>(::wl_registry_bind(registry, name, &wl_output_interface, 1));
      self.outputName_ = name;
    } else if (is(zwlr_screencopy_manager_v1_interface) && version >= kManagerVersion) {
      self.manager_ = static_cast<zwlr_screencopy_manager_v1*>(::wl_registry_bind(
          registry, name, &zwlr_screencopy_manager_v1_interface, kManagerVersion));
    }
  }
  static void globalRemove(void* data, wl_registry*, uint32_t name) {
    if (name == of(data).outputName_) of(data).closed_ = true;
  }
  static void buffer(void* data, zwlr_screencopy_frame_v1*, uint32_t format, uint32_t width,
                     uint32_t height, uint32_t stride) {
    of(data).offered_ = {format, width, height, stride};
  }
  static void dmabuf(void*, zwlr_screencopy_frame_v1*, uint32_t, uint32_t, uint32_t) {}
  static void bufferDone(void* data, zwlr_screencopy_frame_v1*) { of(data).copy(); }
  static void flags(void* data, zwlr_screencopy_frame_v1*, uint32_t flags) {
    of(data).upsideDown_ = (flags & 1) != 0;
  }
  static void damage(void* data, zwlr_screencopy_frame_v1*, uint32_t x, uint32_t y, uint32_t width,
                     uint32_t height) {
    of(data).damage_.push_back({static_cast<int32_t>(x), static_cast<int32_t>(y),
                                static_cast<int32_t>(width), static_cast<int32_t>(height)});
  }
  static void ready(void* data, zwlr_screencopy_frame_v1*, uint32_t, uint32_t, uint32_t) {
    of(data).ready_ = true;
    of(data).failures_ = 0;
  }
  static void failed(void* data, zwlr_screencopy_frame_v1*) {
    of(data).dropFrame();
    ++of(data).failures_;
  }
};

WaylandScreen::~WaylandScreen() {
  if (display_ == nullptr) return;
  dropFrame();
  dropBuffer();
  if (manager_ != nullptr) ::zwlr_screencopy_manager_v1_destroy(manager_);
  if (output_ != nullptr) ::wl_output_destroy(output_);
  if (shm_ != nullptr) ::wl_shm_destroy(shm_);
  if (registry_ != nullptr) ::wl_registry_destroy(registry_);
  ::wl_display_disconnect(display_);
}

int32_t WaylandScreen::fail(const std::string& problem) {
  problem_ = problem;
  return -1;
}

int32_t WaylandScreen::lost(const std::string& problem) {
  problem_ = problem;
  errno = EPIPE;
  return -1;
}

int32_t WaylandScreen::open(const ScreenOptions& options) {
  static constexpr wl_registry_listener kListener{Listeners::global, Listeners::globalRemove};
  options_ = options;
  const char* display = std::getenv("WAYLAND_DISPLAY");
  name_ = options.display.empty() && display != nullptr ? display : options.display;
  if (options.window != 0) return fail("a Wayland compositor has no windows with numbers");
  display_ = ::wl_display_connect(name_.c_str());
  if (display_ == nullptr) return fail("cannot connect to the Wayland compositor " + name_);
  registry_ = ::wl_display_get_registry(display_);
  ::wl_registry_add_listener(registry_, &kListener, this);
  ::wl_display_roundtrip(display_);
  if (shm_ == nullptr || output_ == nullptr || manager_ == nullptr) {
    return fail("the Wayland compositor " + name_ + " offers no copies of an output");
  }
  // The answer to the first question tells the size.
  ask();
  while (size_.width == 0 && check() == 1) {
    if (::wl_display_roundtrip(display_) == -1) break;
    if (frame_ == nullptr) ask();
  }
  return check();
}

int32_t WaylandScreen::check() {
  if (::wl_display_get_error(display_) != 0) {
    return lost("the Wayland compositor " + name_ + " is gone");
  }
  if (closed_) return lost("the output is gone");
  if (unusable_) return fail("the Wayland compositor " + name_ + " offers another kind of pixels");
  if (failures_ < kMostFailures) return 1;
  return fail("the Wayland compositor " + name_ + " makes no copies of its output");
}

int32_t WaylandScreen::descriptor() const {
  return ::wl_display_get_fd(display_);
}

int32_t WaylandScreen::dispatch() {
  takeEvents();
  if (frame_ == nullptr) ask();
  ::wl_display_flush(display_);
  if (check() == -1) return -1;
  return ready_ ? 1 : 0;
}

// What is there, without waiting.
int32_t WaylandScreen::takeEvents() {
  while (::wl_display_prepare_read(display_) != 0) {
    if (::wl_display_dispatch_pending(display_) == -1) return -1;
  }
  pollfd wait{descriptor(), POLLIN, 0};
  if (::poll(&wait, 1, 0) == 1) {
    ::wl_display_read_events(display_);
  } else {
    ::wl_display_cancel_read(display_);
  }
  return ::wl_display_dispatch_pending(display_);
}

void WaylandScreen::ask() {
  static constexpr zwlr_screencopy_frame_v1_listener kListener{
      Listeners::buffer, Listeners::flags,  Listeners::ready,     Listeners::failed,
      Listeners::damage, Listeners::dmabuf, Listeners::bufferDone};
  const Area& part = options_.region;
  const int32_t pointer = options_.pointer ? 1 : 0;
  frame_ = isEmpty(part) ? ::zwlr_screencopy_manager_v1_capture_output(manager_, pointer, output_)
                         : ::zwlr_screencopy_manager_v1_capture_output_region(
                               manager_, pointer, output_, part.x, part.y, part.width, part.height);
  ::zwlr_screencopy_frame_v1_add_listener(frame_, &kListener, this);
}

void WaylandScreen::copy() {
  if (!(offered_ == made_) && makeBuffer() == -1) {
    unusable_ = true;
    return;
  }
  damage_.clear();
  ::zwlr_screencopy_frame_v1_copy_with_damage(frame_, buffer_);
}

int32_t WaylandScreen::makeBuffer() {
  dropBuffer();
  if (offered_.format != WL_SHM_FORMAT_XRGB8888 && offered_.format != WL_SHM_FORMAT_ARGB8888) {
    return -1;
  }
  bytes_ = static_cast<size_t>(offered_.stride) * offered_.height;
  const Descriptor memory(::memfd_create("qora-capture", MFD_CLOEXEC));
  if (memory.get() == -1 || ::ftruncate(memory.get(), static_cast<off_t>(bytes_)) == -1) return -1;
  void* address = ::mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_SHARED, memory.get(), 0);
  if (address == MAP_FAILED) return -1;
  memory_ = static_cast<uint8_t*>(address);
  wl_shm_pool* pool = ::wl_shm_create_pool(shm_, memory.get(), static_cast<int32_t>(bytes_));
  made_ = offered_;
  size_ = {static_cast<int32_t>(made_.width), static_cast<int32_t>(made_.height)};
  buffer_ = ::wl_shm_pool_create_buffer(pool, 0, size_.width, size_.height,
                                        static_cast<int32_t>(made_.stride), made_.format);
  ::wl_shm_pool_destroy(pool);
  all_ = true;
  return 1;
}

void WaylandScreen::dropBuffer() {
  if (buffer_ != nullptr) ::wl_buffer_destroy(buffer_);
  if (memory_ != nullptr) ::munmap(memory_, bytes_);
  buffer_ = nullptr;
  memory_ = nullptr;
  made_ = {};
}

void WaylandScreen::dropFrame() {
  if (frame_ != nullptr) ::zwlr_screencopy_frame_v1_destroy(frame_);
  frame_ = nullptr;
  ready_ = false;
}

int32_t WaylandScreen::takeDamage(std::vector<Area>& areas) {
  const Area whole{0, 0, size_.width, size_.height};
  if (all_) damage_.assign(1, whole);
  for (const Area& area : damage_) areas.push_back(intersection(area, whole));
  damage_.clear();
  all_ = false;
  return 1;
}

int32_t WaylandScreen::read(std::span<const Area> areas, std::vector<Piece>& pieces) {
  pieces.clear();
  const int32_t stride = static_cast<int32_t>(made_.stride);
  for (const Area& area : areas) {
    const ptrdiff_t row = upsideDown_ ? size_.height - 1 - area.y : area.y;
    uint8_t* pixels = memory_ + row * stride + static_cast<ptrdiff_t>(area.x) * kPixelSize;
    pieces.push_back({area, pixels, upsideDown_ ? -stride : stride});
  }
  return 1;
}

void WaylandScreen::release() {
  dropFrame();
  ask();
  ::wl_display_flush(display_);
}

}  // namespace qora::capture
