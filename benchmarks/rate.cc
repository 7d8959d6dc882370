// SPDX-License-Identifier: BSD-2-Clause
// bench_rate FOLDER -- A stream held to the rate of a link, through the real service: a CSV line a
// tick, for each of several clips, by the rate control of each region (QualityControl) and by the
// encoder's own bitrate mode. rate.py makes the tables of it.
//
// FOLDER has the filmed clips; scenes, a video and single pages are made of them and of coloured
// noise. The link is simulated: 25 ticks a second, and through it goes what its rate allows, so the
// figures do not depend on how busy the machine is.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "benchmarks/give_up.h"
#include "benchmarks/timing.h"
#include "qora/client/codec_client.h"
#include "qora/client/damage.h"
#include "qora/client/frame_segment.h"
#include "qora/client/quality_control.h"
#include "qora/tools/clip_reader.h"
#include "tests/support/direct_encoder.h"

namespace qora::bench {
namespace {

constexpr int32_t kWidth = 1920, kHeight = 1080;
constexpr int32_t kTick = 40;  // milliseconds
constexpr int32_t kSecond = 1000 / kTick;

constexpr size_t kLuma = size_t{kWidth} * kHeight;
constexpr size_t kPictureSize = kLuma * 3 / 2;

// Pictures in memory, in I420.
class Pictures {
 public:
  explicit Pictures(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {}
  explicit Pictures(const std::string& path) {
    tools::ClipReader clip;
    if (clip.open(path, nullptr) == -1) giveUp(clip.problem());
    bytes_.resize(static_cast<size_t>(clip.frameCount()) * kPictureSize);
    for (int32_t i = 0; i < count(); ++i) {
      if (clip.read(at(i)) != 1) giveUp(clip.problem());
    }
  }
  int32_t count() const { return static_cast<int32_t>(bytes_.size() / kPictureSize); }
  // After the end: the last one.
  client::Picture at(int32_t index) const {
    const auto start = static_cast<size_t>(std::min(index, count() - 1)) * kPictureSize;
    auto* luma = const_cast<uint8_t*>(bytes_.data()) + start;
    return {{luma, luma + kLuma, luma + kLuma * 5 / 4},
            {kWidth, kWidth / 2, kWidth / 2},
            kWidth,
            kHeight};
  }

 private:
  std::vector<uint8_t> bytes_;
};

// Something like a photograph: coloured noise on every scale, the coarser the stronger.
std::vector<uint8_t> photograph(uint32_t seed, int32_t grain) {
  std::vector<uint8_t> bytes(kPictureSize, 128);
  std::mt19937 random(seed);
  std::normal_distribution<float> noise;
  uint8_t* plane = bytes.data();
  for (int32_t index = 0; index < 3; ++index) {
    const int32_t width = index == 0 ? kWidth : kWidth / 2;
    const int32_t height = index == 0 ? kHeight : kHeight / 2;
    std::vector<float> sum(static_cast<size_t>(width) * static_cast<size_t>(height));
    for (int32_t scale = index == 0 ? 256 : 128; scale >= 4; scale /= 2) {
      const int32_t columns = width / scale + 2;
      std::vector<float> lattice(static_cast<size_t>(columns) * (height / scale + 2));
      for (float& value : lattice) value = noise(random) * static_cast<float>(scale) * 0.2F;
      for (int32_t y = 0; y < height; ++y) {
        for (int32_t x = 0; x < width; ++x) {
          const float* corner = &lattice[static_cast<size_t>(y / scale * columns + x / scale)];
          const float right = static_cast<float>(x % scale) / static_cast<float>(scale);
          const float down = static_cast<float>(y % scale) / static_cast<float>(scale);
          sum[static_cast<size_t>(y * width + x)] +=
              (corner[0] * (1 - right) + corner[1] * right) * (1 - down) +
              (corner[columns] * (1 - right) + corner[columns + 1] * right) * down;
        }
      }
    }
    for (const float value : sum) {
      const float grained = value + noise(random) * static_cast<float>(index == 0 ? grain : 0);
      *plane++ = static_cast<uint8_t>(std::clamp(128 + grained, 16.0F, 235.0F));
    }
  }
  return bytes;
}

void copyPicture(const client::Picture& from, const client::Picture& to) {
  for (int32_t plane = 0; plane < 3; ++plane) {
    for (int32_t y = 0; y < planeHeight(to, plane); ++y) {
      memcpy(to.plane[plane] + y * to.stride[plane], from.plane[plane] + y * from.stride[plane],
             static_cast<size_t>(planeWidth(to, plane)));
    }
  }
}

// A window of 800x450 in which two layers move past each other, so that no motion fits both.
void drawVideo(const client::Picture& a, const client::Picture& b, int32_t tick,
               const client::Picture& to) {
  for (int32_t plane = 0; plane < 3; ++plane) {
    const int32_t half = plane == 0 ? 1 : 2;
    for (int32_t y = 0; y < 450 / half; ++y) {
      const uint8_t* first = a.plane[plane] + y * a.stride[plane] + 6 * tick / half;
      const uint8_t* second = b.plane[plane] + (y + 4 * tick / half) * b.stride[plane];
      uint8_t* out = to.plane[plane] + (y + 300 / half) * to.stride[plane] + 500 / half;
      for (int32_t x = 0; x < 800 / half; ++x)
        out[x] = static_cast<uint8_t>((first[x] + second[x]) / 2);
    }
  }
}

struct Clip {
  std::string name;
  int32_t begin, end;  // ticks between which it moves
  std::function<void(int32_t tick, const client::Picture& to)> draw;
};

// The service, and the same calls in this process: they tell what a viewer sees. That both code the
// same bytes is checked with each frame.
class Stream {
 public:
  Stream(const client::FrameSegment& segment, int32_t kbps) : segment_(segment) {
    if (client_.start({.servicePath = SERVICE, .codecRoot = CODEC_ROOT}) == -1 ||
        client_.attachSegment(segment.id()) == -1) {
      giveUp("starting the service");
    }
    add(kbps);
  }
  // Another bitrate is another stream. 0: constant quality.
  void add(int32_t kbps) {
    if (direct_ != nullptr) client_.removeStream(0);
    const service::AddStreamRequest request = {.flags = service::kAnnexBFlag,
                                               .streamId = 0,
                                               .threads = 1,
                                               .bitrate = static_cast<uint16_t>(kbps),
                                               .qpMin = 0,
                                               .qpMax = 51,
                                               .width = kWidth,
                                               .height = kHeight};
    client_.addStream(request);
    direct_ = std::make_unique<test::DirectEncoder>(request);
  }
  const client::Reply& encode(int32_t cell, const client::QualityPlan& plan) {
    service::EncodeRequest request{};
    segment_.place(cell, request);
    if (client_.encode(request, plan.rectangles, {}) == -1) giveUp("the service is gone");
    const auto frame = direct_->encode(segment_.picture(cell), plan.rectangles);
    if (client_.readReply(reply_) != 1) giveUp("the service is gone");
    if (!std::equal(frame.begin(), frame.end(), reply_.frame.begin(), reply_.frame.end())) {
      giveUp("the service and the encoder in this process differ");
    }
    return reply_;
  }
  // The luma that a viewer gets from the last frame.
  std::vector<uint8_t> luma() const {
    const service::PlanarView seen = direct_->reconstruction();
    std::vector<uint8_t> luma(kLuma);
    for (int32_t y = 0; y < kHeight; ++y) {
      memcpy(&luma[static_cast<size_t>(y) * kWidth], seen.plane[0] + y * seen.stride[0], kWidth);
    }
    return luma;
  }

 private:
  const client::FrameSegment& segment_;
  client::CodecClient client_;
  std::unique_ptr<test::DirectEncoder> direct_;
  client::Reply reply_;
};

double psnr(const client::Picture& original, const std::vector<uint8_t>& seen) {
  uint64_t sum = 0;
  for (int32_t y = 0; y < kHeight; ++y) {
    const uint8_t* a = original.plane[0] + y * original.stride[0];
    const uint8_t* b = &seen[static_cast<size_t>(y) * kWidth];
    uint32_t line = 0;
    for (int32_t x = 0; x < kWidth; ++x)
      line += static_cast<uint32_t>((a[x] - b[x]) * (a[x] - b[x]));
    sum += line;
  }
  return 10 * std::log10(255.0 * 255.0 * kLuma / static_cast<double>(std::max<uint64_t>(sum, 1)));
}

struct Tick {
  bool changed = false;
  int64_t bytes = 0;
  double queue = 0;   // milliseconds of link until all that was sent is through
  double psnr = 0;    // of what a viewer sees at this time, what is queued not yet
  int32_t worst = 0;  // the coarsest offset of a cell
  double cost = 0;    // microseconds of the plan
};

enum class Mode {
  regions,  // QualityControl
  bitrate,  // the encoder's own, changed rectangles only
  whole,    // the same, every picture sent as changed everywhere
};

// Plays a clip over a link of kbps(tick) kbit/s; 0: unlimited.
std::vector<Tick> play(const Clip& clip, Mode mode, const std::function<int32_t(int32_t)>& kbps) {
  client::FrameSegment segment;
  if (segment.create(kWidth, kHeight, 2) == -1) giveUp("no segment");
  Stream stream(segment, mode == Mode::regions ? 0 : kbps(0));
  client::QualityControl control;
  control.reset(kWidth, kHeight);
  client::Damage damage(kWidth, kHeight);
  client::QualityPlan plan;
  std::vector<Tick> ticks;
  double queued = 0;                                         // bytes
  std::deque<std::pair<double, std::vector<uint8_t>>> sent;  // by when they arrive
  std::vector<uint8_t> seen(kLuma, 16);
  for (int32_t at = 0, cell = 0; at < clip.end + 3 * kSecond; ++at) {
    Tick tick;
    const double bytesAMillisecond = kbps(at) / 8.0;
    queued = std::max(queued - bytesAMillisecond * kTick, 0.0);
    const client::Picture picture = segment.picture(cell);
    clip.draw(at, picture);
    damage.addAll();
    tick.changed = at == 0 || damage.refine(segment.picture(1 - cell), picture) > 0;
    const auto now = std::chrono::milliseconds(at * kTick);
    if (mode == Mode::regions) {
      control.setRate(kbps(at) * 125);
      const auto start = Clock::now();
      const client::Picture before = segment.picture(1 - cell);
      control.plan(now, damage, picture, at > 0 ? &before : nullptr, {}, false, plan);
      tick.cost = microseconds(Clock::now() - start);
    } else {
      if (at > 0 && kbps(at) != kbps(at - 1)) {
        stream.add(kbps(at));
        damage.addAll();
      }
      if (mode == Mode::whole) damage.addAll();
      damage.list(plan.rectangles);
      plan.step = damage.isEmpty() ? client::QualityStep::silent : client::QualityStep::encode;
    }
    if (plan.step == client::QualityStep::encode) {
      const client::Reply& reply = stream.encode(cell, plan);
      tick.bytes = static_cast<int64_t>(reply.frame.size());
      if (mode == Mode::regions) control.encoded(now, tick.bytes, reply.fields.keyFrame != 0);
      queued += static_cast<double>(tick.bytes);
      sent.emplace_back(at * kTick + (kbps(at) > 0 ? queued / bytesAMillisecond : 0),
                        stream.luma());
      damage.clear();
      cell = 1 - cell;
    }
    tick.queue = bytesAMillisecond > 0 ? queued / bytesAMillisecond : 0;
    for (; !sent.empty() && sent.front().first <= (at + 1) * kTick; sent.pop_front()) {
      seen = std::move(sent.front().second);
    }
    tick.psnr = psnr(picture, seen);
    for (int32_t i = 0; mode == Mode::regions && i < damage.columns() * damage.rows(); ++i) {
      tick.worst =
          std::max(tick.worst, control.offsetOf(i % damage.columns(), i / damage.columns()));
    }
    ticks.push_back(tick);
  }
  return ticks;
}

// 5 seconds of a still picture first.
constexpr int32_t kLead = 5 * kSecond;
constexpr int32_t kGrey = 5;    // ticks before a page comes
constexpr int32_t kScene = 50;  // ticks of each scene

// A link of that many kbit/s; a negative number: a link that falls to a quarter halfway.
void print(const Clip& clip, Mode mode, int32_t link) {
  const int32_t fall = (clip.begin + clip.end) / 2;
  const auto kbps = [&](int32_t at) { return link >= 0 ? link : -link / (at < fall ? 1 : 4); };
  constexpr const char* kModes[] = {"by region", "bitrate mode", "bitrate mode (whole pictures)"};
  int32_t at = 0;
  for (const Tick& tick : play(clip, mode, kbps)) {
    printf("%s,%s,%d,%d,%d,%d,%d,%lld,%.2f,%.2f,%d,%.1f\n", clip.name.c_str(),
           kModes[static_cast<int32_t>(mode)], link, clip.begin, clip.end, at++, tick.changed,
           static_cast<long long>(tick.bytes), tick.queue, tick.psnr, tick.worst, tick.cost);
  }
}

void printAll(const std::string& films) {
  const Pictures typing(films + "/typing.y4m"), scrolling(films + "/scrolling.y4m");
  const Pictures dragging(films + "/dragging.y4m"), photo(photograph(1, 0));
  const Pictures other(photograph(2, 0)), grain(photograph(3, 2)), coarse(photograph(3, 5));
  const Pictures grey(std::vector<uint8_t>(kPictureSize, 128));
  std::vector<Clip> clips;
  for (const auto& [name, film] :
       {std::pair{"typing", &typing}, {"scrolling", &scrolling}, {"dragging", &dragging}}) {
    clips.push_back({name, kLead, kLead + film->count(),
                     [film = film](int32_t tick, const client::Picture& to) {
                       copyPicture(film->at(std::max(tick - kLead, 0)), to);
                     }});
  }
  const std::vector<client::Picture> scenes = {scrolling.at(0), photo.at(0),  dragging.at(0),
                                               coarse.at(0),    typing.at(0), other.at(0)};
  clips.push_back({"scenes", 0, 6 * kScene, [&](int32_t tick, const client::Picture& to) {
                     copyPicture(scenes[static_cast<size_t>(std::min(tick / kScene, 5))], to);
                   }});
  clips.push_back({"video", kLead, kLead + 150, [&](int32_t tick, const client::Picture& to) {
                     copyPicture(scrolling.at(0), to);
                     drawVideo(photo.at(0), other.at(0), std::clamp(tick - kLead, 0, 149), to);
                   }});
  for (const Clip& clip : clips) {
    for (const int32_t link : {500, 1000, 4000, 16000, -4000, -16000}) {
      if (link == 500 && clip.name != "typing") continue;
      print(clip, Mode::regions, link);
      if (link == 500 || link == -16000) continue;
      print(clip, Mode::bitrate, link);
      if (link != 16000) print(clip, Mode::whole, link);
    }
  }
  for (const auto& [name, shown] : {std::pair{"text", typing.at(0)},
                                    {"full text", scrolling.at(0)},
                                    {"photograph", photo.at(0)},
                                    {"grain", grain.at(0)},
                                    {"coarse grain", coarse.at(0)}}) {
    const Clip page = {name, kGrey, kGrey + 5 * kSecond,
                       [&, shown = shown](int32_t tick, const client::Picture& to) {
                         copyPicture(tick < kGrey ? grey.at(0) : shown, to);
                       }};
    for (const int32_t link : {0, 1000, 4000}) print(page, Mode::regions, link);
  }
}

}  // namespace
}  // namespace qora::bench

int main(int argc, char* argv[]) {
  if (argc != 2) qora::bench::giveUp("usage: bench_rate FOLDER");
  qora::bench::printAll(argv[1]);
  return 0;
}
