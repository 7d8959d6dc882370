// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/view/png_writer.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libswscale/swscale.h>
}

#include <cerrno>
#include <cstdio>
#include <memory>

#include "qora/base/error_text.h"
#include "qora/tools/clip_reader.h"

namespace qora::tools {
namespace {

struct Release {
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
  void operator()(SwsContext* context) const { sws_freeContext(context); }
};
template <typename Type>
using Owned = std::unique_ptr<Type, Release>;

// Null: no memory. Without chroma for each pixel, white comes out as 253.
Owned<AVFrame> toRgb(const client::Picture& picture) {
  Owned<AVFrame> frame(av_frame_alloc());
  const Owned<SwsContext> scaler(sws_getContext(
      picture.width, picture.height, AV_PIX_FMT_YUV420P, picture.width, picture.height,
      AV_PIX_FMT_RGB24, SWS_BILINEAR | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT, nullptr, nullptr,
      nullptr));
  if (frame == nullptr || scaler == nullptr) return nullptr;
  frame->format = AV_PIX_FMT_RGB24;
  frame->width = picture.width;
  frame->height = picture.height;
  if (av_frame_get_buffer(frame.get(), 0) != 0) return nullptr;
  const int* colours = sws_getCoefficients(SWS_CS_ITU709);
  sws_setColorspaceDetails(scaler.get(), colours, 0, colours, 1, 0, 1 << 16, 1 << 16);
  sws_scale(scaler.get(), picture.plane, picture.stride, 0, picture.height, frame->data,
            frame->linesize);
  return frame;
}

// Null: it failed.
Owned<AVPacket> encodePng(const AVFrame& frame) {
  const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_PNG);
  if (codec == nullptr) return nullptr;
  const Owned<AVCodecContext> context(avcodec_alloc_context3(codec));
  Owned<AVPacket> packet(av_packet_alloc());
  if (context == nullptr || packet == nullptr) return nullptr;
  context->width = frame.width;
  context->height = frame.height;
  context->pix_fmt = AV_PIX_FMT_RGB24;
  context->time_base = {1, 25};
  const bool made = avcodec_open2(context.get(), codec, nullptr) == 0 &&
                    avcodec_send_frame(context.get(), &frame) == 0 &&
                    avcodec_receive_packet(context.get(), packet.get()) == 0;
  return made ? std::move(packet) : nullptr;
}

}  // namespace

int32_t writePng(const client::Picture& picture, const std::string& path, std::string& problem) {
  const Owned<AVFrame> frame = toRgb(picture);
  const Owned<AVPacket> packet = frame == nullptr ? nullptr : encodePng(*frame);
  if (packet == nullptr) {
    problem = path + ": the picture cannot be made a PNG";
    return -1;
  }
  File file(std::fopen(path.c_str(), "wb"));
  const auto size = static_cast<size_t>(packet->size);
  const bool written = file != nullptr && std::fwrite(packet->data, 1, size, file.get()) == size;
  if (written && std::fclose(file.release()) == 0) return 1;
  problem = path + ": " + errorText(errno);
  return -1;
}

}  // namespace qora::tools
