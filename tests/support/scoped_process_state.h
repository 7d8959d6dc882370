// tests/support/scoped_process_state.h -- Fresh process-wide records for one test.
//
// Saves all records, gives the test new ones, and puts the old ones back at the end of its scope.
#pragma once

#include "base/logger.h"
#include "encoder/encoder_api.h"
#include "encoder/stream.h"
#include "service/channel.h"
#include "service/segment.h"
#include "service/streams.h"

namespace qora::test {

template <typename Record>
class Scoped {
 public:
  explicit Scoped(Record& record) : record_(record), saved_(record) { record_ = Record{}; }
  ~Scoped() { record_ = saved_; }
  Scoped(const Scoped&) = delete;
  Scoped& operator=(const Scoped&) = delete;

 private:
  Record& record_;
  const Record saved_;
};

struct ScopedProcessState {
  Scoped<service::ChannelState> channel{service::channelState()};
  Scoped<service::StreamTable> streams{service::streamTable()};
  Scoped<service::PictureSegment> segment{service::pictureSegment()};
  Scoped<encoder::EncoderApi> api{encoder::encoderApi()};
  Scoped<int32_t> bitrateMode{encoder::bitrateMode()};
};

}  // namespace qora::test
