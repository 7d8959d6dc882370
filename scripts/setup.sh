#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-2-Clause
# Usage: scripts/setup.sh [--list] [GROUP...]
# Installs the Debian 12 packages of the groups (build and tools when none is named). This is the one
# list of packages. Needs root or sudo only when something is missing; touches nothing, and no
# network, otherwise. --list prints what is missing and installs nothing.
set -euo pipefail

declare -rA groups=(
  [build]="
    g++ cmake ninja-build
    libx264-dev" # the bridge is compiled against its header and drives its library
  [tools]="
    pkg-config
    libseccomp-dev
    libxcb1-dev libxcb-damage0-dev libxcb-shm0-dev libxcb-xfixes0-dev libwayland-dev libwayland-bin
    libavformat-dev libavcodec-dev libavutil-dev
    libswscale-dev libsdl2-dev
    libxcb-xtest0-dev libwebsockets-dev" # the sandbox's filter; live screens, movies, windows, browsers
  [tests]="
    pkg-config
    libgtest-dev libgmock-dev python3-pytest
    libavformat-dev libavcodec-dev libavutil-dev libswscale-dev
    ffmpeg xvfb xterm xdotool x11-apps x11-xserver-utils sway foot grim
    git strace bubblewrap" # recordings of a real screen
  [packages]="scdoc dpkg-dev lintian" # manual pages, and what cpack and its checks call
  [demo]="
    ffmpeg
    xvfb openbox x11-xserver-utils
    xterm x11-apps procps fonts-dejavu-core
    xdotool gnuplot-nox"
  [live]="xvfb openbox x11-xserver-utils xterm x11-apps fonts-dejavu-core xdotool ffmpeg"
  [browser]="
    chromium chromium-driver firefox-esr xvfb x11-xserver-utils
    python3-websocket python3-xlib python3-pil python3-numpy"
  [root]="debootstrap dpkg-dev" # a fresh Debian, in which the packages are tried
  [ci]="clang clang-format-14"
  [fuzz]="clang libclang-rt-14-dev llvm-14" # the fuzzing engine; readable traces of what it finds
  [coverage]="gcovr"
  [benchmarks]="libbenchmark-dev x264 ffmpeg gnuplot-nox"
)

list_only=0
if [[ ${1:-} == --list ]]; then
  list_only=1
  shift
fi
[[ $# -gt 0 ]] || set -- build tools
wanted=()
for group in "$@"; do
  if [[ -z ${groups[$group]+known} ]]; then
    echo "setup.sh: no group '$group'; there are: ${!groups[*]}" >&2
    exit 2
  fi
  read -r -d '' -a packages <<<"${groups[$group]}" || true
  wanted+=("${packages[@]}")
done

# find_missing: sets `missing` to what is wanted and not installed.
find_missing() {
  local installed package
  installed=$(dpkg-query --show --showformat '<${Package} ${db:Status-Status}>' "${wanted[@]}" \
    2>/dev/null || true)
  missing=()
  for package in "${wanted[@]}"; do
    [[ $installed == *"<$package installed>"* ]] || missing+=("$package")
  done
}

give_up() {
  echo "setup.sh: $1; missing: ${missing[*]}" >&2
  echo "setup.sh: as root: apt-get install --no-install-recommends ${missing[*]}" >&2
  exit 1
}

find_missing
if [[ $list_only == 1 ]]; then
  [[ ${#missing[@]} -eq 0 ]] || printf '%s\n' "${missing[@]}"
  exit 0
fi
[[ ${#missing[@]} -gt 0 ]] || exit 0

as_root=()
if [[ $(id -u) -ne 0 ]]; then
  command -v sudo >/dev/null || give_up "packages are missing and there is no sudo"
  as_root=(sudo)
fi
as_root+=(env DEBIAN_FRONTEND=noninteractive)

# A package source that has nothing to do with us may be out of reach; the installation reports it.
"${as_root[@]}" apt-get update -q || echo "setup.sh: not every package list is fresh" >&2
"${as_root[@]}" apt-get install -q -y --no-install-recommends "${missing[@]}" </dev/null || {
  find_missing
  give_up "packages could not be installed"
}
