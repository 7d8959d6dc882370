// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/movie_writer.h"

// For a build without libavformat: no file is ever open.
struct AVFormatContext {};

namespace qora::tools {

using Time = MovieWriter::Time;

void MovieWriter::Release::operator()(AVFormatContext*) const {}

MovieWriter::MovieWriter() = default;
MovieWriter::~MovieWriter() = default;

bool MovieWriter::takes(const std::string& path) {
  return path.ends_with(".mp4") || path.ends_with(".mkv");
}
int32_t MovieWriter::open(const std::string& path, int32_t, int32_t, const client::SequenceFacts&) {
  problem_ = path + ": this program was built without libavformat";
  return -1;
}
int32_t MovieWriter::write(std::span<const uint8_t>, bool, Time) {
  return -1;
}
Time MovieWriter::flushDue() const {
  return Time::max();
}
int32_t MovieWriter::flush(Time) {
  return 1;
}
bool MovieWriter::endsBefore(Time) const {
  return false;
}
int32_t MovieWriter::close(Time) {
  return 1;
}

}  // namespace qora::tools
