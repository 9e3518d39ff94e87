#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, only those missing.
# Usage: tools/dev/deps.sh [extra packages...]
set -euo pipefail

base=(build-essential cmake ninja-build pkg-config clang libclang-rt-14-dev
      libglib2.0-dev libgtest-dev libgmock-dev googletest libbenchmark-dev
      libatspi2.0-dev libx11-dev libxrandr-dev libgtk-3-dev libspeechd-dev libespeak-ng-dev)
want=("${base[@]}" "$@")

missing=()
for p in "${want[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
