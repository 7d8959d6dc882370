// SPDX-License-Identifier: BSD-2-Clause
#include "qora/service/streams.h"

#include <cstdlib>

#include "qora/base/keep_errno.h"
#include "qora/base/logger.h"
#include "qora/encoder/encoder_api.h"
#include "qora/service/channel.h"

namespace qora::service {
namespace {

using encoder::encoderApi;
using encoder::EncoderStream;

StreamTable table;

int32_t failMaps() {
  logStream() << "CodecFrame: ERROR! Failed to initialize the mb maps.\n";
  return -1;
}

// The previous maps, if any, are not looked at: an add never frees.
int32_t allocateMaps(EncoderStream& stream) {
  const int32_t cells = stream.mb_width * stream.mb_height;
  const int32_t bytes = cells * static_cast<int32_t>(sizeof(float));
  stream.mb_info_map = static_cast<uint8_t*>(calloc(cells, 1));
  if (stream.mb_info_map == nullptr) {
    KeepErrno keep;
    logStream() << "CodecFrame: ERROR! Failed to allocate " << cells
                << " bytes for the mb info map.\n";
    return failMaps();
  }
  stream.quant_offsets_map = static_cast<float*>(calloc(bytes, 1));
  if (stream.quant_offsets_map == nullptr) {
    KeepErrno keep;
    logStream() << "CodecFrame: ERROR! Failed to allocate " << bytes
                << " bytes for the quantizer offsets map.\n";
    return failMaps();
  }
  return 1;
}

void freeMaps(EncoderStream& stream) {
  free(stream.mb_info_map);
  free(stream.quant_offsets_map);
  stream.mb_info_map = nullptr;
  stream.quant_offsets_map = nullptr;
  stream.picture.prop.mb_info = nullptr;
  stream.picture.prop.quant_offsets = nullptr;
}

int32_t openEncoder(EncoderStream& stream, const AddStreamRequest& request) {
  if (encoderApi().fillParameters(&stream, request.threads, request.width, request.height,
                                  request.bitrate, request.qpMin, request.qpMax,
                                  request.flags) == -1) {
    KeepErrno keep;
    logStream() << "CodecFrame: ERROR! Failed to initialize the encoder parameters.\n";
    return -1;
  }
  stream.encoder = encoderApi().x264_encoder_open(stream.param);
  if (stream.encoder == nullptr) {
    KeepErrno keep;
    logStream() << "CodecFrame: ERROR! Failed to open the encoder.\n";
    return -1;
  }
  return 1;
}

// The input picture, its maps, and an output picture that no encoder has filled: a closed encoder's
// planes must not look like a reference.
int32_t preparePictures(EncoderStream& stream, const AddStreamRequest& request) {
  encoderApi().x264_picture_init(&stream.picture);
  stream.picture_out = {};
  stream.mb_width = (request.width + 15) >> 4;
  stream.mb_height = (request.height + 15) >> 4;
  stream.picture.img.i_csp = encoder::kCspI420;
  stream.picture.img.i_plane = 3;
  if (allocateMaps(stream) == -1) return -1;
  stream.picture.prop.quant_offsets = stream.quant_offsets_map;
  stream.picture.prop.mb_info = stream.mb_info_map;
  return 1;
}

}  // namespace

StreamTable& streamTable() {
  return table;
}

int32_t addStream(uint8_t* message, int32_t size) {
  if (completeMessage(message, size, kAddStreamSize - kHeaderSize) == -1) return -1;
  const AddStreamRequest request = parseAddStream(message);
  if (request.streamId >= kStreamCount) {
    KeepErrno keep;
    logStream() << "CodecFrame: ERROR! Cannot add invalid stream ID#" << int32_t{request.streamId}
                << ".\n";
    return -1;
  }
  encoder::bitrateMode() = request.bitrate > 0 ? 1 : 0;
  // A slot in use is not emptied first: parents that add twice rely on the old encoder staying open
  // until the process ends.
  EncoderStream& stream = table[request.streamId];
  if (openEncoder(stream, request) == -1 || preparePictures(stream, request) == -1) return -1;
  stream.in_use = 1;
  return 1;
}

int32_t removeStream(uint8_t* message, int32_t size) {
  if (completeMessage(message, size, kRemoveStreamSize - kHeaderSize) == -1) return -1;
  const int32_t id = parseStreamId(message);
  KeepErrno keep;
  if (id >= kStreamCount) {
    logStream() << "CodecFrame: ERROR! Cannot remove invalid stream ID#" << id << ".\n";
    return -1;
  }
  EncoderStream& stream = table[id];
  if (stream.encoder == nullptr) {
    logStream() << "CodecFrame: WARNING! Cannot close invalid encoder for stream ID#" << id
                << ".\n";
    return 0;
  }
  encoderApi().x264_encoder_close(stream.encoder);
  stream.encoder = nullptr;
  stream.param = nullptr;
  freeMaps(stream);
  stream.in_use = 0;
  stream.frame_count = 0;
  stream.mb_width = 0;
  stream.mb_height = 0;
  return 1;
}

}  // namespace qora::service
