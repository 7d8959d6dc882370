// SPDX-License-Identifier: BSD-2-Clause
#include "qora/capture/x11_screen.h"

#include <xcb/shm.h>

#include <cerrno>
#include <cstdlib>

namespace qora::capture {
namespace {

struct Extension {
  xcb_extension_t* id;
  const char* name;
};
// Without these there is nothing to go by; shared memory only makes it faster.
const Extension kNeeded[] = {{&xcb_damage_id, "DAMAGE"}, {&xcb_xfixes_id, "XFIXES"}};

Area areaOf(const xcb_rectangle_t& rectangle) {
  return {rectangle.x, rectangle.y, rectangle.width, rectangle.height};
}

// What of an area of the picture is converted on its own: a chroma sample has two pixels a side.
Area evenPart(const Area& area, const ScreenSize& size) {
  const int32_t right = area.x + area.width;
  const int32_t bottom = area.y + area.height;
  const int32_t x = area.x + area.x % 2;
  const int32_t y = area.y + area.y % 2;
  return {x, y, (right == size.width ? right : right - right % 2) - x,
          (bottom == size.height ? bottom : bottom - bottom % 2) - y};
}

const xcb_visualtype_t* visualOf(const xcb_screen_t* screen) {
  for (auto depth = ::xcb_screen_allowed_depths_iterator(screen); depth.rem > 0;
       ::xcb_depth_next(&depth)) {
    for (auto visual = ::xcb_depth_visuals_iterator(depth.data); visual.rem > 0;
         ::xcb_visualtype_next(&visual)) {
      if (visual.data->visual_id == screen->root_visual) return visual.data;
    }
  }
  return nullptr;
}

int32_t bitsPerPixel(const xcb_setup_t* setup, uint8_t depth) {
  for (auto format = ::xcb_setup_pixmap_formats_iterator(setup); format.rem > 0;
       ::xcb_format_next(&format)) {
    if (format.data->depth == depth) return format.data->bits_per_pixel;
  }
  return 0;
}

}  // namespace

int32_t X11Screen::fail(const std::string& problem) {
  problem_ = problem;
  return -1;
}

int32_t X11Screen::lost() {
  problem_ = "the X server " + name_ + " is gone";
  errno = EPIPE;
  return -1;
}

int32_t X11Screen::open(const ScreenOptions& options) {
  options_ = options;
  if (connect() == -1 || checkFormat() == -1 || checkExtensions() == -1 || watch() == -1) return -1;
  reader_ = std::make_unique<X11ImageReader>(connection_.get(), setup_->root);
  const Area& region = options_.region;
  if (!isEmpty(region) && options_.window == 0) view_ = region;
  moved_ = true;
  if (lookAgain() == -1) return -1;
  if (intersection(view_, root_) == view_ || options_.window != 0) return 1;
  return fail("the region lies outside the screen of " + std::to_string(root_.width) + "x" +
              std::to_string(root_.height));
}

int32_t X11Screen::connect() {
  const char* display = std::getenv("DISPLAY");
  name_ = options_.display.empty() && display != nullptr ? display : options_.display;
  if (name_.empty()) return fail("no X display is named, neither by an option nor by $DISPLAY");
  int number = 0;
  connection_.reset(::xcb_connect(name_.c_str(), &number));
  if (::xcb_connection_has_error(connection_.get()) != 0) {
    return fail("cannot connect to the X server " + name_);
  }
  auto screen = ::xcb_setup_roots_iterator(::xcb_get_setup(connection_.get()));
  for (; number > 0 && screen.rem > 1; --number) ::xcb_screen_next(&screen);
  setup_ = screen.data;
  return 1;
}

// Four bytes a pixel: blue, green, red, unused. What practically every server has.
int32_t X11Screen::checkFormat() {
  const xcb_setup_t* server = ::xcb_get_setup(connection_.get());
  const xcb_visualtype_t* visual = visualOf(setup_);
  const int32_t bits = bitsPerPixel(server, setup_->root_depth);
  if (visual != nullptr && bits == 32 && server->image_byte_order == XCB_IMAGE_ORDER_LSB_FIRST &&
      visual->red_mask == 0xff0000 && visual->green_mask == 0xff00 && visual->blue_mask == 0xff) {
    return 1;
  }
  return fail("the X server " + name_ + " has pixels of depth " +
              std::to_string(setup_->root_depth) + " and " + std::to_string(bits) +
              " bits; only 32 bits of blue, green, red are taken");
}

int32_t X11Screen::checkExtensions() {
  xcb_connection_t* connection = connection_.get();
  ::xcb_prefetch_extension_data(connection, &xcb_shm_id);
  for (const Extension& extension : kNeeded) {
    const auto* data = ::xcb_get_extension_data(connection, extension.id);
    if (data == nullptr || data->present == 0) {
      return fail("the X server " + name_ + " has no extension " + extension.name);
    }
  }
  damageEvent_ = ::xcb_get_extension_data(connection, &xcb_damage_id)->first_event;
  // A server answers to neither before it was asked for its version.
  const auto damage = ::xcb_damage_query_version(connection, 1, 1);
  const auto fixes = ::xcb_xfixes_query_version(connection, 5, 0);
  const X11Reply<void> answers[] = {
      X11Reply<void>(::xcb_damage_query_version_reply(connection, damage, nullptr)),
      X11Reply<void>(::xcb_xfixes_query_version_reply(connection, fixes, nullptr))};
  for (size_t i = 0; i < std::size(kNeeded); ++i) {
    if (answers[i] == nullptr) {
      return fail("the X server " + name_ + " refuses its extension " + kNeeded[i].name);
    }
  }
  return 1;
}

// A server that lets nobody look, or a window that is not there, says so here.
int32_t X11Screen::watch() {
  xcb_connection_t* connection = connection_.get();
  const uint32_t structure = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
  ::xcb_change_window_attributes(connection, setup_->root, XCB_CW_EVENT_MASK, &structure);
  damage_ = ::xcb_generate_id(connection);
  region_ = ::xcb_generate_id(connection);
  ::xcb_xfixes_create_region(connection, region_, 0, nullptr);
  const X11Error refused(::xcb_request_check(
      connection, ::xcb_damage_create_checked(connection, damage_, setup_->root,
                                              XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY)));
  if (refused != nullptr)
    return fail("the X server " + name_ + " does not let its screen be watched");
  if (options_.window == 0) return 1;
  const X11Error none(::xcb_request_check(
      connection, ::xcb_change_window_attributes_checked(connection, options_.window,
                                                         XCB_CW_EVENT_MASK, &structure)));
  if (none == nullptr) return 1;
  return fail("the X server " + name_ + " has no window " + std::to_string(options_.window));
}

int32_t X11Screen::descriptor() const {
  return ::xcb_get_file_descriptor(connection_.get());
}

int32_t X11Screen::nextLook() const {
  return options_.pointer ? pointer_.nextLook() : -1;
}

int32_t X11Screen::dispatch() {
  takeEvents();
  xcb_connection_t* connection = connection_.get();
  if (options_.pointer && !drawn_ && pointer_.isLookDue()) {
    pointer_.take(connection, ::xcb_xfixes_get_cursor_image(connection));
    takeEvents();
  }
  // To look takes in what has happened since, the window's end for instance.
  while (moved_ || closed_) {
    if (lookAgain() == -1) return -1;
  }
  ::xcb_flush(connection);
  if (::xcb_connection_has_error(connection) != 0) return lost();
  return drawn_ || all_ || (options_.pointer && pointer_.hasChanged()) ? 1 : 0;
}

// Waiting for a reply takes in events too, and then the descriptor stays silent.
void X11Screen::takeEvents() {
  using Event = X11Reply<xcb_generic_event_t>;
  while (const Event event{::xcb_poll_for_event(connection_.get())}) takeEvent(*event);
}

void X11Screen::takeEvent(const xcb_generic_event_t& event) {
  const uint8_t type = event.response_type & 0x7f;  // the highest bit: sent by a program
  if (type == damageEvent_ + XCB_DAMAGE_NOTIFY) {
    drawn_ = true;
  } else if (type == XCB_CONFIGURE_NOTIFY || type == XCB_REPARENT_NOTIFY) {
    moved_ = true;
  } else if (type == XCB_DESTROY_NOTIFY) {
    closed_ = true;
    moved_ = true;
  }
}

// A change of size is reported several times, half of them with the old size: ask. The answer of a
// moment may be followed by another one, never by none.
int32_t X11Screen::lookAgain() {
  moved_ = false;
  xcb_connection_t* connection = connection_.get();
  const bool follow = options_.window != 0;
  const auto rootGeometry = ::xcb_get_geometry(connection, setup_->root);
  xcb_get_geometry_cookie_t geometry{};
  xcb_translate_coordinates_cookie_t place{};
  if (follow) {
    geometry = ::xcb_get_geometry(connection, options_.window);
    place = ::xcb_translate_coordinates(connection, options_.window, setup_->root, 0, 0);
  }
  const X11Reply<xcb_get_geometry_reply_t> root(
      ::xcb_get_geometry_reply(connection, rootGeometry, nullptr));
  Area view = view_;
  if (follow && findWindow(geometry, place, view) == -1) return -1;
  if (root == nullptr) return lost();
  const Area whole{0, 0, root->width, root->height};
  if (!follow && isEmpty(options_.region)) view = whole;
  takeEvents();
  return changeView(whole, view);
}

int32_t X11Screen::findWindow(xcb_get_geometry_cookie_t geometry,
                              xcb_translate_coordinates_cookie_t place, Area& view) {
  xcb_connection_t* connection = connection_.get();
  const X11Reply<xcb_get_geometry_reply_t> size(
      ::xcb_get_geometry_reply(connection, geometry, nullptr));
  const X11Reply<xcb_translate_coordinates_reply_t> corner(
      ::xcb_translate_coordinates_reply(connection, place, nullptr));
  if (::xcb_connection_has_error(connection) != 0) return lost();
  if (closed_ || size == nullptr || corner == nullptr) {
    closed_ = true;  // whoever asks again is told again
    problem_ = "the window was closed";
    errno = EPIPE;
    return -1;
  }
  view = {corner->dst_x, corner->dst_y, size->width, size->height};
  return 1;
}

int32_t X11Screen::changeView(const Area& root, const Area& view) {
  if (root == root_ && view == view_) return 1;
  const bool resized = view.width != view_.width || view.height != view_.height;
  if (resized || isEmpty(root_)) {
    reader_->makeRoom(static_cast<size_t>(view.width) * static_cast<size_t>(view.height));
  }
  root_ = root;
  view_ = view;
  all_ = true;
  return ::xcb_connection_has_error(connection_.get()) != 0 ? lost() : 1;
}

// From root coordinates, cut off at the picture.
void X11Screen::addArea(Area area, std::vector<Area>& areas) const {
  area = intersection(area, view_);
  if (isEmpty(area)) return;
  area.x -= view_.x;
  area.y -= view_.y;
  areas.push_back(area);
}

int32_t X11Screen::takeDamage(std::vector<Area>& areas) {
  xcb_connection_t* connection = connection_.get();
  ::xcb_damage_subtract(connection, damage_, XCB_NONE, region_);
  const auto fetch = ::xcb_xfixes_fetch_region(connection, region_);
  if (options_.pointer) pointer_.take(connection, ::xcb_xfixes_get_cursor_image(connection));
  if (takeRegion(fetch, areas) == -1) return lost();
  if (options_.pointer && pointer_.hasChanged()) {
    addArea(pointer_.areaBefore(), areas);
    addArea(pointer_.area(), areas);
    pointer_.markDrawn();
  }
  if (all_) areas.push_back({0, 0, view_.width, view_.height});
  drawn_ = all_ = false;
  return 1;
}

int32_t X11Screen::takeRegion(xcb_xfixes_fetch_region_cookie_t fetch, std::vector<Area>& areas) {
  const X11Reply<xcb_xfixes_fetch_region_reply_t> region(
      ::xcb_xfixes_fetch_region_reply(connection_.get(), fetch, nullptr));
  if (region == nullptr) return -1;
  const xcb_rectangle_t* rectangles = ::xcb_xfixes_fetch_region_rectangles(region.get());
  const int count = ::xcb_xfixes_fetch_region_rectangles_length(region.get());
  for (int i = 0; i < count; ++i) addArea(areaOf(rectangles[i]), areas);
  return 1;
}

int32_t X11Screen::read(std::span<const Area> areas, std::vector<Piece>& pieces) {
  wanted_.clear();
  const Area reached{root_.x - view_.x, root_.y - view_.y, root_.width, root_.height};
  for (const Area& area : areas) {
    const Area there = evenPart(intersection(area, reached), size());
    if (isEmpty(there)) continue;
    wanted_.push_back({there.x + view_.x, there.y + view_.y, there.width, there.height});
  }
  const int32_t result = reader_->read(wanted_, pieces);
  if (result == -1) return lost();
  // The server refused: its size is changing. What was taken for read is not, so all is read anew.
  if (result == 0) {
    moved_ = all_ = true;
    pieces.clear();
  }
  for (Piece& piece : pieces) {
    if (options_.pointer) pointer_.draw(piece);
    piece.area.x -= view_.x;
    piece.area.y -= view_.y;
  }
  return result;
}

}  // namespace qora::capture
