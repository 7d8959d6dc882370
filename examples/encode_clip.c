// SPDX-License-Identifier: BSD-2-Clause
/* A parent in C that speaks the protocol itself: raw I420 in, H.264 (Annex B) out.
 *     encode_clip SERVICE CODEC_ROOT WIDTH HEIGHT CLIP.i420 OUTPUT.264
 * docs/protocol.md has every byte. All numbers are little-endian, as this machine is taken to be. */
#define _GNU_SOURCE /* pipe2 */
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

static void give_up(const char* what) {
  perror(what);
  exit(1);
}

/* Two pipes around the service; errors of its start are met as the end of its replies. */
static pid_t start(const char* service, const char* root, int* commands, int* replies) {
  int in[2], out[2];
  if (pipe2(in, O_CLOEXEC) == -1 || pipe2(out, O_CLOEXEC) == -1) give_up("pipe2");
  pid_t child = fork();
  if (child == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    setenv("QORA_SYSTEM", root, 1);
    execl(service, service, (char*)NULL);
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  *commands = in[1];
  *replies = out[0];
  return child;
}

static void write_all(int fd, const void* data, size_t size) {
  for (const char* at = data; size > 0;) {
    ssize_t done = write(fd, at, size);
    if (done <= 0) give_up("the service takes no commands");
    at += done;
    size -= (size_t)done;
  }
}

static void read_all(int fd, void* data, size_t size) {
  for (char* at = data; size > 0;) {
    ssize_t done = read(fd, at, size);
    if (done <= 0) give_up("the service ended");
    at += done;
    size -= (size_t)done;
  }
}

static void put16(uint8_t* at, uint32_t value) {
  at[0] = (uint8_t)value;
  at[1] = (uint8_t)(value >> 8);
}

static void put32(uint8_t* at, uint32_t value) {
  put16(at, value & 0xFFFF);
  put16(at + 2, value >> 16);
}

int main(int argc, char* argv[]) {
  if (argc != 7) return 2;
  const uint32_t width = (uint32_t)atoi(argv[3]), height = (uint32_t)atoi(argv[4]);
  const uint32_t luma = width * height, chroma = luma / 4, picture = luma + 2 * chroma;
  FILE* clip = fopen(argv[5], "rb");
  FILE* output = fopen(argv[6], "wb");
  if (clip == NULL || output == NULL) give_up("files");

  int segment = shmget(IPC_PRIVATE, picture, 0600);
  uint8_t* pixels = segment == -1 ? NULL : shmat(segment, NULL, 0);
  if (pixels == NULL || pixels == (void*)-1) give_up("shared memory");
  shmctl(segment, IPC_RMID, NULL); /* gone when both sides have let go of it or ended */

  int commands, replies;
  pid_t child = start(argv[1], argv[2], &commands, &replies);

  uint8_t attach[12] = {12, 0, 0, 0, 3};
  put32(attach + 8, (uint32_t)segment);
  write_all(commands, attach, sizeof attach);

  /* Stream 0 with start codes (4), one thread, constant quality, quantizers 0 to 51. */
  uint8_t add[16] = {16, 0, 0, 0, 0, 4, 0, 1, 0, 0, 0, 51};
  put16(add + 12, width);
  put16(add + 14, height);
  write_all(commands, add, sizeof add);

  /* One command for all frames: the same place in the segment, one rectangle over everything. */
  uint8_t encode[56] = {56, 0, 0, 0, 2};
  const uint32_t fields[] = {12, 0, width, luma, width / 2, luma + chroma, width / 2, 0};
  for (int i = 0; i < 8; ++i) put32(encode + 12 + 4 * i, fields[i]);
  put16(encode + 52, width);
  put16(encode + 54, height);

  while (fread(pixels, 1, picture, clip) == picture) {
    write_all(commands, encode, sizeof encode);
    uint8_t head[20];
    read_all(replies, head, sizeof head);
    uint32_t length;
    memcpy(&length, head + 8, 4);
    void* frame = malloc(length);
    read_all(replies, frame, length);
    fwrite(frame, 1, length, output);
    free(frame);
  }
  close(commands); /* which ends the service */
  int status = 0;
  waitpid(child, &status, 0);
  if (fclose(output) != 0) give_up(argv[6]);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
