#!/usr/bin/env bash
# Builds the agent and runs its main job on the embedded simulated desktop.
# Extra arguments go to the agent (see `ocuvane-agent --help`).
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
cd "$root"
bash tools/dev/deps.sh
bash tools/dev/build.sh build/normal -DORV_BUILD_TESTS=OFF -DORV_BUILD_BENCH=OFF
exec build/normal/ocuvane-agent --desktop=sim --verbosity=3 "$@"
