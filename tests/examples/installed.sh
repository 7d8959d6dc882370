#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-2-Clause
# Usage: tests/examples/installed.sh BUILD_FOLDER
# A project outside finds what is installed, by CMake and by pkg-config, and its parents work there; shells
# find the completions.
set -euo pipefail
build=$(realpath "$1")
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cmake --install "$build" --prefix "$folder/prefix" >/dev/null

# What the shell loads when somebody completes: an option of each program, and a file where one belongs.
for program in "$folder/prefix/bin"/*; do
  name=${program##*/}
  (
    source "$folder/prefix/share/bash-completion/completions/$name"
    COMP_WORDS=("$name" --comp) COMP_CWORD=1
    "_$name"
    [[ ${COMPREPLY[*]} == --completion && $(complete -p "$name") == *" -o default "* ]]
    COMP_WORDS=("$name" --completion b) COMP_CWORD=2
    "_$name"
    [[ ${COMPREPLY[*]} == bash ]]
  )
  [[ $(head -qn1 "$folder"/prefix/share/zsh/*/"_$name") == "#compdef $name" ]]
done

cat >"$folder/parent.cc" <<'CODE'
#include <qora/client/codec_client.h>
#include <cstdio>
int main(int, char* argv[]) {
  qora::client::CodecClient client;
  const bool started = client.start({.servicePath = argv[1], .codecRoot = argv[2]}) == 1;
  if (started && client.stop() == 1) return 0;
  std::fprintf(stderr, "%s\n", client.endText().c_str());
  return 1;
}
CODE
sed -n '/^```c$/,/^```$/{/^```/!p}' "$(dirname "$0")/../../docs/c_interface.md" >"$folder/box.c"
cat >"$folder/CMakeLists.txt" <<'CODE'
cmake_minimum_required(VERSION 3.25)
project(outside C CXX)
find_package(qora 0.1 REQUIRED)
add_executable(parent parent.cc)
target_link_libraries(parent qora::client)
add_executable(box box.c)
target_link_libraries(box qora::session)
file(WRITE ${CMAKE_BINARY_DIR}/places "${QORA_SERVICE}\n${QORA_CODEC_ROOT}\n")
CODE
generator=$(sed -n 's/^CMAKE_GENERATOR:INTERNAL=//p' "$build/CMakeCache.txt")
cmake -G "$generator" -S "$folder" -B "$folder/build" -DCMAKE_PREFIX_PATH="$folder/prefix" >/dev/null
cmake --build "$folder/build" >/dev/null
mapfile -t places <"$folder/build/places"
"$folder/build/parent" "${places[@]}"

PKG_CONFIG_PATH=$(dirname "$(find "$folder/prefix" -name qora-client.pc)")
export PKG_CONFIG_PATH
read -r -a flags < <(pkg-config --cflags --libs qora-client)
c++ -std=c++20 "$folder/parent.cc" "${flags[@]}" -o "$folder/parent"
"$folder/parent" "$(pkg-config --variable=service qora-client)" \
  "$(pkg-config --variable=codec_root qora-client)"
read -r -a flags < <(pkg-config --cflags --libs qora-session)
cc -std=c11 -Wall -Wextra -Wpedantic -Werror "$folder/box.c" "${flags[@]}" -o "$folder/box"
LD_LIBRARY_PATH=$(pkg-config --variable=libdir qora-session) "$folder/box" "${places[@]}" "$folder/box.264"
