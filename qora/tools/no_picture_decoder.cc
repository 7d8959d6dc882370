// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/picture_decoder.h"

// For a build without libavcodec.
namespace qora::tools {

PictureDecoder::~PictureDecoder() = default;

int32_t PictureDecoder::open(std::string& problem) {
  problem = "this program was built without libavcodec";
  return -1;
}
int32_t PictureDecoder::decode(std::span<const uint8_t>, std::span<const service::RegionCopy>) {
  return -1;
}
client::Picture PictureDecoder::picture() const {
  return {};
}

}  // namespace qora::tools
