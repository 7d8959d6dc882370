#!/usr/bin/env bash
# Installs what building, testing and the demo need on Debian 12. This is the one list of packages.
# Needs root or sudo only when something is missing; touches nothing, and no network, otherwise.
set -euo pipefail

build=(
  g++ clang cmake ninja-build
  pkg-config libseccomp-dev # the sandbox's filter
  libx264-dev # the bridge is compiled against its header and drives its library
)
tests=(
  libclang-rt-14-dev llvm-14 # the fuzzing engine; readable traces of what it finds
  libgtest-dev libgmock-dev
  clang-format-14 # other versions format differently
  git python3     # format check, include check
  ffmpeg          # decodes what was encoded
  strace valgrind gnuplot-nox # stress/ and its plot
  gcovr                        # scripts/coverage.sh
  bubblewrap                   # a sandbox for the service
  libavcodec-dev libavutil-dev # a decoder whose pictures can be changed
)
benchmarks=( # on the demo's desktop
  libbenchmark-dev
  x264 # what the service is compared with, beside ffmpeg
  gnuplot-nox
)
demo=(
  ffmpeg
  xvfb openbox x11-xserver-utils # an X screen, its window manager and its background
  xterm x11-apps procps          # the programs on it: a terminal, a clock, a calculator, top
  fonts-dejavu-core
  xdotool # moves windows and the pointer
)

wanted=("${build[@]}" "${tests[@]}" "${benchmarks[@]}" "${demo[@]}")
installed=$(dpkg-query --show --showformat '<${Package} ${db:Status-Status}>' "${wanted[@]}" \
  2>/dev/null || true)
missing=()
for package in "${wanted[@]}"; do
  [[ $installed == *"<$package installed>"* ]] || missing+=("$package")
done
[[ ${#missing[@]} -gt 0 ]] || exit 0

as_root=()
if [[ $(id -u) -ne 0 ]]; then
  if ! command -v sudo >/dev/null; then
    echo "setup.sh: run as root, or install these packages: ${missing[*]}" >&2
    exit 1
  fi
  as_root=(sudo)
fi
as_root+=(env DEBIAN_FRONTEND=noninteractive)

# A package source that has nothing to do with us may be out of reach; the installation tells.
"${as_root[@]}" apt-get update -q || echo "setup.sh: not every package list is fresh" >&2
"${as_root[@]}" apt-get install -q -y --no-install-recommends "${missing[@]}" </dev/null
