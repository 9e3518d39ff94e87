#!/usr/bin/env bash
# The peer tool against a client hub that plays the agent, over real loopback sockets:
# subscription, inquiry, focus areas, a pushed status change, a shutdown, a bad command, a busy
# port and the end of input. Usage: end-to-end.sh OCUVANE_VISOR OCUVANE_LINK_DEMO
set -euo pipefail
visor=$1
demo=$2
dir=$(mktemp -d)
vpid=
dpid=
cleanup() {
    for p in $vpid $dpid; do kill "$p" 2>/dev/null || true; done
    rm -rf "$dir"
}
trap cleanup EXIT

fail() {
    echo "end-to-end: $*" >&2
    exit 1
}

# Reads lines from a descriptor until one contains the text (10 s bound); the line is in $line.
expect() {
    local fd=$1 text=$2
    while IFS= read -r -t 10 -u "$fd" line; do
        case $line in *"$text"*) return 0 ;; esac
    done
    fail "never saw '$text'"
}

mkfifo "$dir/in" "$dir/err" "$dir/demo"
"$visor" --port 0 --json --set speechEnabled=1 --set echoRate=200 \
    <"$dir/in" >"$dir/out" 2>"$dir/err" &
vpid=$!
exec 3>"$dir/in" 4<"$dir/err"
expect 4 "listening on 127.0.0.1:"
port=${line##*:}

"$demo" --port "$port" --areas 3 >"$dir/demo" 2>&1 &
dpid=$!
exec 5<"$dir/demo"
expect 5 "subscription confirmed"
expect 5 "status speechEnabled=1 echoRate=200"
expect 5 "sent 3 focus areas"

echo "status speechEnabled 0" >&3
expect 5 "status changed speechEnabled: 1 -> 0"
echo "shutdown" >&3
expect 5 "shutdown received"
wait "$dpid" || fail "the demo client ended with status $?"
dpid=

echo "no-such-command" >&3
expect 4 "unknown command 'no-such-command'"

set +e
"$visor" --port "$port" </dev/null 2>"$dir/busy"
status=$?
set -e
[ "$status" -eq 1 ] || fail "a busy port gave status $status"
grep -q "cannot listen on 127.0.0.1:$port" "$dir/busy" || fail "no clean message for a busy port"

exec 3>&-
wait "$vpid" || fail "the visor ended with status $? at the end of input"
vpid=

[ "$(grep -c '"type":"focusArea"' "$dir/out")" -eq 3 ] || fail "expected 3 focus lines"
grep -q '"type":"focusArea","requestId":"ORVCommReq00000003","x":101,"y":-21,"width":300,"height":20,"edgeX":2,"edgeY":0,"source":1,' \
    "$dir/out" || fail "first focus line wrong: $(grep -m1 focusArea "$dir/out")"
grep -q '"kind":"ORVCommStatusSubscription","code":4120020,"requestId":"ORVCommReq00000001"' \
    "$dir/out" || fail "no subscription line"
grep -q '"kind":"ORVCommStatusInquiry","code":4120024' "$dir/out" || fail "no inquiry line"

"$visor" --help | grep -q -- "--json" || fail "--help does not describe --json"
echo "end-to-end: ok"
