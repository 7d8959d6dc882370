// SPDX-License-Identifier: BSD-2-Clause
// A parent in C++ with the client library: raw I420 in, H.264 (Annex B) out.
//     encode_clip SERVICE CODEC_ROOT WIDTH HEIGHT CLIP.i420 OUTPUT.264
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "qora/client/screen_session.h"
using namespace qora::client;

// The session's planes have strides of their own. False at the end of the clip.
static bool readPicture(FILE* clip, const Picture& picture) {
  for (int32_t plane = 0; plane < 3; ++plane) {
    const auto width = static_cast<size_t>(planeWidth(picture, plane));
    for (int32_t row = 0; row < planeHeight(picture, plane); ++row) {
      uint8_t* pixels = picture.plane[plane] + row * picture.stride[plane];
      if (std::fread(pixels, 1, width, clip) != width) return false;
    }
  }
  return true;
}

int main(int argc, char* argv[]) {
  if (argc != 7) return 2;
  FILE* clip = std::fopen(argv[5], "rb");
  FILE* output = std::fopen(argv[6], "wb");
  if (clip == nullptr || output == nullptr) return std::perror("files"), 1;

  // A clip has no time to sharpen what stays still: every picture gets its quality at once.
  ScreenSession session;
  int32_t result = session.start({.service = {.servicePath = argv[1], .codecRoot = argv[2]},
                                  .frameInterval = std::chrono::hours(24)});
  if (result == 1) {
    result = session.addStream(
        {.width = std::atoi(argv[3]), .height = std::atoi(argv[4]), .quality = 0, .threads = 1});
  }

  CodedFrame frame;
  Picture picture;
  while (result != -1 && (result = session.acquire(0, picture)) == 1) {
    if (!readPicture(clip, picture)) break;
    // All of it may have changed. Who knows better lists less, see findChanges().
    result = session.encode(0, picture, {{{0, 0, picture.width, picture.height}}});
    if (result == 1) result = session.readFrame(frame);
    if (result == 1) std::fwrite(frame.bytes.data(), 1, frame.bytes.size(), output);
  }
  if (result != -1) {
    session.release(0, picture);
    result = session.stop();
  }
  if (result == -1) std::fprintf(stderr, "encode_clip: %s\n", session.errorText().c_str());
  return std::fclose(output) == 0 && result == 1 ? 0 : 1;
}
