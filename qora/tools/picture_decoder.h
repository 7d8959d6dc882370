// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/picture_decoder.h -- What a viewer shows: access units decoded one at a time, each
// with its copies made in the decoder's own picture.
//
// One thread with low delay hands out the very pictures that the decoder predicts from, so the next
// access unit sees the copies. Damaged input is decoded as far as it goes. One thread at a time.
// A build without libavcodec has this class too; its open() says so.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "qora/client/picture.h"
#include "qora/client/region_copies.h"

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

namespace qora::tools {

class PictureDecoder {
 public:
  PictureDecoder() = default;
  ~PictureDecoder();
  PictureDecoder(const PictureDecoder&) = delete;
  PictureDecoder& operator=(const PictureDecoder&) = delete;

  // Once, before the rest. 1, or -1 with one line in `problem`.
  [[nodiscard]] int32_t open(std::string& problem);

  // One access unit with start codes, and the copies that follow it. 1: picture() is what the
  // encoder has. 0: something was damaged or missing; picture() is what could be made of it, or the
  // one before. -1: no memory.
  [[nodiscard]] int32_t decode(std::span<const uint8_t> accessUnit,
                               std::span<const service::RegionCopy> copies);

  // False until the first picture.
  bool hasPicture() const { return shown_; }
  // The decoder's memory, good until the next decode(). Not to be written to.
  client::Picture picture() const;

 private:
  int32_t send(std::span<const uint8_t> accessUnit);

  AVCodecContext* context_ = nullptr;
  AVPacket* packet_ = nullptr;
  AVFrame* present_ = nullptr;
  AVFrame* before_ = nullptr;
  AVFrame* next_ = nullptr;  // memory for the one being decoded
  bool shown_ = false;
};

}  // namespace qora::tools
