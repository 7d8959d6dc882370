#include "client/frame_segment.h"

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
  const uint32_t luma = 256 * 50;
  const uint32_t chroma = 128 * 25;
  const uint32_t offset[] = {luma + 2 * chroma, 2 * luma + 2 * chroma, 2 * luma + 3 * chroma};
  const uint32_t stride[] = {256, 128, 128};
  const Picture picture = segment.picture(1);
  for (int plane = 0; plane < 3; ++plane) {
    EXPECT_EQ(offset[plane], request.planeOffset[plane]);
    EXPECT_EQ(stride[plane], request.planeStride[plane]);
    EXPECT_EQ(offset[plane], picture.plane[plane] - segment.picture(0).plane[0]);
    EXPECT_EQ(stride[plane], static_cast<uint32_t>(picture.stride[plane]));
  }
  std::memset(picture.plane[2], 1, chroma);  // the last byte is still inside
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
  int seen[2];
  ASSERT_EQ(0, pipe(seen));
  const pid_t child = fork();
  if (child == 0) {
    segment.remove();
    const void* attached = shmat(id, nullptr, 0);
    if (attached != reinterpret_cast<void*>(-1) && write(seen[1], attached, 1) == 1) pause();
    _exit(1);
  }
  close(seen[1]);
  char byte = 0;
  EXPECT_EQ(1, read(seen[0], &byte, 1));
  EXPECT_EQ(42, byte);
  segment.remove();
  EXPECT_EQ(0, shmctl(id, IPC_STAT, &state));
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_EQ(-1, shmctl(id, IPC_STAT, &state));
  close(seen[0]);
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
