#!/usr/bin/env bash
# Prepares the 32-bit ARM (armhf) cross build on a Debian 12 amd64 machine:
#   - installs the cross compiler and qemu user-mode emulation (host packages),
#   - fills a sysroot folder with the target's SQLite and GoogleTest, unpacked
#     from armhf .deb files.
# The armhf libraries are never installed through multiarch: amd64 and armhf
# versions in the registry can drift apart, which makes `apt-get install
# pkg:armhf` fail. `apt-get download` + `dpkg -x` does not care.
#
# Usage: scripts/armhf-sysroot.sh [SYSROOT]
#   SYSROOT defaults to $ANALYTICSDB_ARMHF_SYSROOT, else <repo>/build-armhf-sysroot
#   (the same default as cmake/toolchain-armhf.cmake).
# Safe to run again: finished steps are skipped. Delete SYSROOT to refresh it.
set -euo pipefail

repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
sysroot=${1:-${ANALYTICSDB_ARMHF_SYSROOT:-$repo/build-armhf-sysroot}}
triplet=arm-linux-gnueabihf
# Target libraries a GoogleTest test linked with SQLite and pthread needs;
# libc, libstdc++ and libgcc come with the cross compiler.
packages=(libsqlite3-0 libsqlite3-dev libgtest-dev libgmock-dev libcli11-dev nlohmann-json3-dev)

sudo=
[ "$(id -u)" -eq 0 ] || sudo=sudo
export DEBIAN_FRONTEND=noninteractive

log() { echo "armhf-sysroot: $*"; }
run() { echo "+ $*"; "$@"; }

updated=0
apt_update() {
  [ "$updated" -eq 1 ] && return 0
  updated=1
  # A mirror mid-sync can fail one index while the others load: go on, the
  # install below is the real check.
  run $sudo apt-get update -qq || log "warning: apt-get update reported errors"
}

# --- host tools ---------------------------------------------------------------
if command -v "$triplet-g++" >/dev/null && command -v qemu-arm >/dev/null; then
  log "cross compiler and qemu-arm already installed"
else
  # A never-updated machine has no package lists: update before choosing.
  apt-cache show qemu-user >/dev/null 2>&1 || apt_update
  # qemu-user ships /usr/bin/qemu-arm; qemu-user-static only qemu-arm-static.
  qemu="qemu-user"
  apt-cache show qemu-user >/dev/null 2>&1 || qemu="qemu-user-static"
  tools=("g++-$triplet" "$qemu")
  run $sudo apt-get install -y -qq --no-install-recommends "${tools[@]}" ||
    { apt_update && run $sudo apt-get install -y -qq --no-install-recommends "${tools[@]}"; }
  if ! command -v qemu-arm >/dev/null && command -v qemu-arm-static >/dev/null; then
    run $sudo ln -s "$(command -v qemu-arm-static)" /usr/local/bin/qemu-arm
  fi
fi

# --- target sysroot -----------------------------------------------------------
mkdir -p "$sysroot"
sysroot=$(cd "$sysroot" && pwd)
stamp=$sysroot/.stamp
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "${packages[*]}" ]; then
  log "sysroot $sysroot is up to date"
  exit 0
fi

# armhf package lists go into a private apt state inside the sysroot folder, so
# the machine's apt keeps its architectures (no `dpkg --add-architecture`) and a
# later system `apt-get update` cannot trip over armhf indexes.
apt_state=$sysroot/.apt
debs=$sysroot/.debs
mkdir -p "$apt_state/lists/partial" "$apt_state/cache/archives/partial" "$debs"
touch "$apt_state/status"
apt_armhf=(apt-get -q -o APT::Architecture=armhf -o APT::Architectures=armhf
  -o Dir::State::Lists="$apt_state/lists" -o Dir::State::status="$apt_state/status"
  -o Dir::Cache="$apt_state/cache" -o APT::Sandbox::User="$(id -un)")
run "${apt_armhf[@]}" update || log "warning: apt-get update (armhf) reported errors"
log "downloading ${packages[*]} (armhf) into $debs"
(cd "$debs" && rm -f ./*.deb && run "${apt_armhf[@]}" download "${packages[@]}")

log "unpacking into $sysroot"
find "$sysroot" -mindepth 1 -maxdepth 1 ! -name .debs ! -name .apt -exec rm -rf {} +
for deb in "$debs"/*.deb; do
  run dpkg -x "$deb" "$sysroot"
done
test -f "$sysroot/usr/include/sqlite3.h"
test -e "$sysroot/usr/lib/$triplet/libsqlite3.so"
test -f "$sysroot/usr/lib/$triplet/libgtest.a"
test -f "$sysroot/usr/include/CLI/CLI.hpp"
rm -rf "$apt_state" # 18 MB of package lists, fetched again if ever needed
echo "${packages[*]}" >"$stamp"
log "done: configure with -DCMAKE_TOOLCHAIN_FILE=$repo/cmake/toolchain-armhf.cmake"
