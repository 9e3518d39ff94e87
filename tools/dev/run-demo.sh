#!/usr/bin/env bash
# Builds the agent and the magnifier stand-in, then plays the bundled demo scenario on the
# simulated desktop with the stand-in receiving, and shows what the magnifier received.
# Extra arguments go to the agent (see `ocuvane-agent --help`), e.g. --realtime or
# --scenario FILE.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
cd "$root"
bash tools/dev/deps.sh
bash tools/dev/build.sh build/demo -DORV_BUILD_TESTS=OFF -DORV_BUILD_BENCH=OFF

work=$(mktemp -d)
visor_pid=""
cleanup() {
    [ -n "$visor_pid" ] && kill "$visor_pid" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

# The stand-in takes any free port and says which.
build/demo/tools/ocuvane-visor/ocuvane-visor --port 0 --no-input >"$work/visor.out" 2>"$work/visor.err" &
visor_pid=$!
port=""
for _ in $(seq 1 100); do
    port=$(sed -n 's/.*listening on 127\.0\.0\.1:\([0-9]*\).*/\1/p' "$work/visor.err" | head -n 1)
    [ -n "$port" ] && break
    kill -0 "$visor_pid" 2>/dev/null || break
    sleep 0.05
done
if [ -z "$port" ]; then
    echo "the magnifier stand-in did not start:" >&2
    cat "$work/visor.err" >&2
    exit 1
fi

echo "== the agent (log on standard error; focus areas it sends and what it says, as JSON lines) =="
build/demo/ocuvane-agent --desktop=sim --magnifier-port "$port" --print-focus --print-speech \
    --speech-settings speechEnabled=1,magnificationEnabled=1,focusEchoEnabled=1 --verbosity=3 "$@"
sleep 0.3
echo
echo "== what the magnifier received =="
cat "$work/visor.out"
