#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-2-Clause
# Usage: tests/long/clean_root.sh BUILD_FOLDER
# Makes the packages, installs them in a fresh root of this Debian, encodes a clip there as an ordinary user,
# purges them: nothing is left. Ends with 77 after a reason when the machine does not let it be tried.
set -euo pipefail

skip() {
  echo "$1"
  exit 77
}
[[ $(id -u) == 0 ]] || skip "only root makes a root"
for tool in debootstrap dpkg-shlibdeps; do
  command -v "$tool" >/dev/null || skip "$tool is not installed"
done
unshare --mount --pid --ipc --fork true 2>/dev/null || skip "namespaces are not allowed here"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
root=$work/root
codename=$(. /etc/os-release && echo "$VERSION_CODENAME")
debootstrap --variant=minbase "$codename" "$root" >"$work/log" 2>&1 ||
  skip "no Debian to be had: $(tail -1 "$work/log")"
mkdir "$root/packages"
cpack --config "$1/CPackConfig.cmake" -B "$work/cpack" >/dev/null
cp "$work"/cpack/*.deb "$root/packages"
mapfile -t packages < <(cd "$root" && printf '/%s\n' packages/*.deb)
mapfile -t names < <(for package in "${packages[@]}"; do dpkg-deb --field "$root$package" Package; done)

# inside COMMAND...: whatever it starts and mounts ends with it.
inside() {
  env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 HOME=/ DEBIAN_FRONTEND=noninteractive \
    unshare --mount --pid --ipc --fork --kill-child --mount-proc="$root/proc" chroot "$root" "$@" </dev/null
}
quietly() { inside "$@" >"$work/log" 2>&1 || { cat "$work/log" && exit 1; }; }

# What logs and caches hold is not ours.
list() {
  (cd "$root" && find . \( -path ./proc -o -path ./tmp -o -path ./var/log -o -path ./var/cache \
    -o -path ./var/lib/apt -o -path ./var/lib/dpkg \) -prune -o -printf '%y %m %p %l\n' | sort)
}

quietly apt-get update
list >"$work/before"
quietly apt-get install -y --no-install-recommends "${packages[@]}"
inside setpriv --reuid 65534 --regid 65534 --clear-groups bash -eu -c '
  cd /tmp
  { echo "YUV4MPEG2 W64 H48 F25:1"
    for frame in {1..9}; do echo FRAME; head -c 4608 /dev/urandom; done; } >clip.y4m
  for program in /usr/bin/qora-*; do "$program" --version; done
  for name in clip.mp4 clip.mkv clip.264; do qora-encode clip.y4m -o "$name" --verify; done'
quietly apt-get purge -y "${names[@]}"
quietly apt-get autoremove -y --purge -o APT::AutoRemove::SuggestsImportant=false
list >"$work/after"
diff "$work/before" "$work/after"
