#!/usr/bin/env bash
# Text-cursor road speed on a real GTK 3 window, the agent beside a minimal AT-SPI caret
# listener: the GTK test window moves the cursor in its text area "Notes" COUNT times, INTERVAL ms
# apart, through every place of a three-line text (middles, starts and ends of lines, after each
# new line, the end of the text); a UDP sink on loopback stands for the magnifier. For each
# follower, one after the other against the same walk:
#   latency  from the moment GTK moved the cursor (the window's own monotonic time stamp) to the
#            arrival of the first datagram whose rectangle lies within 2 px of GTK's cursor
#            rectangle (x and y; at most 2 px wide) (p50, p90, p99);
#   CPU      the follower's utime+stime from /proc/PID/stat, from before the walk until SETTLE
#            seconds after it, less the idle rate over that time, per move; the same from
#            /proc/PID/task/*/schedstat (nanoseconds, all threads alive);
#   idle     its CPU over IDLE seconds of a steady cursor after that, in % of one core.
#
# Usage: bench/linux-caret.sh [BUILD_DIR]   (default build/bench-linux, a Release build)
# Environment: ORV_BENCH_COUNT (500), ORV_BENCH_INTERVAL_MS (20), ORV_BENCH_IDLE_S (20),
# ORV_BENCH_SETTLE_S (6), ORV_BENCH_ROUNDS (3: agent then minimal, each round; the summary gives
# the median of the rounds), ORV_BENCH_KEEP (a directory to keep the raw logs in).
# Outside a desktop session it re-runs itself inside tests/platform/linux/desktop-session.sh.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build/bench-linux}
count=${ORV_BENCH_COUNT:-500}
interval=${ORV_BENCH_INTERVAL_MS:-20}
idle=${ORV_BENCH_IDLE_S:-20}
rounds=${ORV_BENCH_ROUNDS:-3}
settle=${ORV_BENCH_SETTLE_S:-6}
# No empty line and no final new line: there the agent places the cursor by the line before on
# purpose (the minimal listener, after a final new line, by the new line's right edge), not on
# GTK's cursor, and the move would count as missed.
text='The quick brown fox\njumps over\nthe lazy dog'

if [ -z "${ORV_DESKTOP_SESSION:-}" ]; then
    cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
    nice ninja -C "$build" ocuvane-agent orv-gtk-testapp orv-minimal-caret-listener \
        orv-focus-sink >/dev/null
    exec bash "$root/tests/platform/linux/desktop-session.sh" --no-install -- \
        bash "$0" "$build"
fi

work=${ORV_BENCH_KEEP:-$(mktemp -d /tmp/orv-caret-bench.XXXXXX)}
mkdir -p "$work"
pids=()
source "$root/bench/follower-lib.sh"
trap cleanup EXIT

start_window
read -r _ sx sy _ sh < <(grep '^screen ' "$work/app.out")
hz=$(getconf CLK_TCK)
echo "notes $text" >&3

# One follower: starts it against a fresh sink, runs the walk, measures, stops it.
run() {
    local name=$1 tag="$1.$round"
    shift
    local sink="$work/$tag.sink"
    "$build/bench/orv-focus-sink" >"$sink" &
    local sinkpid=$!
    pids+=($sinkpid)
    await "$sink" '^port '
    local port
    port=$(awk '/^port /{ print $2; exit }' "$sink")
    local args=() a
    for a in "$@"; do args+=("${a//@PORT@/$port}"); done
    "${args[@]}" >"$work/$tag.out" 2>"$work/$tag.err" &
    local pid=$!
    pids+=($pid)
    # Up once a cursor move reaches the sink (the agent drops the focus it finds at start).
    local tries=0
    until [ "$(grep -c ORVCommReq "$sink")" -gt 0 ]; do
        tries=$((tries + 1))
        if [ $tries -gt 40 ]; then echo "$name never sent a cursor area" >&2; exit 1; fi
        echo "caret Notes 1" >&3
        sleep 0.1
        echo "caret Notes 2" >&3
        sleep 0.1
    done
    echo "caret Notes 0" >&3
    sleep 0.5
    local from=$(($(wc -l <"$work/app.out") + 1))
    local before after t0 t1
    before=$(cpu "$pid")
    t0=$(date +%s.%N)
    echo "caret-cycle $interval $count" >&3
    until [ "$(tail -n +"$from" "$work/app.out" | grep -c '^done')" -gt 0 ]; do sleep 0.1; done
    sleep "$settle"
    after=$(cpu "$pid")
    t1=$(date +%s.%N)
    tail -n +"$from" "$work/app.out" | grep '^caret Notes ' >"$work/$tag.caret"
    # Steady cursor.
    local idle0 idle1
    idle0=$(cpu "$pid")
    sleep "$idle"
    idle1=$(cpu "$pid")
    kill -TERM "$pid" "$sinkpid" 2>/dev/null || true
    wait "$pid" "$sinkpid" 2>/dev/null || true

    # Each move pairs with the first datagram after it whose rectangle lies within 2 px of GTK's
    # cursor, turned to the bottom-left origin.
    awk -v sh="$sh" -v sx="$sx" -v sy="$sy" -v out="$work/$tag.lat" '
        function near(a, b) { return a - b <= 2 && b - a <= 2 }
        FNR == NR {
            # caret Notes OFFSET X Y W H T
            ct[++nc] = $8; cx[nc] = $4 - sx; cy[nc] = sh - ($5 - sy) - $7
            next
        }
        /ORVCommReq/ {
            split($2, f, ":")
            dt[++nd] = $1; dx[nd] = f[3]; dy[nd] = f[4]; dw[nd] = f[5]
        }
        END {
            j = 1; missed = 0
            for (i = 1; i <= nc; i++) {
                while (j <= nd && dt[j] < ct[i] - 500) j++
                found = 0
                # The walk comes back to each place every second or so: a datagram later than
                # this belongs to another visit, and this move counts as missed.
                for (k = j; k <= nd && dt[k] <= ct[i] + 100000; k++)
                    if (dw[k] <= 2 && near(dx[k], cx[i]) && near(dy[k], cy[i])) { found = k; break }
                if (found) { printf "%.3f\n", (dt[found] - ct[i]) / 1000 > out; j = found + 1 }
                else missed++
            }
            print nc, missed, nd
        }
    ' "$work/$tag.caret" "$sink" >"$work/$tag.counts"
    local nc missed nd
    read -r nc missed nd <"$work/$tag.counts"
    touch "$work/$tag.lat"
    # Nearest-rank percentiles of the matched ones.
    local p50 p90 p99
    read -r p50 p90 p99 < <(percentiles "$work/$tag.lat")
    append_result "$name" "$nc" "$missed" "$nd" "$p50" "$p90" "$p99" "$before" "$after" "$t0" \
        "$t1" "$idle0" "$idle1"
}

: >"$work/results"
for round in $(seq "$rounds"); do
    echo "round $round of $rounds" >&2
    run agent "$build/ocuvane-agent" --desktop=linux --magnifier-port @PORT@
    run minimal "$build/bench/orv-minimal-caret-listener" @PORT@ "$sh" "$sx" "$sy"
done
echo
echo "Text cursor road on a GTK 3 text area: $count cursor moves, $interval ms apart, $rounds rounds;"
echo "magnifier on loopback"
echo "(latency: from GTK moving the cursor to the arrival of the datagram within 2 px of it. CPU"
echo " per move: all threads, from before the moves to $settle s after them, less the idle rate;"
echo " /proc/PID/stat utime+stime in ticks of 1/$hz s, and schedstat in ns; gross: schedstat"
echo " without taking the idle rate off. Idle: schedstat over $idle s of a steady cursor, % of one"
echo " core)"
echo
printf '%-9s %7s %7s %6s %9s %8s %8s %8s %11s %11s %11s %8s\n' follower moves matched missed \
    datagrams 'p50 ms' 'p90 ms' 'p99 ms' 'CPU/move µs' '(schedstat)' '(gross)' 'idle %'
while read -r name nc matched missed nd p50 p90 p99 ticks ns idlePct gross; do
    printf '%-9s %7d %7d %6d %9d %8.3f %8.3f %8.3f %11.0f %11.0f %11.0f %8.3f\n' "$name" "$nc" \
        "$matched" "$missed" "$nd" "$p50" "$p90" "$p99" "$ticks" "$ns" "$gross" "$idlePct"
done <"$work/results"
# Medians over the rounds (column 10 is the schedstat figure net of idle), and their ratios
# against the targets.
awk '
    function median(list,    v, n, i, j, t) {
        n = split(list, v, " ")
        for (i = 2; i <= n; i++) for (j = i; j > 1 && v[j - 1] + 0 > v[j] + 0; j--) {
            t = v[j]; v[j] = v[j - 1]; v[j - 1] = t
        }
        return n % 2 ? v[(n + 1) / 2] : (v[n / 2] + v[n / 2 + 1]) / 2
    }
    function ratio(what, a, b, target) {
        if (b <= 0) return
        printf "  %-15s %.2fx (target at most %.2fx: %s)\n", what, a / b, target,
            a / b <= target ? "met" : "not met"
    }
    { p50[$1] = p50[$1] " " $6; p90[$1] = p90[$1] " " $7; p99[$1] = p99[$1] " " $8
      cpu[$1] = cpu[$1] " " $10; idle[$1] = idle[$1] " " $11 }
    END {
        print "\nmedian of the rounds:"
        for (f in p50)
            printf "%-9s p50 %.3f ms, p90 %.3f ms, p99 %.3f ms, CPU per move %.0f µs, idle %.3f %%\n",
                f, median(p50[f]), median(p90[f]), median(p99[f]), median(cpu[f]), median(idle[f])
        print "agent / minimal:"
        ratio("p50 latency", median(p50["agent"]), median(p50["minimal"]), 1.25)
        ratio("p99 latency", median(p99["agent"]), median(p99["minimal"]), 1.25)
        ratio("CPU per move", median(cpu["agent"]), median(cpu["minimal"]), 1.5)
    }
' "$work/results"
if [ -n "${ORV_BENCH_KEEP:-}" ]; then echo "raw logs in $work"; fi
exit 0
