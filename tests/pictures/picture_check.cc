// tests/pictures/picture_check.cc -- Every picture that a decoder shows is the one that the encoder
// has.
//
// Usage: picture_check SERVICE CODEC_ROOT FRAMES
// Sends FRAMES pictures of each content through the service, in both rate modes and with 1, 2 and 4
// threads, every frame but the first with region copies. For each frame
//   - the coded bytes are those of the same calls made in this process,
//   - the decoded picture is the encoder's reconstruction, sample by sample,
//   - both are then changed by the frame's copies, the decoder's by plain code of our own, and the
//     next frame is predicted from that.
// A second decoder makes no copies: where it showed the same, the copies would prove nothing.
// Prints one row for each session; ends with 1 if a picture was wrong, or if one was right without
// copies throughout a session.
//
// The decoder runs one thread with low delay, and hands out the pictures that it predicts from, so
// what is changed in them is what the next access unit sees. Copies stay 2 pixels off the picture's
// edges: the border that the encoder predicts from was made before they are applied.

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <fcntl.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "qora/client/changed_rectangles.h"
#include "qora/client/codec_client.h"
#include "qora/client/frame_segment.h"
#include "tests/support/direct_encoder.h"

namespace qora::checks {
namespace {

using service::RegionCopy;
using test::Bytes;
using Random = std::mt19937;

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "picture_check: %s\n", what.c_str());
  std::exit(1);
}

int32_t below(Random& random, int32_t limit) {
  return static_cast<int32_t>(random() % static_cast<uint32_t>(limit));
}

// --- contents ---

// The sample at a place of frame n. Chroma planes are asked with their own coordinates.
using Sample = int (*)(int32_t x, int32_t y, int32_t n);

// Lines of "text" on a light ground.
int page(int32_t x, int32_t y, int32_t) {
  const bool line = (y & 15) > 3 && (y & 15) < 13;
  const uint32_t glyph = static_cast<uint32_t>(x / 7 * 2654435761U ^ y / 16 * 40503U) >> 7;
  return line && x % 7 < 5 && (glyph >> (x % 7 + y % 3 * 5) & 1) != 0 ? 40 : 225;
}
int scrolledUp(int32_t x, int32_t y, int32_t n) {
  return page(x, y + n * 5, n);
}
int scrolledDown(int32_t x, int32_t y, int32_t n) {
  return page(x, y - n * 3 + 100000, n);
}
int panned(int32_t x, int32_t y, int32_t n) {
  return page(x + n * 9, y, n);
}
int texture(int32_t x, int32_t y, int32_t n) {
  return static_cast<int>(128 + 60 * std::sin(x * 0.11 + n * 0.3) * std::cos(y * 0.07)) +
         ((x * 7 ^ y * 13) & 15);
}
int draggedWindow(int32_t x, int32_t y, int32_t n) {
  const int32_t left = n * 7 % 90;
  const int32_t top = n * 3 % 60;
  const bool inside = x >= left && x < left + 70 && y >= top && y < top + 50;
  return inside ? 60 + page(x - left, y - top, n) / 2 : texture(x, y, 0);
}
int cursor(int32_t x, int32_t y, int32_t n) {
  const bool block = x / 8 == n % 20 && y / 16 == n / 20 % 4;
  return block && n % 2 == 0 ? 16 : page(x, y, n);
}
// Every frame another one above, always the same below.
int noise(int32_t x, int32_t y, int32_t n) {
  const uint32_t frame = y < 24 ? static_cast<uint32_t>(n) : 0;
  uint32_t value = static_cast<uint32_t>(x) * 374761393U + static_cast<uint32_t>(y) * 668265263U +
                   frame * 1274126177U;
  value = (value ^ value >> 13) * 1274126177U;
  return static_cast<int>(value >> 24);
}
int gradient(int32_t x, int32_t y, int32_t n) {
  return (x * 2 + y + n * 4) & 255;
}
int flashes(int32_t x, int32_t y, int32_t n) {
  return n / 4 % 2 == 0 ? page(x, y, n) : 255 - texture(x, y, n);
}
int chessboard(int32_t x, int32_t y, int32_t n) {
  return ((x / 8 + y / 8 + n) & 1) != 0 ? 235 : 16;
}

struct Content {
  const char* name;
  int32_t width, height;
  Sample luma, chroma;
};
// Four threads want sixteen rows of macroblocks, so that is what most pictures have.
constexpr Content kContents[] = {
    {"still page", 208, 272, page, gradient},
    {"page scrolled up", 130, 274, scrolledUp, page},
    {"page scrolled down", 112, 256, scrolledDown, texture},
    {"page moved sideways", 240, 258, panned, panned},
    {"window dragged", 210, 288, draggedWindow, draggedWindow},
    {"blinking cursor", 160, 256, cursor, page},
    {"moving texture", 114, 262, texture, texture},
    {"noise", 96, 256, noise, noise},
    {"gradient", 112, 270, gradient, gradient},
    {"flashes", 144, 272, flashes, flashes},
    {"chessboard", 94, 260, chessboard, gradient},
    {"one macroblock and a bit", 34, 34, texture, noise},
};

void draw(const Content& content, int32_t number, const client::Picture& picture) {
  for (int32_t plane = 0; plane < 3; ++plane) {
    const Sample sample = plane == 0 ? content.luma : content.chroma;
    for (int32_t y = 0; y < planeHeight(picture, plane); ++y) {
      uint8_t* row = picture.plane[plane] + y * picture.stride[plane];
      for (int32_t x = 0; x < planeWidth(picture, plane); ++x) {
        row[x] = static_cast<uint8_t>(std::clamp(sample(x + plane * 5, y, number), 0, 255));
      }
    }
  }
}

// --- copies ---

// Up, down and sideways by any amount, overlapping themselves and each other. The flags and odd
// coordinates may widen a copy by two pixels.
RegionCopy makeCopy(Random& random, int32_t width, int32_t height) {
  constexpr int32_t kEdge = 2;
  RegionCopy copy{};
  constexpr uint8_t kFlags[] = {0, service::kChromaDownFlag, service::kChromaRightFlag,
                                service::kChromaDownFlag | service::kChromaRightFlag};
  copy.flags = kFlags[below(random, 4)];
  copy.width = static_cast<uint16_t>(1 + below(random, width - 2 * kEdge - 4));
  copy.height = static_cast<uint16_t>(1 + below(random, height - 2 * kEdge - 4));
  const auto place = [&random](int32_t room) {
    return static_cast<uint16_t>(kEdge + below(random, room));
  };
  copy.sourceX = place(width - copy.width - 2 * kEdge - 2);
  copy.sourceY = place(height - copy.height - 2 * kEdge - 2);
  copy.destinationX = place(width - copy.width - 2 * kEdge - 2);
  copy.destinationY = place(height - copy.height - 2 * kEdge - 2);
  // Most of what a parent sends is a short move.
  if (below(random, 2) == 0) copy.destinationX = copy.sourceX;
  if (below(random, 3) == 0) copy.destinationY = copy.sourceY;
  return copy;
}

// --- the decoder ---

struct FreeFrame {
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
using Frame = std::unique_ptr<AVFrame, FreeFrame>;

class Decoder {
 public:
  Decoder() : context_(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_H264))) {
    context_->thread_count = 1;
    context_->flags |= AV_CODEC_FLAG_LOW_DELAY;
    context_->err_recognition = AV_EF_EXPLODE;
    if (avcodec_open2(context_, nullptr, nullptr) != 0) fail("no decoder");
    packet_ = av_packet_alloc();
  }
  ~Decoder() {
    av_packet_free(&packet_);
    avcodec_free_context(&context_);
  }
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;

  // Decodes one access unit; its picture is the present one.
  void decode(const Bytes& unit) {
    if (av_new_packet(packet_, static_cast<int>(unit.size())) != 0) fail("no memory");
    std::memcpy(packet_->data, unit.data(), unit.size());
    previous_.swap(present_);
    present_.reset(av_frame_alloc());
    const bool decoded = avcodec_send_packet(context_, packet_) == 0 &&
                         avcodec_receive_frame(context_, present_.get()) == 0;
    if (!decoded || present_->format != AV_PIX_FMT_YUV420P) fail("an access unit shows no picture");
    av_packet_unref(packet_);
  }

  // Whether the present picture is the reconstruction: luma, and chroma with U and V interleaved.
  bool shows(const service::PlanarView& picture, int32_t width, int32_t height) const {
    for (int32_t y = 0; y < height; ++y) {
      if (std::memcmp(present_->data[0] + y * present_->linesize[0],
                      picture.plane[0] + y * picture.stride[0], static_cast<size_t>(width)) != 0) {
        return false;
      }
    }
    for (int32_t y = 0; y < height / 2; ++y) {
      const uint8_t* row = picture.plane[1] + y * picture.stride[1];
      for (int32_t x = 0; x < width; ++x) {
        const int32_t plane = 1 + x % 2;
        if (present_->data[plane][y * present_->linesize[plane] + x / 2] != row[x]) return false;
      }
    }
    return true;
  }

  // Moves content from the picture before into the present one, which the next unit predicts from.
  void copy(const RegionCopy& copy) {
    copyPlane(0, copy.sourceX, copy.sourceY, copy.destinationX, copy.destinationY, copy.width,
              copy.height);
    const int32_t right = (copy.flags & service::kChromaRightFlag) != 0 ? 1 : 0;
    const int32_t down = (copy.flags & service::kChromaDownFlag) != 0 ? 2 : 0;
    for (int32_t plane = 1; plane < 3; ++plane) {
      copyPlane(plane, copy.sourceX / 2 + right, (copy.sourceY + down) / 2, copy.destinationX / 2,
                copy.destinationY / 2, (copy.width + 1) / 2, copy.height / 2);
    }
  }

 private:
  void copyPlane(int32_t plane, int32_t fromX, int32_t fromY, int32_t toX, int32_t toY,
                 int32_t width, int32_t height) {
    const int32_t fromStride = previous_->linesize[plane];
    const int32_t toStride = present_->linesize[plane];
    for (int32_t y = 0; y < height; ++y) {
      for (int32_t x = 0; x < width; ++x) {
        present_->data[plane][(toY + y) * toStride + toX + x] =
            previous_->data[plane][(fromY + y) * fromStride + fromX + x];
      }
    }
  }

  AVCodecContext* context_;
  AVPacket* packet_;
  Frame previous_;
  Frame present_;
};

// --- sessions ---

struct Count {
  int64_t frames = 0;
  int64_t copies = 0;
  int64_t wrong = 0;               // not the reconstruction
  int64_t wrongWithoutCopies = 0;  // the same for the decoder that makes none
};

service::EncodeRequest requestFor(const client::FrameSegment& segment, int32_t cell) {
  service::EncodeRequest request{};
  segment.place(cell, request);
  return request;
}

// One frame through the service and through the same calls in this process.
Bytes encodeBoth(client::CodecClient& codec, test::DirectEncoder& direct,
                 const client::FrameSegment& segment, int32_t cell, const test::FrameHints& hints) {
  service::EncodeRequest request = requestFor(segment, cell);
  request.invalidate = hints.invalidate;
  client::Reply reply;
  if (codec.encode(request, hints.rectangles, hints.copies) == -1 || codec.readReply(reply) != 1) {
    fail(codec.endText());
  }
  const client::Picture picture = segment.picture(cell);
  test::PictureView view{};
  for (int32_t plane = 0; plane < 3; ++plane) {
    view.plane[plane] = picture.plane[plane];
    view.stride[plane] = picture.stride[plane];
  }
  // Its copies come later, when its picture was looked at.
  const auto coded = direct.encodeView(view, {hints.rectangles, {}, hints.invalidate});
  if (!std::equal(coded.begin(), coded.end(), reply.frame.begin(), reply.frame.end())) {
    fail("the service's bytes differ from those of the same calls");
  }
  return reply.frame;
}

test::FrameHints makeHints(Random& random, const Content& content, int32_t number,
                           const client::FrameSegment& segment) {
  test::FrameHints hints;
  client::ChangedRectangles changes;
  if (number == 0) {
    hints.rectangles = {client::wholePicture(content.width, content.height)};
    return hints;
  }
  client::findChangedRectangles(segment.picture((number + 1) % 2), segment.picture(number % 2),
                                client::maxRectangles(0), changes);
  hints.rectangles = changes.list;
  if (hints.rectangles.empty()) hints.rectangles.push_back(client::nothingChanged());
  for (auto& rectangle : hints.rectangles) {
    rectangle.quantizerOffset = static_cast<int8_t>(below(random, 9) - 4);
  }
  hints.invalidate = below(random, 40) == 0 ? 1 : 0;
  for (int32_t count = 1 + below(random, 5); count > 0; --count) {
    hints.copies.push_back(makeCopy(random, content.width, content.height));
  }
  return hints;
}

Count runSession(const std::string& servicePath, const std::string& codecRoot,
                 const Content& content, uint16_t bitrate, uint8_t threads, int32_t frames) {
  const service::AddStreamRequest settings = {.flags = service::kAnnexBFlag,
                                              .streamId = 0,
                                              .threads = threads,
                                              .bitrate = bitrate,
                                              .qpMin = 10,
                                              .qpMax = 51,
                                              .width = static_cast<uint16_t>(content.width),
                                              .height = static_cast<uint16_t>(content.height)};
  client::FrameSegment segment;
  client::CodecClient codec;
  // The encoder tells on its error stream what it thinks of the bitrate.
  static const int quiet = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (segment.create(content.width, content.height, 2) == -1 ||
      codec.start({.servicePath = servicePath, .codecRoot = codecRoot, .errorDescriptor = quiet}) ==
          -1 ||
      codec.attachSegment(segment.id()) == -1 || codec.addStream(settings) == -1) {
    fail("the session does not start");
  }
  test::DirectEncoder direct(settings);
  Decoder decoder;
  Decoder copyless;
  Random random(static_cast<uint32_t>(content.width * 64 + threads * 2 + (bitrate > 0 ? 1 : 0)));
  Count count;
  for (int32_t number = 0; number < frames; ++number) {
    draw(content, number, segment.picture(number % 2));
    const test::FrameHints hints = makeHints(random, content, number, segment);
    const service::PlanarView reference = direct.reconstruction();
    const Bytes unit = encodeBoth(codec, direct, segment, number % 2, hints);
    const service::PlanarView picture = direct.reconstruction();
    decoder.decode(unit);
    copyless.decode(unit);
    count.wrong += decoder.shows(picture, content.width, content.height) ? 0 : 1;
    count.wrongWithoutCopies += copyless.shows(picture, content.width, content.height) ? 0 : 1;
    for (const RegionCopy& copy : hints.copies) {
      service::copyRegion(copy, reference, picture);
      decoder.copy(copy);
    }
    ++count.frames;
    count.copies += static_cast<int64_t>(hints.copies.size());
  }
  if (codec.stop() != 1) fail(codec.endText());
  return count;
}

void printRow(const char* content, const char* mode, const char* threads, const Count& count) {
  std::printf("%-26s %-8s %7s %8lld %8lld %8lld %14lld\n", content, mode, threads,
              static_cast<long long>(count.frames), static_cast<long long>(count.copies),
              static_cast<long long>(count.wrong),
              static_cast<long long>(count.wrongWithoutCopies));
  std::fflush(stdout);
}

}  // namespace
}  // namespace qora::checks

int main(int argc, char* argv[]) {
  using namespace qora::checks;
  const int32_t frames = argc == 4 ? std::atoi(argv[3]) : 0;
  if (frames < 2) fail("usage: picture_check SERVICE CODEC_ROOT FRAMES");
  std::printf("%-26s %-8s %7s %8s %8s %8s %14s\n", "content", "mode", "threads", "frames", "copies",
              "wrong", "without copies");
  Count all;
  bool good = true;
  for (const Content& content : kContents) {
    for (const uint16_t bitrate : {0, 300}) {
      for (const uint8_t threads : {1, 2, 4}) {
        const Count count = runSession(argv[1], argv[2], content, bitrate, threads, frames);
        printRow(content.name, bitrate > 0 ? "bitrate" : "quality", std::to_string(threads).c_str(),
                 count);
        good = good && count.wrong == 0 && count.wrongWithoutCopies > 0;
        all.frames += count.frames;
        all.copies += count.copies;
        all.wrong += count.wrong;
        all.wrongWithoutCopies += count.wrongWithoutCopies;
      }
    }
  }
  printRow("all", "", "", all);
  std::printf("RESULT tried=%lld failed=%lld decoded pictures; without the copies %lld are wrong\n",
              static_cast<long long>(all.frames), static_cast<long long>(all.wrong),
              static_cast<long long>(all.wrongWithoutCopies));
  return good ? 0 : 1;
}
