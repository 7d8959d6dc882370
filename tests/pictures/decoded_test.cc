// SPDX-License-Identifier: BSD-2-Clause
// The built service with the real encoder: its bytes are those of the same calls in this process,
// and every picture that a decoder shows is the encoder's reconstruction, region copies included.
// Eight streams at once, all of them removed and added again in other sizes. QORA_FRAMES says how
// many pictures of each (6).
//
// A second decoder makes no copies: where it showed the same, the copies would prove nothing.
// Copies stay 2 pixels off the picture's edges: the border that the encoder predicts from was made
// before they are applied.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>

#include "qora/client/changed_rectangles.h"
#include "qora/client/codec_client.h"
#include "qora/client/frame_segment.h"
#include "qora/client/move_detector.h"
#include "qora/service/wire/byte_order.h"
#include "tests/support/decoder.h"
#include "tests/support/direct_encoder.h"

namespace qora::test {
namespace {

using service::RegionCopy;

// Lines of "text" on a light ground.
int page(int x, int y) {
  const bool line = (y & 15) > 3 && (y & 15) < 13;
  const uint32_t glyph = static_cast<uint32_t>(x / 7 * 2654435761U ^ y / 16 * 40503U) >> 7;
  return line && x % 7 < 5 && (glyph >> (x % 7 + y % 3 * 5) & 1) != 0 ? 40 : 225;
}
int texture(int x, int y) {
  return static_cast<int>(128 + 60 * std::sin(x * 0.11) * std::cos(y * 0.07)) +
         ((x * 7 ^ y * 13) & 15);
}

struct Content {
  const char* what;
  int width, height;  // four threads want sixteen rows of macroblocks
  int (*sample)(int x, int y, int frame);
  bool moves = false;  // all planes alike, by whole chroma samples
};
constexpr Content kContents[service::kStreamCount] = {
    {"page scrolled up", 130, 274, [](int x, int y, int n) { return page(x, y + n * 6); }, true},
    {"page moved sideways", 240, 258, [](int x, int y, int n) { return page(x + n * 10, y); },
     true},
    {"window dragged", 210, 288,
     [](int x, int y, int n) {
       const int left = x - n * 7 % 90, top = y - n * 3 % 60;
       const bool inside = left >= 0 && left < 70 && top >= 0 && top < 50;
       return inside ? 60 + page(left, top) / 2 : texture(x, y);
     }},
    {"blinking cursor", 160, 256,
     [](int x, int y, int n) {
       return n % 2 == 0 && x / 8 == n % 20 && y / 16 == n / 20 % 4 ? 16 : page(x, y);
     }},
    {"noise above", 96, 256,
     [](int x, int y, int n) {
       const uint32_t value = (x + 1U) * 374761393U + y * 668265263U + (y < 24 ? n : 0) * 1274126U;
       return static_cast<int>((value ^ value >> 13) * 1274126177U >> 24);
     }},
    {"flashes", 144, 272,
     [](int x, int y, int n) { return n / 4 % 2 == 0 ? page(x, y) : 255 - texture(x, y); }},
    {"chessboard", 94, 260,
     [](int x, int y, int n) { return ((x / 8 + y / 8 + n) & 1) != 0 ? 235 : 16; }},
    {"one macroblock and a bit", 34, 34, [](int x, int y, int n) { return texture(x + n, y); }},
};

// The second stream of each service has lengths before its NAL units: from one to the next they
// lead exactly to the end.
Bytes withStartCodes(Bytes unit) {
  for (size_t at = 0; at + 4 <= unit.size();) {
    const uint32_t size = service::readUint32(&unit[at], 1);
    service::writeUint32(1, &unit[at], 1);
    at += 4 + size;
    EXPECT_LE(at, unit.size());
  }
  return unit;
}

class Stream {
 public:
  Stream(const Content& content, const service::AddStreamRequest& settings)
      : content_(content), settings_(settings), direct_(settings), random_(settings.width) {}
  ~Stream() {
    EXPECT_GT(wrongWithoutCopies_, 0) << content_.what;
    EXPECT_TRUE(moved_ > 0 || !content_.moves) << content_.what;
  }

  void encode(client::CodecClient& codec, const client::FrameSegment& segment, int number) {
    SCOPED_TRACE(testing::Message() << content_.what << ", frame " << number);
    const int32_t cell = settings_.streamId * 2 + number % 2;
    const client::Picture picture = sized(segment.picture(cell));
    draw(picture, number);
    service::EncodeRequest request{};
    segment.place(cell, request);
    request.streamId = settings_.streamId;
    request.invalidate = number > 0 && below(40) == 0 ? 1 : 0;
    const client::Picture before = sized(segment.picture(cell ^ 1));
    const auto rectangles = rectanglesOf(before, picture, number);
    std::vector<RegionCopy> copies(number == 0 ? 0 : below(6));
    for (RegionCopy& copy : copies) copy = makeCopy();
    if (number > 0 && request.invalidate == 0) {
      client::Damage changed(content_.width, content_.height);
      changed.addAll();
      changed.refine(before, picture);
      moved_ += detector_.find(before, picture, changed, moves_);
      copies.insert(copies.end(), moves_.copies.begin(), moves_.copies.end());
    }
    client::Reply reply;
    ASSERT_EQ(codec.encode(request, rectangles, copies), 1);
    ASSERT_EQ(codec.readReply(reply), 1) << codec.endText();

    const service::PlanarView reference = direct_.reconstruction();
    const auto coded = direct_.encode(picture, rectangles, request.invalidate == 1);
    const service::PlanarView produced = direct_.reconstruction();
    EXPECT_TRUE(std::ranges::equal(coded, reply.frame));
    EXPECT_EQ(reply.fields.keyFrame, number == 0 || request.invalidate == 1 ? 1 : 0);
    EXPECT_EQ(reply.fields.quantizer, direct_.quantizer());
    const Bytes unit = settings_.flags == 4 ? reply.frame : withStartCodes(reply.frame);
    ASSERT_TRUE(decoder_.decode(unit) && copyless_.decode(unit));
    EXPECT_TRUE(decoder_.shows(produced));
    EXPECT_TRUE(settings_.bitrate > 0 || number > 0 || decoder_.loss(picture) < 2);
    wrongWithoutCopies_ += copyless_.shows(produced) ? 0 : 1;
    for (const RegionCopy& copy : copies) service::copyRegion(copy, reference, produced);
    decoder_.copy(copies);
  }

 private:
  int below(int limit) { return static_cast<int>(random_() % static_cast<uint32_t>(limit)); }
  client::Picture sized(client::Picture picture) const {
    picture.width = content_.width;
    picture.height = content_.height;
    return picture;
  }
  void draw(const client::Picture& picture, int number) const {
    for (int plane = 0; plane < 3; ++plane) {
      const int scale = plane > 0 && content_.moves ? 2 : 1;
      for (int y = 0; y < planeHeight(picture, plane); ++y)
        for (int x = 0; x < planeWidth(picture, plane); ++x)
          picture.plane[plane][y * picture.stride[plane] + x] = static_cast<uint8_t>(
              std::clamp(content_.sample(x * scale + plane * 5, y * scale, number), 0, 255));
    }
  }
  std::vector<service::Rectangle> rectanglesOf(const client::Picture& before,
                                               const client::Picture& after, int number) {
    if (number == 0) return {client::wholePicture(after.width, after.height)};
    client::ChangedRectangles changes;
    client::findChangedRectangles(before, after, 1000, changes);
    if (changes.list.empty()) changes.list.push_back(client::nothingChanged());
    for (auto& rectangle : changes.list) {
      rectangle.quantizerOffset = static_cast<int8_t>(below(9) - 4);
    }
    return changes.list;
  }
  // By any amount, overlapping themselves and each other; most of what a parent sends is a short
  // move. The flags and odd coordinates may widen a copy by two pixels.
  RegionCopy makeCopy() {
    const auto width = static_cast<uint16_t>(1 + below(content_.width - 8));
    const auto height = static_cast<uint16_t>(1 + below(content_.height - 8));
    const auto x = [&] { return static_cast<uint16_t>(2 + below(content_.width - width - 6)); };
    const auto y = [&] { return static_cast<uint16_t>(2 + below(content_.height - height - 6)); };
    RegionCopy copy = {static_cast<uint8_t>(below(4) * 2), x(), y(), x(), y(), width, height};
    if (below(2) == 0) copy.destinationX = copy.sourceX;
    if (below(3) == 0) copy.destinationY = copy.sourceY;
    return copy;
  }

  const Content& content_;
  const service::AddStreamRequest settings_;
  DirectEncoder direct_;
  Decoder decoder_, copyless_;
  std::mt19937 random_;
  int wrongWithoutCopies_ = 0;
  client::MoveDetector detector_;
  client::Moves moves_;
  int moved_ = 0;  // macroblocks that the detector found
};

TEST(Pictures, AreTheEncodersAndSoAreTheBytes) {
  const char* frames = getenv("QORA_FRAMES");
  for (const uint16_t bitrate : {0, 300}) {
    for (const uint8_t threads : {1, 2, 4}) {
      client::FrameSegment segment;
      client::CodecClient codec;
      ASSERT_EQ(segment.create(240, 288, 2 * service::kStreamCount), 1);
      const std::unique_ptr<FILE, int (*)(FILE*)> log(tmpfile(), fclose);
      ASSERT_EQ(codec.start({SERVICE, CODEC_ROOT, fileno(log.get())}), 1);
      ASSERT_EQ(codec.attachSegment(segment.id()), 1);
      for (int round = 0; round < 2; ++round) {
        std::unique_ptr<Stream> streams[service::kStreamCount];
        for (uint8_t id = 0; id < service::kStreamCount; ++id) {
          const Content& content = kContents[(id + 3 * round) % service::kStreamCount];
          const service::AddStreamRequest settings = {static_cast<uint8_t>(id == 1 ? 3 : 4),
                                                      id,
                                                      threads,
                                                      bitrate,
                                                      10,
                                                      51,
                                                      static_cast<uint16_t>(content.width),
                                                      static_cast<uint16_t>(content.height)};
          if (round > 0) codec.removeStream(id);
          codec.addStream(settings);
          streams[id] = std::make_unique<Stream>(content, settings);
        }
        for (int number = 0; number < (frames == nullptr ? 6 : std::atoi(frames)); ++number) {
          for (const auto& stream : streams) stream->encode(codec, segment, number);
        }
      }
      EXPECT_EQ(codec.stop(), 1) << codec.endText();
      // The encoder has something to say on the bitrate.
      EXPECT_TRUE(bitrate > 0 || lseek(fileno(log.get()), 0, SEEK_END) == 0);
    }
  }
}

}  // namespace
}  // namespace qora::test
