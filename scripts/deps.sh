#!/usr/bin/env bash
# Installs the Debian packages that building the library, its tool and its tests needs and
# that this machine lacks; packages named as arguments are added to the list (CI adds the
# fuzzing toolchain). Does nothing when everything is there already.
#
# Usage: scripts/deps.sh [PACKAGE...]
set -euo pipefail

packages=(cmake g++ make pkg-config libsqlite3-dev libgtest-dev libgmock-dev libcli11-dev
  nlohmann-json3-dev
  libxml2-utils "$@")
missing=()
for pkg in "${packages[@]}"; do
  dpkg -s "$pkg" >/dev/null 2>&1 || missing+=("$pkg")
done
[ ${#missing[@]} -gt 0 ] || exit 0

sudo=
[ "$(id -u)" -eq 0 ] || sudo=sudo
export DEBIAN_FRONTEND=noninteractive
echo "deps: installing ${missing[*]}"
$sudo apt-get update -qq || true
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
