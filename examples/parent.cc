// A whole parent: encodes three seconds of a box that moves over a grey screen.
//     parent SERVICE CODEC_ROOT OUTPUT.264

#include <cstdio>
#include <cstring>

#include "qora/client/changed_rectangles.h"
#include "qora/client/codec_client.h"
#include "qora/client/frame_segment.h"

using namespace qora;

namespace {

constexpr uint16_t kWidth = 640;
constexpr uint16_t kHeight = 360;
constexpr int32_t kFrames = 75;
constexpr int32_t kBox = 40;

// Stands for whatever gives you pictures.
void draw(int32_t frame, const client::Picture& picture) {
  for (int32_t plane = 0; plane < 3; ++plane) {
    const auto bytes = static_cast<size_t>(picture.stride[plane]) *
                       static_cast<size_t>(client::planeHeight(picture, plane));
    std::memset(picture.plane[plane], 128, bytes);
  }
  const int32_t left = frame * 8 % (kWidth - kBox);
  for (int32_t y = 100; y < 100 + kBox; ++y) {
    std::memset(picture.plane[0] + y * picture.stride[0] + left, 235, kBox);
  }
}

int32_t encodeFrames(client::CodecClient& client, const client::FrameSegment& segment,
                     FILE* output) {
  client::ChangedRectangles changes;  // these two are used again for every frame,
  client::Reply reply;                // so that their memory is too
  for (int32_t frame = 0; frame < kFrames; ++frame) {
    const int32_t cell = frame % 2;
    draw(frame, segment.picture(cell));
    if (frame == 0) {
      changes.list.assign(1, client::wholePicture(kWidth, kHeight));
    } else {
      client::findChangedRectangles(segment.picture(1 - cell), segment.picture(cell),
                                    client::maxRectangles(0), changes);
      if (changes.list.empty()) changes.list.push_back(client::nothingChanged());
    }
    service::EncodeRequest request{};  // stream 0
    segment.place(cell, request);
    if (client.encode(request, changes.list, {}) == -1 || client.readReply(reply) == -1) return -1;
    std::fwrite(reply.frame.data(), 1, reply.frame.size(), output);
  }
  return 1;
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc != 4) return 2;
  client::FrameSegment segment;  // before the client: the service lets go of it first
  client::CodecClient client;
  if (segment.create(kWidth, kHeight, 2) == -1 ||
      client.start({.servicePath = argv[1], .codecRoot = argv[2]}) == -1) {
    std::perror("parent");
    return 1;
  }
  FILE* output = std::fopen(argv[3], "wb");
  if (output == nullptr) return 1;
  client.attachSegment(segment.id());
  client.addStream({.flags = service::kAnnexBFlag,  // start codes, for a file
                    .streamId = 0,
                    .threads = 1,
                    .bitrate = 0,  // constant quality
                    .qpMin = 0,
                    .qpMax = 51,
                    .width = kWidth,
                    .height = kHeight});
  // A command that the service refuses ends it, so one look at the end is enough.
  const int32_t encoded = encodeFrames(client, segment, output);
  std::fclose(output);
  if (encoded == 1 && client.stop() == 1) return 0;
  std::fprintf(stderr, "parent: %s\n", client.endText().c_str());
  return 1;
}
