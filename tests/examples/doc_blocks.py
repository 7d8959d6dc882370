#!/usr/bin/env python3
# SPDX-License-Identifier: BSD-2-Clause
"""Usage: doc_blocks.py OUT.cc BUILD_FOLDER PAGE... -- The pages' C++ blocks as one program.

The first block is a whole program, the second what the others include besides. Each of those goes on
from the first, or from an empty page, and becomes a function that finds what the text promises.
"""
import re
import sys

PRELUDE = """
static int step%d([[maybe_unused]] ScreenSession& %s) {
  [[maybe_unused]] CodedFrame frame;
  [[maybe_unused]] Picture picture;
  [[maybe_unused]] TestViewer viewer;
  [[maybe_unused]] CodecClient client;
  [[maybe_unused]] Reply reply;
"""
VIEWER = """
static size_t coded = 0;
static void send(const std::vector<uint8_t>& bytes) { coded += bytes.size(); }
static void send(const CodedFrame& frame) { send(frame.bytes); }
static void draw(const Picture& picture) { draw(0, picture); }
static const Area changedAreas[] = {{0, 0, 1920, 1080}};
static const qora::service::EncodeRequest next = {};
static const std::vector<qora::service::Rectangle> rectangles;
struct TestViewer {  // shows nothing
  std::vector<uint8_t> memory = std::vector<uint8_t>(3 << 20);
  Picture one{{&memory[0], &memory[1 << 20], &memory[2 << 20]}, {1024, 512, 512}, 800, 451};
  Picture two = one;
  Picture& decode(const std::vector<uint8_t>& bytes) { coded += bytes.size(); return one; }
  Picture& pictureBefore() { return two; }
};
"""
MAIN = """
int main(int argc, char* argv[]) {
  if (const int result = program(argc, argv); result != 0) return result;
  ScreenSession session;
  if (session.addStream({.width = 640, .height = 360}) == -1 ||
      session.start({.service = {.servicePath = argv[1], .codecRoot = argv[2]}}) == -1) return 1;
  for (const auto step : {%s}) {
    const int result = step(session);
    if (result != 0 || !session.errorText().empty()) return std::fprintf(stderr, "%%s\\n", session.errorText().c_str());
  }
  return session.stop() == 1 && coded > 1000 ? 0 : 1;
}
"""

out, build, *pages = sys.argv[1:]
blocks = [block for page in pages for block in re.findall(r"^```cpp\n(.*?)^```", open(page).read(), re.M | re.S)]
text = blocks[0].replace("int main(", "static int program(").replace("void draw", "static void draw")
text += blocks[1] + VIEWER
for number, block in enumerate(blocks[2:]):
    given = "outer" if "ScreenSession session;" in block else "session"
    text += PRELUDE % (number, given) + block.replace('"build/release', f'"{build}') + "  return 0;\n}\n"
text += MAIN % ", ".join(f"step{number}" for number in range(len(blocks) - 2))
open(out, "w").write(text)
