#!/usr/bin/env bash
# Configures and builds one flavour. Usage: tools/dev/build.sh DIR [cmake options...]
set -euo pipefail
dir=$1; shift
root=$(cd "$(dirname "$0")/../.." && pwd)
cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
ninja -C "$dir"
