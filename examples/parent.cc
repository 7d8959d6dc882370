// SPDX-License-Identifier: BSD-2-Clause
// A whole parent: three seconds of a box that moves over a grey screen, after one at half the
// bitrate, after two in another size; a service that dies is started again.
//     parent SERVICE CODEC_ROOT OUTPUT.264
#include <cstdio>
#include <cstring>

#include "qora/client/screen_session.h"
using namespace qora::client;

static Area draw(int32_t frame, const Picture& picture) {  // stands for what gives you pictures
  const auto bytes = static_cast<size_t>(picture.stride[0]) * static_cast<size_t>(picture.height);
  std::memset(picture.plane[0], 128, bytes);
  for (int32_t plane = 1; plane < 3; ++plane) std::memset(picture.plane[plane], 128, bytes / 4);
  const Area box = {frame * 8 % (picture.width - 40), 100, 40, 40};
  for (int32_t y = box.y; y < box.y + box.height; ++y) {
    std::memset(picture.plane[0] + y * picture.stride[0] + box.x, 235, 40);
  }
  return {0, box.y, picture.width, box.height};  // all that may have changed
}

int main(int argc, char* argv[]) {
  FILE* output = argc == 4 ? std::fopen(argv[3], "wb") : nullptr;
  if (output == nullptr) return 2;
  ScreenSession session;
  int32_t result = session.start({.service = {.servicePath = argv[1], .codecRoot = argv[2]}});
  if (result == 1) result = session.addStream({.width = 640, .height = 360, .bitrate = 4000});
  CodedFrame coded;
  for (int32_t frame = 0; frame < 75 && result != -1; ++frame) {
    if (frame == 25) session.setBitrate(0, 2000);
    if (frame == 50) result = session.resize(0, 800, 450);
    Picture picture;
    if (session.acquire(0, picture) == 1) session.encode(0, picture, {{draw(frame, picture)}});
    while ((result = session.readFrame(coded, 40)) == 1) {  // 25 frames a second
      std::fwrite(coded.bytes.data(), 1, coded.bytes.size(), output);
    }
    if (result == -1) result = session.restart();
  }
  if (result == -1) std::fprintf(stderr, "parent: %s\n", session.errorText().c_str());
  return std::fclose(output) == 0 && result != -1 && session.stop() == 1 ? 0 : 1;
}
