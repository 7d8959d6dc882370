// SPDX-License-Identifier: BSD-2-Clause
/* qora/session/qora_session.h -- Screens to streams of H.264, for C and whatever calls C.
 *
 * A session starts the codec service, owns the memory of the pictures and up to eight streams,
 * remembers every setting, and checks each call before anything is sent. A refused call changes
 * nothing. Link with -lqora-session.
 *
 *     qora_session* session = qora_session_create();
 *     qora_session_options options;
 *     qora_session_options_init(&options, sizeof options);
 *     options.service_path = "/usr/libexec/qora/qora-codec";
 *     qora_session_start(session, &options);
 *     qora_session_stream stream;
 *     qora_session_stream_init(&stream, sizeof stream);
 *     stream.width = 1920, stream.height = 1080, stream.bitrate = 4000;
 *     qora_session_add_stream(session, &stream);
 *     for each new picture:
 *       qora_session_picture picture;
 *       if (qora_session_acquire(session, 0, 0, &picture) == 1) {  // 0: all memory is in use
 *         draw into it;
 *         qora_session_encode(session, 0, &picture, areas, area_count, NULL, 0);
 *       }
 *     whenever qora_session_reply_descriptor() is readable or qora_session_timeout() has passed:
 *       qora_session_frame frame = {.struct_size = sizeof frame};
 *       while ((result = qora_session_read_frame(session, &frame, 0)) == 1) send(frame.bytes);
 *       if (result < 0) qora_session_restart(session);  // reported once; wait if it happens often
 *     qora_session_destroy(session);
 *
 * A stream sends when it should: a picture that the rate has no room for is kept and goes out later
 * together with what changed meanwhile; what stays still is sharpened, then nothing more is sent.
 * Both happen inside qora_session_read_frame() and qora_session_process(), so call one of them when
 * qora_session_timeout() says so, with or without new pictures.
 *
 * Results: 1 or a count, 0 for "not now", and a negative errno value for an error: -EINVAL. Then
 * qora_session_error_text() says in one line why. errno itself says nothing. Nothing is thrown; a
 * process that runs out of memory ends.
 *
 * Ownership: the library copies what it is given before a call returns. What it hands out stays its
 * own: a text until the next call on the session, the memory of a picture until it is encoded or
 * released, the bytes of a frame until the next qora_session_read_frame().
 *
 * Threads: one at a time may use a session; several sessions are independent. The library starts no
 * thread, raises no SIGPIPE and changes no signal's disposition. It waits for its own child only; a
 * caller who waits for any child may take its end away, and the session then cannot tell the
 * status.
 *
 * Records with a struct_size grow at their end. Set it to the size that your compiler knows: an
 * older library refuses what it does not know unless that is 0 (-E2BIG), a newer one takes its
 * defaults for what you do not know. Records without one never change. */
#ifndef QORA_SESSION_QORA_SESSION_H
#define QORA_SESSION_QORA_SESSION_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define QORA_SESSION_NOEXCEPT noexcept
extern "C" {
#else
#define QORA_SESSION_NOEXCEPT
#endif

typedef struct qora_session qora_session;

/* How the service is started. The init function's values stand in brackets. */
typedef struct qora_session_options {
  uint32_t struct_size;
  int32_t error_descriptor; /* where the service's diagnostics go; [-1]: our standard error */
  int32_t keep_log;         /* not 0: they are read, and the last line is part of error texts [0] */
  int32_t command_timeout_ms; /* for the service to take a command; -1: without end [10000] */
  int32_t reply_timeout_ms;   /* for it to answer a frame, then it is ended; 0: without [10000] */
  uint32_t max_reply_bytes;   /* of all frames together that were not read yet [64 MiB] */
  int64_t frame_interval_us;  /* frames that sharpen come at least this far apart [40000] */
  const char* service_path;   /* the program qora-codec, not searched for [NULL: must be set] */
  const char* codec_root; /* folder of the encoder library [NULL: the environment's QORA_SYSTEM] */
  const char* sandbox_path; /* the program qora-sandbox that is to run it [NULL: runs freely] */
  /* The time that rates are held by, microseconds, monotonic; called with clock_context inside any
   * call on the session, of which it must make none. Whoever encodes a recorded clip gives the
   * clip's time. [NULL: the system's monotonic clock] */
  int64_t (*clock_us)(void* context);
  void* clock_context;
} qora_session_options;

enum {
  /* The session decides how many bits a frame gets: a bitrate is held that may change at any
   * moment, still parts end at `quality`; without a bitrate all has it at once. */
  QORA_SESSION_RATE_QUALITY = 0,
  /* The encoder's own average bitrate, counted at 25 frames a second whatever the caller sends. */
  QORA_SESSION_RATE_ENCODER = 1
};

/* What a stream is to be like. The init function's values stand in brackets. */
typedef struct qora_session_stream {
  uint32_t struct_size;
  int32_t id;                /* 0 to 7, not in use [0] */
  int32_t width;             /* pixels, 16 to 16384; an odd one is rounded up for the viewer [0] */
  int32_t height;            /* likewise [0] */
  int32_t rate_control;      /* [QORA_SESSION_RATE_QUALITY] */
  int32_t bitrate;           /* kbit/s; 0: none. With the encoder's own: 1 to 65535 [0] */
  int32_t quality;           /* quantizer offset of still parts, -12 to 44, less is finer [8] */
  int32_t lowest_quantizer;  /* with the encoder's own bitrate: limits, 0 to 51 [0] */
  int32_t highest_quantizer; /* [51] */
  int32_t threads;           /* of the encoder, 0 to 128; [0]: it decides */
  int32_t start_codes;       /* not 0: Annex B; 0: each NAL unit after its length, 4 bytes [1] */
  int32_t frames_in_flight;  /* sent and not answered, 1 to 16 [2] */
} qora_session_stream;

/* An I420 picture in the session's memory. Planes are Y, U, V; the chroma planes have half the
 * width and height, rounded up. Hand it back as it came. */
typedef struct qora_session_picture {
  uint8_t* plane[3];
  int32_t stride[3]; /* bytes from one row to the next */
  int32_t width;     /* pixels */
  int32_t height;
} qora_session_picture;

/* A part of a picture, in pixels. */
typedef struct qora_session_area {
  int32_t x, y, width, height;
} qora_session_area;

/* Content that moved, in pixels: what the picture before had at the source, this one has at the
 * destination. Flags: 2, the chroma source moves one chroma row down; 4, one chroma sample right.
 */
typedef struct qora_session_copy {
  uint16_t flags, source_x, source_y, destination_x, destination_y, width, height;
} qora_session_copy;

/* What was coded of a picture, and how finely: less is finer, 100 marks what was left alone. */
typedef struct qora_session_rectangle {
  int32_t x, y, width, height, quantizer_offset;
} qora_session_rectangle;

/* One access unit, and how it came to be. Set struct_size, the call fills in the rest. */
typedef struct qora_session_frame {
  uint32_t struct_size;
  int32_t stream;
  int32_t key_frame; /* 1 or 0 */
  int32_t quantizer; /* of the frame; -1: the encoder cannot tell */
  const uint8_t* bytes;
  size_t size;
  int64_t encode_us;       /* in the encoder, to a millisecond */
  int64_t round_trip_us;   /* from the command to the whole reply */
  int64_t picture;         /* which encode of the stream gave it, from 0 on; the same: sharpened */
  int64_t picture_time_us; /* when that was, by the session's clock */
  const qora_session_rectangle* rectangles;
  size_t rectangle_count;
  const qora_session_copy* copies; /* whoever decodes makes them before the next frame */
  size_t copy_count;
} qora_session_frame;

/* The library's version, "0.1.0". */
const char* qora_session_version(void) QORA_SESSION_NOEXCEPT;

/* A session without service and streams; NULL when there is no memory. Destroying ends the service
 * and frees all that the session handed out; NULL is fine. */
qora_session* qora_session_create(void) QORA_SESSION_NOEXCEPT;
void qora_session_destroy(qora_session* session) QORA_SESSION_NOEXCEPT;

/* Why the last call on the session that returned an error did, one line; "" before the first. */
const char* qora_session_error_text(const qora_session* session) QORA_SESSION_NOEXCEPT;

/* Fill in the defaults; `size` is the record's own, sizeof *options, and at least 4. */
void qora_session_options_init(qora_session_options* options, size_t size) QORA_SESSION_NOEXCEPT;
void qora_session_stream_init(qora_session_stream* stream, size_t size) QORA_SESSION_NOEXCEPT;

/* Starts the service, and the streams that were added before. -EBUSY when one runs, otherwise the
 * system's error. A service that starts and ends at once is reported by read_frame. */
int32_t qora_session_start(qora_session* session,
                           const qora_session_options* options) QORA_SESSION_NOEXCEPT;
/* Ends the service if it still runs, starts it as before and adds all streams again; each goes on
 * with a key frame of its last picture. How long to wait before is the caller's choice. */
int32_t qora_session_restart(qora_session* session) QORA_SESSION_NOEXCEPT;
/* Ends the service in order: frames in flight are dropped, settings and pictures stay. 0 when none
 * ran, -EPIPE when it ended otherwise than in order. */
int32_t qora_session_stop(qora_session* session) QORA_SESSION_NOEXCEPT;
/* 1 from a start until the service's end is known, otherwise 0. */
int32_t qora_session_is_running(const qora_session* session) QORA_SESSION_NOEXCEPT;

/* The settings. They hold at once, or from the next start on. -EINVAL for a value out of its range,
 * -ENOENT for a stream that is not in use, -EBUSY for one that is; -EBUSY also while a picture is
 * acquired when streams or sizes change, for all pictures move then. */
int32_t qora_session_add_stream(qora_session* session,
                                const qora_session_stream* stream) QORA_SESSION_NOEXCEPT;
int32_t qora_session_remove_stream(qora_session* session, int32_t stream) QORA_SESSION_NOEXCEPT;
int32_t qora_session_resize(qora_session* session, int32_t stream, int32_t width,
                            int32_t height) QORA_SESSION_NOEXCEPT;
/* kbit/s; 0 lifts the limit. With the encoder's own bitrate: not 0, and costs a key frame. */
int32_t qora_session_set_bitrate(qora_session* session, int32_t stream,
                                 int32_t bitrate) QORA_SESSION_NOEXCEPT;
/* -ENOTSUP with the encoder's own bitrate. */
int32_t qora_session_set_quality(qora_session* session, int32_t stream,
                                 int32_t quality) QORA_SESSION_NOEXCEPT;
/* The next frame stands alone; on a still screen it is sent now. */
int32_t qora_session_request_key_frame(qora_session* session, int32_t stream) QORA_SESSION_NOEXCEPT;
/* For a caller who learns what its viewer has: so many bytes of the stream more, and the link's
 * least round trip. The bitrate then counts what is really under way. */
int32_t qora_session_acknowledged(qora_session* session, int32_t stream, int64_t bytes,
                                  int64_t round_trip_us) QORA_SESSION_NOEXCEPT;

/* A picture of the stream's size to fill, in memory that the service does not read now. It holds
 * some earlier picture, or with `latest` not 0 the one given last, for whoever draws only what
 * changed. 0: all are in use, until a frame is read. */
int32_t qora_session_acquire(qora_session* session, int32_t stream, int32_t latest,
                             qora_session_picture* picture) QORA_SESSION_NOEXCEPT;
/* Gives an acquired picture back without encoding it. */
int32_t qora_session_release(qora_session* session, int32_t stream,
                             const qora_session_picture* picture) QORA_SESSION_NOEXCEPT;

/* Takes an acquired picture as the stream's present one; it is the caller's no longer, except after
 * an error. 1: a frame is on its way. 0: not now; nothing changed, or it is kept and sent later.
 *   areas   what may differ from the picture given before, inside the picture.
 *   copies  what moved exactly from the picture given before, destinations and sizes even,
 *           both sides at least two pixels inside the picture. Only for a viewer that
 *           makes the copies of each frame in its own output: other decoders cannot follow. */
int32_t qora_session_encode(qora_session* session, int32_t stream,
                            const qora_session_picture* picture, const qora_session_area* areas,
                            size_t area_count, const qora_session_copy* copies,
                            size_t copy_count) QORA_SESSION_NOEXCEPT;
/* The same for whoever does not know what changed: the picture is compared with the one before. */
int32_t qora_session_encode_changes(qora_session* session, int32_t stream,
                                    const qora_session_picture* picture) QORA_SESSION_NOEXCEPT;

/* The next coded frame, in the order of sending. Waits for it for up to `timeout_ms` and does
 * meanwhile what process does; -1: as long as one is in flight. 0: none. -EPIPE, -EPROTO or
 * -ETIMEDOUT: the service is gone, reported once; then restart. */
int32_t qora_session_read_frame(qora_session* session, qora_session_frame* frame,
                                int32_t timeout_ms) QORA_SESSION_NOEXCEPT;
/* Takes in what the service wrote and sends what is due, without waiting. The number of frames that
 * read_frame has, or an error as there. */
int32_t qora_session_process(qora_session* session) QORA_SESSION_NOEXCEPT;
/* For poll(2): readable when process has something to do; -1 without a service. */
int32_t qora_session_reply_descriptor(const qora_session* session) QORA_SESSION_NOEXCEPT;
/* For poll(2): milliseconds until process has something to do by itself; -1: never. */
int32_t qora_session_timeout(const qora_session* session) QORA_SESSION_NOEXCEPT;
/* Frames sent and not yet read. */
int32_t qora_session_frames_in_flight(const qora_session* session) QORA_SESSION_NOEXCEPT;

#ifdef __cplusplus
}
#endif
#undef QORA_SESSION_NOEXCEPT
#endif
