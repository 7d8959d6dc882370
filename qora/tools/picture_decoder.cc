// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/picture_decoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <cstring>
#include <utility>

namespace qora::tools {
namespace {

client::Picture viewOf(const AVFrame& frame) {
  return {{frame.data[0], frame.data[1], frame.data[2]},
          {frame.linesize[0], frame.linesize[1], frame.linesize[2]},
          frame.width,
          frame.height};
}

bool isIntact(const AVFrame& frame) {
  return frame.decode_error_flags == 0 && (frame.flags & AV_FRAME_FLAG_CORRUPT) == 0;
}

}  // namespace

PictureDecoder::~PictureDecoder() {
  av_frame_free(&next_);
  av_frame_free(&before_);
  av_frame_free(&present_);
  av_packet_free(&packet_);
  avcodec_free_context(&context_);
}

int32_t PictureDecoder::open(std::string& problem) {
  // What is damaged is said once, by whoever asked for the picture.
  av_log_set_level(AV_LOG_QUIET);
  const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
  if (codec != nullptr) context_ = avcodec_alloc_context3(codec);
  packet_ = av_packet_alloc();
  present_ = av_frame_alloc();
  before_ = av_frame_alloc();
  next_ = av_frame_alloc();
  if (context_ != nullptr && packet_ != nullptr && present_ != nullptr && before_ != nullptr &&
      next_ != nullptr) {
    context_->thread_count = 1;
    context_->flags |= AV_CODEC_FLAG_LOW_DELAY | AV_CODEC_FLAG_OUTPUT_CORRUPT;
    if (avcodec_open2(context_, codec, nullptr) == 0) return 1;
  }
  problem = "libavcodec has no H.264 decoder";
  return -1;
}

// 1: taken. 0: damaged. -1: no memory.
int32_t PictureDecoder::send(std::span<const uint8_t> accessUnit) {
  if (av_new_packet(packet_, static_cast<int>(accessUnit.size())) != 0) return -1;
  std::memcpy(packet_->data, accessUnit.data(), accessUnit.size());
  const int sent = avcodec_send_packet(context_, packet_);
  av_packet_unref(packet_);
  return sent == AVERROR(ENOMEM) ? -1 : (sent == 0 ? 1 : 0);
}

int32_t PictureDecoder::decode(std::span<const uint8_t> accessUnit,
                               std::span<const service::RegionCopy> copies) {
  const int32_t sent = send(accessUnit);
  if (sent != 1) return sent;
  const int received = avcodec_receive_frame(context_, next_);
  if (received == AVERROR(ENOMEM)) return -1;
  if (received != 0 || next_->format != AV_PIX_FMT_YUV420P) return 0;
  std::swap(before_, present_);
  std::swap(present_, next_);
  av_frame_unref(next_);
  const bool hadOne = std::exchange(shown_, true);
  const bool intact = isIntact(*present_);
  if (copies.empty()) return intact ? 1 : 0;
  const bool copied =
      hadOne && client::copyRegions(viewOf(*before_), viewOf(*present_), copies) == 1;
  return intact && copied ? 1 : 0;
}

client::Picture PictureDecoder::picture() const {
  return viewOf(*present_);
}

}  // namespace qora::tools
