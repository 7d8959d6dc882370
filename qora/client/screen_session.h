// SPDX-License-Identifier: BSD-2-Clause
// qora/client/screen_session.h -- A parent that cannot go wrong: screens to streams of H.264.
//
// Owns the service, the shared memory and up to eight streams, remembers every setting, and checks
// each call before anything is sent: the service ends at the first wrong command, this class
// refuses it instead. A refused call returns -1 with errno, errorText() says in one line why, and
// nothing has changed.
//
//     ScreenSession session;
//     session.start({.service = {.servicePath = "/usr/libexec/qora/qora-codec"}});
//     session.addStream({.id = 0, .width = 1920, .height = 1080, .bitrate = 4000});
//     for each new picture:
//       Picture picture;
//       if (session.acquire(0, picture) == 1) {       // 0: all memory is in use, come again
//         draw into it;
//         session.encode(0, picture, changedAreas);
//       }
//     whenever replyDescriptor() is readable or timeout() has passed:
//       while ((result = session.readFrame(frame, 0)) == 1) send(frame.bytes);
//       if (result == -1) session.restart();          // told once; wait a while if it happens
//       often
//
// A stream sends when it should, not when it is told to: a picture that the rate has no room for is
// kept and goes out later together with what changed meanwhile; what stays still is sharpened, then
// nothing more is sent. Both happen inside readFrame() and process(), so call one of them when
// timeout() says so, with or without new pictures.
//
// The first frame of a stream, and the one after restart(), resize() or a new bitrate of the
// encoder's own, is a key frame of the whole picture, whatever the caller lists. Pictures that were
// not sent lose nothing: what they changed is added to the next.
//
// Results: 1, 0 for "not now", -1 with errno. One thread at a time may use a session; several
// sessions are independent.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "qora/client/damage.h"
#include "qora/client/picture.h"
#include "qora/client/screen_stream.h"
#include "qora/client/service_link.h"
#include "qora/client/stream_settings.h"
#include "qora/service/wire/messages.h"

namespace qora::client {

struct SessionOptions {
  ServiceOptions service;
  // Frames that sharpen a still picture come at least this far apart.
  std::chrono::microseconds frameInterval{40'000};
  // A service that does not answer a frame for so long is ended; 0: never.
  std::chrono::milliseconds replyTimeout{10'000};
  // The time that rates are held by, monotonic; empty: the steady clock. Whoever encodes a recorded
  // clip gives the clip's time.
  std::function<std::chrono::microseconds()> clock = {};
};

// One access unit. Use the same record for every frame: its memory is kept.
struct CodedFrame {
  int32_t stream = 0;
  bool keyFrame = false;
  std::vector<uint8_t> bytes;
  int32_t quantizer = -1;                   // of the frame; -1: the encoder cannot tell
  uint32_t encodeMilliseconds = 0;          // in the encoder, the service's clock
  std::chrono::microseconds roundTrip{};    // from the command to the whole reply
  int64_t picture = 0;                      // which encode() of the stream gave it, from 0 on; the
                                            // same one again: sharpened
  std::chrono::microseconds pictureTime{};  // when that was, by the session's clock
  std::vector<service::Rectangle> rectangles;  // what was listed, with the offsets used
  int32_t keeping = 0;                      // so many of them, the first, only keep what is there
  std::vector<service::RegionCopy> copies;  // whoever decodes makes them before the next frame
};

class ScreenSession {
 public:
  using Time = std::chrono::microseconds;

  ScreenSession() = default;
  ScreenSession(const ScreenSession&) = delete;
  ScreenSession& operator=(const ScreenSession&) = delete;

  // Starts the service, and the streams that were added before. -1: EBUSY when one runs, otherwise
  // what CodecClient::start() says. A service that starts and ends at once is told by readFrame().
  [[nodiscard]] int32_t start(const SessionOptions& options);
  // Ends the service if it still runs, starts it as before and adds all streams again. Each goes on
  // with a key frame of its last picture. How long to wait before is the caller's choice.
  [[nodiscard]] int32_t restart();
  // Ends the service in order: frames in flight are dropped, settings and pictures stay.
  // 1 when it ended with status 0, 0 when none ran, -1 otherwise, errorText() says how.
  int32_t stop();
  bool isRunning() const { return service_.isRunning(); }

  // The settings. They hold at once, or from the next start on. EINVAL for a value that is not as
  // stated above, ENOENT for a stream that is not in use, EBUSY for one that is; EBUSY also while a
  // picture is acquired when streams or sizes change, for all pictures move then.
  [[nodiscard]] int32_t addStream(const StreamSettings& settings);
  int32_t removeStream(int32_t stream);
  [[nodiscard]] int32_t resize(int32_t stream, int32_t width, int32_t height);
  // kbit/s. RateControl::quality: 0 lifts the limit; no key frame, holds from the next frame on.
  // RateControl::encoder: costs a key frame, for the stream is added again.
  int32_t setBitrate(int32_t stream, int32_t bitrate);
  // RateControl::quality only, otherwise ENOTSUP.
  int32_t setQuality(int32_t stream, int32_t offset);
  // The next frame stands alone; on a still screen it is sent now.
  int32_t requestKeyFrame(int32_t stream);
  // For a parent that learns what its viewer has: see QualityControl::acknowledged().
  int32_t acknowledged(int32_t stream, int64_t bytes, Time roundTrip);
  // Null when the stream is not in use.
  const StreamSettings* settings(int32_t stream) const;

  // A picture of the stream's size to fill, in memory that the service reads but not now. It holds
  // some earlier picture, or (`latest`) the one given last, for whoever draws only what changed.
  // Stays the caller's until encode() or release(). 0: all are in use, until a reply is read.
  [[nodiscard]] int32_t acquire(int32_t stream, Picture& picture, bool latest = false);
  // What acquire() with `latest` does, for a picture that was acquired without: it becomes the one
  // given last. For whoever draws `drawn` anew from end to end: those macroblocks are left as they
  // are, and nothing is copied in vain. Of the picture's size.
  int32_t bringUpToDate(int32_t stream, const Picture& picture, const Damage& drawn);
  int32_t release(int32_t stream, const Picture& picture);
  // Compares an acquired picture with the one given last; `changed` becomes what differs. Returns
  // the number of macroblocks; all of them for the first picture.
  int32_t findChanges(int32_t stream, const Picture& picture, Damage& changed);
  // The same inside `changed` only, which is of the picture's size: for whoever knows where the
  // screen was drawn on. What is not in it counts as unchanged.
  int32_t refineChanges(int32_t stream, const Picture& picture, Damage& changed);

  // The picture given last, to be read only and only until the next call that gives one or changes
  // the streams. 0: there is none.
  int32_t present(int32_t stream, Picture& picture);

  // Takes an acquired picture as the stream's present one.
  //   changed  what may differ from the picture given before, pixels, inside the picture; for
  //            encodeDamage() damage of the picture's size.
  //   copies   what moved exactly from the picture given before, destinations and sizes even,
  //            both sides at least kCopyEdge inside the picture, kMostCopies at most. Only for a
  //            viewer that makes the copies of each CodedFrame in its own output (copyRegions),
  //            from its last picture into this one before it decodes the next: other decoders
  //            cannot follow. They are left out, and their destinations coded, wherever they would
  //            be wrong: key frames, pictures before that were not sent.
  // 1: a frame is on its way. 0: not now; nothing changed, or it is kept and sent later. -1: the
  // picture is still the caller's. The end of the service is told by readFrame() and process().
  int32_t encode(int32_t stream, const Picture& picture, std::span<const Area> changed,
                 std::span<const service::RegionCopy> copies = {});
  int32_t encodeDamage(int32_t stream, const Picture& picture, const Damage& changed,
                       std::span<const service::RegionCopy> copies = {});
  // One more frame of the picture that was sent last, a few bytes: for files, whose frames come at
  // a constant rate, after an encode() that returned 0. 0: nothing was sent yet, or not now.
  int32_t repeat(int32_t stream);

  // The next coded frame, in the order of sending. Waits for it for up to `timeout` milliseconds
  // and does meanwhile what process() does; -1: as long as one is in flight. 0: none. -1: the
  // service is gone (EPIPE, EPROTO, ETIMEDOUT), told once; errorText() says how. Then restart().
  int32_t readFrame(CodedFrame& frame, int32_t timeout = -1);
  // Takes in what the service wrote and sends what is due, without waiting. The number of frames
  // that readFrame() has, or -1 as there.
  int32_t process();
  // Readable when process() has something to do; -1 without a service.
  int32_t replyDescriptor() const { return service_.replyDescriptor(); }
  // Milliseconds until it has by itself, for poll(2); -1: never.
  int32_t timeout() const;
  // Frames sent and not yet read.
  int32_t framesInFlight() const { return static_cast<int32_t>(sent_.size()); }

  // Why the last call that returned -1 did, one line.
  const std::string& errorText() const { return errorText_; }

 private:
  using Clock = std::chrono::steady_clock;
  using Slot = std::optional<ScreenStream>;

  struct Sent {
    int32_t stream;
    bool isCurrent;  // of the stream as it is: neither removed nor resized since
    bool isWanted;   // the caller is to get it
    Clock::time_point at;
    PlannedFrame frame;
  };

  int32_t refuse(int error, const std::string& problem);
  int32_t checkStream(int32_t stream);
  int32_t checkNothingAcquired();
  int32_t checkDamage(const Damage& changed, const Picture& picture);
  int32_t acquiredCell(int32_t stream, const Picture& picture);
  Time now() const;

  int32_t layOut(const StreamSettings& settings);
  void outdate(int32_t stream, bool isWanted);
  void startAnew();
  int32_t give(int32_t stream, int32_t cell, const Damage& changed,
               std::span<const service::RegionCopy> copies);
  bool canSend(const ScreenStream& screen) const;
  int32_t sendDue(int32_t stream);
  void sendAllDue();
  int32_t send(ScreenStream& screen);
  int32_t takeFrame(CodedFrame& frame);
  void checkReplyTime();
  int32_t tellLoss();

  SessionOptions options_;
  ServiceLink service_;
  std::array<Slot, service::kStreamCount> streams_;
  std::deque<Sent> sent_;
  Reply reply_;
  Damage given_;  // of the picture being given; a member for its memory
  std::string errorText_;
};

}  // namespace qora::client
