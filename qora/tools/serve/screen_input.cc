// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/serve/screen_input.h"

#include <xcb/xcb.h>
#include <xcb/xtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace qora::serve {
namespace {

template <typename T>
using Freed = std::unique_ptr<T, decltype(&std::free)>;
template <typename T>
Freed<T> freed(T* reply) {
  return Freed<T>(reply, &std::free);
}

struct KeyRow {
  uint8_t first;      // the number of the first name
  const char* names;  // of keys with numbers in a row
};
constexpr KeyRow kKeyRows[] = {
    {9,
     "Escape Digit1 Digit2 Digit3 Digit4 Digit5 Digit6 Digit7 Digit8 Digit9 Digit0 Minus Equal "
     "Backspace Tab KeyQ KeyW KeyE KeyR KeyT KeyY KeyU KeyI KeyO KeyP BracketLeft BracketRight "
     "Enter ControlLeft KeyA KeyS KeyD KeyF KeyG KeyH KeyJ KeyK KeyL Semicolon Quote Backquote "
     "ShiftLeft Backslash KeyZ KeyX KeyC KeyV KeyB KeyN KeyM Comma Period Slash ShiftRight "
     "NumpadMultiply AltLeft Space CapsLock F1 F2 F3 F4 F5 F6 F7 F8 F9 F10 NumLock ScrollLock "
     "Numpad7 Numpad8 Numpad9 NumpadSubtract Numpad4 Numpad5 Numpad6 NumpadAdd Numpad1 Numpad2 "
     "Numpad3 Numpad0 NumpadDecimal"},
    {94, "IntlBackslash F11 F12 IntlRo"},
    {104, "NumpadEnter ControlRight NumpadDivide PrintScreen AltRight"},
    {110, "Home ArrowUp PageUp ArrowLeft ArrowRight End ArrowDown PageDown Insert Delete"},
    {127, "Pause"},
    {133, "MetaLeft MetaRight ContextMenu"},
};

// The X number of a character: Latin 1 as it is, all others with a bit of their own.
uint32_t symbolOf(uint32_t character) {
  if (character == '\n') return 0xFF0D;
  if (character == '\t') return 0xFF09;
  return character < 0x100 ? character : 0x01000000 | character;
}

// The next character of UTF-8, 0 for bytes that are none. Moves `at` on.
uint32_t nextCharacter(std::string_view text, size_t& at) {
  const auto byte = static_cast<uint8_t>(text[at++]);
  const int32_t more = byte < 0x80    ? 0
                       : byte >= 0xF0 ? 3
                       : byte >= 0xE0 ? 2
                       : byte >= 0xC0 ? 1
                                      : -1;
  if (more == -1 || at + static_cast<size_t>(more) > text.size()) return 0;
  uint32_t character = more == 0 ? byte : byte & (0x3Fu >> more);
  for (int32_t i = 0; i < more; ++i) {
    character = character << 6 | (static_cast<uint8_t>(text[at++]) & 0x3F);
  }
  return character;
}

constexpr uint8_t kShift = 50;

}  // namespace

uint8_t keyNumber(std::string_view code) {
  for (const KeyRow& row : kKeyRows) {
    std::string_view names = row.names;
    for (uint8_t number = row.first; !names.empty(); ++number) {
      const size_t end = std::min(names.find(' '), names.size());
      if (names.substr(0, end) == code) return number;
      names.remove_prefix(std::min(end + 1, names.size()));
    }
  }
  return 0;
}

ScreenInput::~ScreenInput() {
  if (connection_ == nullptr) return;
  releaseAll();
  xcb_disconnect(connection_);
}

int32_t ScreenInput::open(const char* display, std::string& problem) {
  int screen = 0;
  connection_ = xcb_connect(display, &screen);
  if (xcb_connection_has_error(connection_) != 0) {
    problem = "cannot reach the X server to type on it";
    return -1;
  }
  const auto* extension = xcb_get_extension_data(connection_, &xcb_test_id);
  if (extension == nullptr || extension->present == 0) {
    problem = "the X server lets nobody type: it has no XTEST extension";
    return -1;
  }
  auto roots = xcb_setup_roots_iterator(xcb_get_setup(connection_));
  for (; screen > 0; --screen) xcb_screen_next(&roots);
  root_ = roots.data->root;
  if (!loadKeyboard()) {
    problem = "the X server does not give its keyboard";
    return -1;
  }
  return 1;
}

bool ScreenInput::loadKeyboard() {
  const xcb_setup_t* const setup = xcb_get_setup(connection_);
  firstKey_ = setup->min_keycode;
  const auto count = static_cast<uint8_t>(setup->max_keycode - firstKey_ + 1);
  const auto reply = freed(xcb_get_keyboard_mapping_reply(
      connection_, xcb_get_keyboard_mapping(connection_, firstKey_, count), nullptr));
  if (reply == nullptr || reply->keysyms_per_keycode == 0) return false;
  perKey_ = reply->keysyms_per_keycode;
  const xcb_keysym_t* const symbols = xcb_get_keyboard_mapping_keysyms(reply.get());
  symbols_.assign(symbols, symbols + xcb_get_keyboard_mapping_keysyms_length(reply.get()));
  for (size_t key = 0; key * perKey_ < symbols_.size(); ++key) {
    const auto first = symbols_.begin() + static_cast<std::ptrdiff_t>(key * perKey_);
    if (std::all_of(first, first + perKey_, [](uint32_t symbol) { return symbol == 0; })) {
      spareKeys_.push_back(static_cast<uint8_t>(firstKey_ + key));
    }
  }
  return true;
}

void ScreenInput::fake(uint8_t type, uint8_t detail, int32_t x, int32_t y) {
  xcb_test_fake_input(connection_, type, detail, XCB_CURRENT_TIME, root_, static_cast<int16_t>(x),
                      static_cast<int16_t>(y), 0);
  xcb_flush(connection_);
}

void ScreenInput::move(int32_t x, int32_t y) {
  fake(XCB_MOTION_NOTIFY, 0, x, y);
}

void ScreenInput::button(int32_t number, bool down) {
  const auto button = static_cast<uint8_t>(number);
  if (down == buttons_.contains(button)) return;
  down ? void(buttons_.insert(button)) : void(buttons_.erase(button));
  fake(down ? XCB_BUTTON_PRESS : XCB_BUTTON_RELEASE, button);
}

void ScreenInput::wheel(int32_t clicks) {
  for (int32_t i = std::abs(clicks); i > 0; --i) {
    button(clicks < 0 ? 4 : 5, true);
    button(clicks < 0 ? 4 : 5, false);
  }
}

int32_t ScreenInput::key(std::string_view code, bool down) {
  const uint8_t number = keyNumber(code);
  if (number == 0) return 0;
  if (down == keys_.contains(number)) return 1;
  down ? void(keys_.insert(number)) : void(keys_.erase(number));
  fake(down ? XCB_KEY_PRESS : XCB_KEY_RELEASE, number);
  return 1;
}

void ScreenInput::text(std::string_view utf8) {
  for (size_t at = 0; at < utf8.size();) {
    const uint32_t character = nextCharacter(utf8, at);
    if (character != 0) typeCharacter(character);
  }
}

void ScreenInput::typeCharacter(uint32_t character) {
  const uint32_t symbol = symbolOf(character);
  auto key = uint8_t{0};
  bool shifted = false;
  for (size_t i = 0; i < symbols_.size() && key == 0; ++i) {
    if (symbols_[i] != symbol || i % perKey_ > 1) continue;
    key = static_cast<uint8_t>(firstKey_ + i / perKey_);
    shifted = i % perKey_ == 1;
  }
  if (key == 0) {
    if (spareKeys_.empty()) return;
    // In turn, because programs read a key's new symbol a while after it was pressed.
    key = spareKeys_[nextSpare_++ % spareKeys_.size()];
    const uint32_t symbols[2] = {symbol, symbol};
    xcb_change_keyboard_mapping(connection_, 1, key, 2, symbols);
  }
  if (shifted) fake(XCB_KEY_PRESS, kShift);
  fake(XCB_KEY_PRESS, key);
  fake(XCB_KEY_RELEASE, key);
  if (shifted) fake(XCB_KEY_RELEASE, kShift);
}

void ScreenInput::releaseAll() {
  for (const uint8_t key : keys_) fake(XCB_KEY_RELEASE, key);
  for (const uint8_t button : buttons_) fake(XCB_BUTTON_RELEASE, button);
  keys_.clear();
  buttons_.clear();
}

}  // namespace qora::serve
