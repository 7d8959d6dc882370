// SPDX-License-Identifier: BSD-2-Clause
#include "qora/client/frame_segment.h"

#include <gtest/gtest.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

namespace qora::client {
namespace {

TEST(FrameSegmentTest, LaysPlanesOutOnCacheLines) {
  FrameSegment segment;
  ASSERT_EQ(1, segment.create(130, 50, 2));
  service::EncodeRequest request{};
  segment.place(1, request);
  const Picture picture = segment.picture(1);
  constexpr uint32_t kLuma = 256 * 50, kChroma = 128 * 25, kCell = kLuma + 2 * kChroma;
  for (uint32_t plane = 0; plane < 3; ++plane) {
    EXPECT_EQ(kCell + (plane > 0 ? kLuma + (plane - 1) * kChroma : 0), request.planeOffset[plane]);
    EXPECT_EQ(request.planeOffset[plane], picture.plane[plane] - segment.picture(0).plane[0]);
    EXPECT_EQ(plane == 0 ? 256u : 128u, request.planeStride[plane]);
  }
  std::memset(picture.plane[2], 1, kChroma);  // the last byte is still inside
}

TEST(FrameSegmentTest, IsGoneWithItsLastUser) {
  FrameSegment segment;
  ASSERT_EQ(1, segment.create(64, 64, 1));
  const int id = segment.id();
  segment.picture(0).plane[0][0] = 42;
  shmid_ds state;
  ASSERT_EQ(0, shmctl(id, IPC_STAT, &state));
  EXPECT_NE(0, state.shm_perm.mode & SHM_DEST) << "a crash now would leave it behind";

  // The service comes later, keeps it beyond our end, and dies without a clean-up.
  const pid_t child = fork();
  if (child == 0) {
    segment.remove();
    const char* attached = static_cast<char*>(shmat(id, nullptr, 0));
    raise(SIGSTOP);
    _exit(*attached);
  }
  int status = 0;
  waitpid(child, &status, WUNTRACED);
  segment.remove();
  EXPECT_EQ(0, shmctl(id, IPC_STAT, &state));
  kill(child, SIGCONT);
  waitpid(child, &status, 0);
  EXPECT_EQ(42, WEXITSTATUS(status));
  EXPECT_EQ(-1, shmctl(id, IPC_STAT, &state));
}

TEST(FrameSegmentTest, RefusesWhatCannotBeSent) {
  FrameSegment segment;
  const int32_t cases[][4] = {{0, 16, 1, EINVAL},
                              {16, 65536, 1, EINVAL},
                              {16, 16, 0, EINVAL},
                              {65535, 65535, 1, EOVERFLOW}};
  for (const auto& [width, height, cells, error] : cases) {
    EXPECT_EQ(-1, segment.create(width, height, cells));
    EXPECT_EQ(error, errno);
    EXPECT_EQ(-1, segment.id());
  }
}

}  // namespace
}  // namespace qora::client
