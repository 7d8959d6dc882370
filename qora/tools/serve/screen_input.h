// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/serve/screen_input.h -- Keyboard and pointer of a viewer, put into an X server.
//
// Keys come by their place on the keyboard, so that the server's own layout decides what they
// write; text comes by its characters. Everything that is held down is remembered and let go at the
// end. One thread.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

struct xcb_connection_t;

namespace qora::serve {

class ScreenInput {
 public:
  static constexpr int32_t kButtons = 9;

  ScreenInput() = default;
  ~ScreenInput();
  ScreenInput(const ScreenInput&) = delete;
  ScreenInput& operator=(const ScreenInput&) = delete;

  // `display`: null for the environment's. 1, or -1 with a line of words.
  [[nodiscard]] int32_t open(const char* display, std::string& problem);

  // Pixels of the screen; what lies outside is moved to its edge by the server.
  void move(int32_t x, int32_t y);
  void button(int32_t number, bool down);
  void wheel(int32_t clicks);  // positive: towards the viewer
  // A key by the name that browsers give its place ("KeyA", "ArrowLeft"). 0 for an unknown one.
  int32_t key(std::string_view code, bool down);
  // Types UTF-8; what is no character is left out.
  void text(std::string_view utf8);
  void releaseAll();

 private:
  void fake(uint8_t type, uint8_t detail, int32_t x = 0, int32_t y = 0);
  void typeCharacter(uint32_t character);
  bool loadKeyboard();

  xcb_connection_t* connection_ = nullptr;
  uint32_t root_ = 0;
  std::set<uint8_t> keys_;     // held
  std::set<uint8_t> buttons_;  // held
  uint8_t firstKey_ = 8;
  uint8_t perKey_ = 0;              // symbols a key
  std::vector<uint32_t> symbols_;   // of all keys, perKey_ each
  std::vector<uint8_t> spareKeys_;  // keys without a symbol, for characters that no key has
  size_t nextSpare_ = 0;
};

// The key's number in an X server with Linux's usual keyboard; 0 for an unknown name.
uint8_t keyNumber(std::string_view code);

}  // namespace qora::serve
