// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/movie_writer.h"

extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/mathematics.h>
#include <libavutil/mem.h>
}

#include <algorithm>
#include <cstring>

#include "qora/client/sequence_parameters.h"

namespace qora::tools {
namespace {

using Time = MovieWriter::Time;

constexpr Time kFragment{500'000};
constexpr Time kStep{1000};             // one unit of a Matroska file's clock
constexpr uint32_t kMostFrames = 1000;  // a second, at such steps
constexpr uint8_t kParameterSetTypes[] = {7, 8};
constexpr AVRational kMicroseconds{1, 1'000'000};
constexpr AVRational kMilliseconds{1, 1000};

struct Container {
  const char* suffix;
  const char* format;
  const char* option;
  const char* value;
};
// Both are written in pieces that stand alone, each ended by flushFragment().
constexpr Container kContainers[] = {
    {".mp4", "mp4", "movflags", "frag_custom+empty_moov+default_base_moof"},
    {".mkv", "matroska", "cluster_time_limit", "5000"},
};

const Container* containerOf(const std::string& path) {
  for (const Container& container : kContainers) {
    if (path.ends_with(container.suffix)) return &container;
  }
  return nullptr;
}

// Both parameter sets with start codes: the library makes of them what the container wants.
std::vector<uint8_t> parameterSets(std::span<const uint8_t> accessUnit) {
  std::vector<uint8_t> sets;
  for (const uint8_t type : kParameterSetTypes) {
    const auto set = client::findNalUnit(accessUnit, client::NalFraming::startCodes, type);
    sets.insert(sets.end(), {0, 0, 0, 1});
    sets.insert(sets.end(), set.begin(), set.end());
  }
  return sets;
}

int32_t fillParameters(AVCodecParameters& parameters, const std::vector<uint8_t>& sets) {
  void* copy = ::av_mallocz(sets.size() + AV_INPUT_BUFFER_PADDING_SIZE);
  if (copy == nullptr) return AVERROR(ENOMEM);
  std::memcpy(copy, sets.data(), sets.size());
  parameters.extradata = static_cast<uint8_t*>(copy);
  parameters.extradata_size = static_cast<int>(sets.size());
  return 0;
}

// The library's numbers for colours are those of H.264.
void repeatFacts(const client::SequenceFacts& facts, AVStream& stream) {
  AVCodecParameters& parameters = *stream.codecpar;
  parameters.color_range = facts.fullRange ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
  parameters.color_primaries = static_cast<AVColorPrimaries>(facts.primaries);
  parameters.color_space = static_cast<AVColorSpace>(facts.matrix);
  parameters.color_trc = static_cast<AVColorTransferCharacteristic>(facts.transfer);
  parameters.sample_aspect_ratio = {facts.aspectWidth, facts.aspectHeight};
  stream.sample_aspect_ratio = parameters.sample_aspect_ratio;
  stream.time_base = kMilliseconds;
  if (!facts.fixedRate) return;
  const auto numerator = static_cast<int>(facts.rateNumerator);
  const auto denominator = static_cast<int>(facts.rateDenominator);
  stream.avg_frame_rate = {numerator, denominator};
  stream.time_base = {denominator, numerator};
}

}  // namespace

void MovieWriter::Release::operator()(AVFormatContext* format) const {
  ::avio_closep(&format->pb);
  ::avformat_free_context(format);
}

MovieWriter::MovieWriter() = default;
MovieWriter::~MovieWriter() = default;

bool MovieWriter::takes(const std::string& path) {
  return containerOf(path) != nullptr;
}

int32_t MovieWriter::fail(int error) {
  char text[AV_ERROR_MAX_STRING_SIZE] = "";
  ::av_strerror(error, text, sizeof text);
  problem_ = path_ + ": " + text;
  return -1;
}

int32_t MovieWriter::open(const std::string& path, int32_t width, int32_t height,
                          const client::SequenceFacts& facts) {
  path_ = path;
  if (facts.rateNumerator > uint64_t{kMostFrames} * facts.rateDenominator) {
    problem_ = path + ": a movie has no more than 1000 frames a second";
    return -1;
  }
  AVFormatContext* format = nullptr;
  // "file:": a colon in a name begins no protocol.
  const std::string url = "file:" + path;
  const char* kind = containerOf(path)->format;
  const int made = ::avformat_alloc_output_context2(&format, nullptr, kind, url.c_str());
  format_.reset(format);
  if (made < 0) return fail(made);
  const int opened = ::avio_open(&format->pb, url.c_str(), AVIO_FLAG_WRITE);
  if (opened < 0) {
    format_.reset();
    return fail(opened);
  }
  stream_ = ::avformat_new_stream(format, nullptr);
  if (stream_ == nullptr) return fail(AVERROR(ENOMEM));
  repeatFacts(facts, *stream_);
  stream_->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
  stream_->codecpar->codec_id = AV_CODEC_ID_H264;
  stream_->codecpar->width = width;
  stream_->codecpar->height = height;
  begun_ = pending_ = false;
  writtenEnd_ = {};
  held_.clear();
  return 1;
}

int32_t MovieWriter::begin(std::span<const uint8_t> accessUnit) {
  const int filled = fillParameters(*stream_->codecpar, parameterSets(accessUnit));
  if (filled < 0) return fail(filled);
  const Container* container = containerOf(path_);
  AVDictionary* options = nullptr;
  ::av_dict_set(&options, container->option, container->value, 0);
  const int written = ::avformat_write_header(format_.get(), &options);
  ::av_dict_free(&options);
  if (written < 0) return fail(written);
  begun_ = true;
  return 1;
}

int32_t MovieWriter::write(std::span<const uint8_t> accessUnit, bool keyFrame, Time time) {
  if (!begun_ && begin(accessUnit) == -1) return -1;
  const Time earliest = held_.empty() ? writtenEnd_ : heldTime_ + kStep;
  time = std::max(time, earliest);
  if (!held_.empty() && writeHeld(time) == -1) return -1;
  if (pending_ && time >= flushDue() && flushFragment() == -1) return -1;
  if (!pending_) fragmentStart_ = time;
  pending_ = true;
  held_.assign(accessUnit.begin(), accessUnit.end());
  heldKey_ = keyFrame;
  heldTime_ = time;
  return 1;
}

// Annex B as it is: the library makes of it what the container wants.
int32_t MovieWriter::writeHeld(Time end) {
  AVPacket* packet = ::av_packet_alloc();
  if (packet == nullptr) return fail(AVERROR(ENOMEM));
  packet->data = held_.data();
  packet->size = static_cast<int>(held_.size());
  packet->flags = heldKey_ ? AV_PKT_FLAG_KEY : 0;
  // Each end is rounded by itself: the next picture begins exactly where this one ends.
  const auto rounded = [this](Time time) {
    return ::av_rescale_q(time.count(), kMicroseconds, stream_->time_base);
  };
  packet->pts = packet->dts = rounded(heldTime_);
  packet->duration = rounded(end) - rounded(heldTime_);
  const int written = ::av_write_frame(format_.get(), packet);
  packet->data = nullptr;
  ::av_packet_free(&packet);
  held_.clear();
  writtenEnd_ = end;
  return written < 0 ? fail(written) : 1;
}

int32_t MovieWriter::flushFragment() {
  const int written = ::av_write_frame(format_.get(), nullptr);
  ::avio_flush(format_->pb);
  pending_ = false;
  if (written < 0) return fail(written);
  return format_->pb->error < 0 ? fail(format_->pb->error) : 1;
}

Time MovieWriter::flushDue() const {
  return pending_ ? fragmentStart_ + kFragment : Time::max();
}

int32_t MovieWriter::flush(Time now) {
  if (!pending_) return 1;
  if (!held_.empty() && writeHeld(std::max(now, heldTime_ + kStep)) == -1) return -1;
  return flushFragment();
}

bool MovieWriter::endsBefore(Time end) const {
  return begun_ && held_.empty() && writtenEnd_ < end;
}

int32_t MovieWriter::close(Time end) {
  if (!isOpen()) return 1;
  int32_t result = begun_ ? flush(end) : 1;
  if (begun_ && result == 1) {
    const int written = ::av_write_trailer(format_.get());
    if (written < 0) result = fail(written);
  }
  const int closed = ::avio_closep(&format_->pb);
  if (closed < 0 && result == 1) result = fail(closed);
  format_.reset();
  return result;
}

}  // namespace qora::tools
