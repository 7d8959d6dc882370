// SPDX-License-Identifier: BSD-2-Clause
// tests/support/decoder.h -- What a viewer shows, region copies included.
//
// One thread with low delay hands out the pictures that it predicts from, so what is changed in
// them is what the next access unit sees.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "qora/client/picture.h"
#include "qora/client/region_copies.h"

namespace qora::test {

struct FreeFrame {
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
using Frame = std::unique_ptr<AVFrame, FreeFrame>;

inline client::Picture viewOf(const AVFrame& frame) {
  return {{frame.data[0], frame.data[1], frame.data[2]},
          {frame.linesize[0], frame.linesize[1], frame.linesize[2]},
          frame.width,
          frame.height};
}

// A sample with U and V interleaved, as the encoder has them.
inline uint8_t& sampleOf(AVFrame& frame, int plane, int x, int y) {
  return plane == 0 ? frame.data[0][y * frame.linesize[0] + x]
                    : frame.data[1 + x % 2][y * frame.linesize[1 + x % 2] + x / 2];
}

class Decoder {
 public:
  Decoder() : context_(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_H264))) {
    context_->thread_count = 1;
    context_->flags |= AV_CODEC_FLAG_LOW_DELAY;
    context_->err_recognition = AV_EF_EXPLODE;
    EXPECT_EQ(avcodec_open2(context_, nullptr, nullptr), 0);
  }
  ~Decoder() { avcodec_free_context(&context_); }
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;

  // One access unit; its picture is the present one. False: it shows none.
  bool decode(const std::vector<uint8_t>& unit) {
    AVPacket* packet = av_packet_alloc();
    av_new_packet(packet, static_cast<int>(unit.size()));
    std::copy(unit.begin(), unit.end(), packet->data);
    previous_.swap(present_);
    present_.reset(av_frame_alloc());
    const bool decoded = avcodec_send_packet(context_, packet) == 0 &&
                         avcodec_receive_frame(context_, present_.get()) == 0;
    av_packet_free(&packet);
    return decoded && present_->format == AV_PIX_FMT_YUV420P;
  }
  // Whether it is equal to luma and interleaved chroma, as service::PlanarView has them.
  template <typename View>
  bool shows(const View& picture) {
    for (int plane = 0; plane < 2; ++plane)
      for (int y = 0; y < present_->height >> plane; ++y)
        for (int x = 0; x < present_->width; ++x)
          if (sampleOf(*present_, plane, x, y) !=
              picture.plane[plane][y * picture.stride[plane] + x])
            return false;
    return true;
  }
  // Mean square of what coding changed in the luma plane.
  double loss(const client::Picture& picture) {
    double sum = 0;
    for (int y = 0; y < picture.height; ++y)
      for (int x = 0; x < picture.width; ++x)
        sum +=
            std::pow(sampleOf(*present_, 0, x, y) - picture.plane[0][y * picture.stride[0] + x], 2);
    return sum / (picture.width * picture.height);
  }
  int luma(int x, int y) const { return present_->data[0][y * present_->linesize[0] + x]; }
  // Moves content from the picture before into the present one.
  void copy(const std::vector<service::RegionCopy>& copies) {
    if (previous_ == nullptr) return;
    EXPECT_EQ(client::copyRegions(viewOf(*previous_), viewOf(*present_), copies), 1);
  }

 private:
  AVCodecContext* context_;
  Frame previous_, present_;
};

}  // namespace qora::test
