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
    COMP_WORDS=("$name" --completion = z) COMP_CWORD=3
    "_$name"
    [[ ${COMPREPLY[*]} == zsh ]]
  )
  [[ $(head -qn1 "$folder"/prefix/share/zsh/*/"_$name") == "#compdef $name" ]]
done

docs=$(realpath "$(dirname "$0")/../../docs")
# block PAGE LANGUAGE: the first of that language.
block() {
  awk -v fence="\`\`\`$2" '$0 == fence { on = !seen++; next } $0 == "```" { on = 0 } on' "$docs/$1.md"
}
CMAKE_GENERATOR=$(sed -n 's/^CMAKE_GENERATOR:INTERNAL=//p' "$build/CMakeCache.txt")
PKG_CONFIG_PATH=$(dirname "$(find "$folder/prefix" -name qora-client.pc)")
export CMAKE_GENERATOR PKG_CONFIG_PATH CMAKE_PREFIX_PATH=$folder/prefix
LD_LIBRARY_PATH=$(pkg-config --variable=libdir qora-session)
export LD_LIBRARY_PATH
cd "$folder"
block writing_a_parent cpp >parent.cc
block c_interface c >box.c

# By CMake, as the page says; then the C library, and where CMake says that all is.
block writing_a_parent cmake >CMakeLists.txt
block writing_a_parent sh | bash -eu >/dev/null
cat >>CMakeLists.txt <<'CODE'
enable_language(C)
add_executable(box box.c)
target_link_libraries(box qora::session)
file(WRITE ${CMAKE_BINARY_DIR}/places "${QORA_SERVICE}\n${QORA_CODEC_ROOT}\n")
CODE
cmake --build build >/dev/null
mapfile -t places <build/places
build/box "${places[@]}" cmake.264

# By pkg-config.
read -r -a flags < <(pkg-config --cflags --libs qora-client)
c++ -std=c++20 parent.cc "${flags[@]}" -o parent
./parent "${places[@]}" second.264
[[ -s first.264 && -s second.264 ]]
read -r -a flags < <(pkg-config --cflags qora-session)
cc -std=c11 -Wall -Wextra -Wpedantic -Werror -fsyntax-only box.c "${flags[@]}"
block c_interface sh | bash -eu
[[ -s box.264 && -s cmake.264 ]]
