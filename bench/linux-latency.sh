#!/usr/bin/env bash
# Focus-road speed on a real GTK 3 window, the agent beside a minimal AT-SPI listener: the GTK
# test window moves its focus COUNT times, INTERVAL ms apart; a UDP sink on loopback stands for
# the magnifier. For each follower, one after the other against the same focus sequence:
#   latency  from the moment GTK set the focus (the window's own monotonic time stamp) to the
#            arrival of the datagram with that widget's rectangle (p50, p90, p99);
#   CPU      the follower's utime+stime from /proc/PID/stat, from before the sequence until
#            SETTLE seconds after it (the link waits 5 s for a reply to each datagram, and its
#            timers fire after the last change), less the idle rate over that time, per focus
#            change; the same from /proc/PID/task/*/schedstat (nanoseconds, all threads alive);
#   idle     its CPU over IDLE seconds of steady focus after that, in % of one core.
#
# Usage: bench/linux-latency.sh [BUILD_DIR]   (default build/bench-linux, a Release build)
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

if [ -z "${ORV_DESKTOP_SESSION:-}" ]; then
    cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
    nice ninja -C "$build" ocuvane-agent orv-gtk-testapp orv-minimal-listener orv-focus-sink \
        >/dev/null
    exec bash "$root/tests/platform/linux/desktop-session.sh" --no-install -- \
        bash "$0" "$build"
fi

work=${ORV_BENCH_KEEP:-$(mktemp -d /tmp/orv-bench.XXXXXX)}
mkdir -p "$work"
pids=()
source "$root/bench/follower-lib.sh"
trap cleanup EXIT

start_window
read -r _ sx sy _ sh < <(grep '^screen ' "$work/app.out")
hz=$(getconf CLK_TCK)

# One follower: starts it against a fresh sink, runs the sequence, measures, stops it.
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
    # Up once a focus change reaches the sink (the agent drops the focus it finds at start).
    local tries=0
    until [ "$(grep -c ORVCommReq "$sink")" -gt 0 ]; do
        tries=$((tries + 1))
        if [ $tries -gt 40 ]; then echo "$name never sent a focus area" >&2; exit 1; fi
        echo "focus Second" >&3
        sleep 0.1
        echo "focus First" >&3
        sleep 0.1
    done
    echo "focus First" >&3
    sleep 0.5
    local from=$(($(wc -l <"$work/app.out") + 1))
    local before after t0 t1
    before=$(cpu "$pid")
    t0=$(date +%s.%N)
    echo "cycle $interval $count" >&3
    until [ "$(tail -n +"$from" "$work/app.out" | grep -c '^done')" -gt 0 ]; do sleep 0.1; done
    sleep "$settle"
    after=$(cpu "$pid")
    t1=$(date +%s.%N)
    tail -n +"$from" "$work/app.out" | grep '^focus ' >"$work/$tag.focus"
    # Steady focus.
    local idle0 idle1
    idle0=$(cpu "$pid")
    sleep "$idle"
    idle1=$(cpu "$pid")
    kill -TERM "$pid" "$sinkpid" 2>/dev/null || true
    wait "$pid" "$sinkpid" 2>/dev/null || true

    # Each focus change pairs with the first datagram after it that carries its rectangle, or,
    # for the agent, a text cursor mark inside it (text fields get the cursor, not the field).
    awk -v sh="$sh" -v sx="$sx" -v sy="$sy" -v out="$work/$tag.lat" '
        function key(x, y, w, h) { return (x - sx) ":" (sh - (y - sy) - h) ":" w ":" h }
        function within(i, k) {
            return dw[k] <= 2 && dx[k] >= fx[i] && dx[k] + dw[k] <= fx[i] + fw[i] &&
                   dy[k] >= fy[i] && dy[k] + dh[k] <= fy[i] + fh[i]
        }
        FNR == NR {
            n = NF
            ft[++nf] = $n; fk[nf] = key($(n - 4), $(n - 3), $(n - 2), $(n - 1))
            fx[nf] = $(n - 4) - sx; fy[nf] = sh - ($(n - 3) - sy) - $(n - 1)
            fw[nf] = $(n - 2); fh[nf] = $(n - 1)
            next
        }
        /ORVCommReq/ {
            split($2, f, ":")
            dt[++nd] = $1; dk[nd] = f[3] ":" f[4] ":" f[5] ":" f[6]
            dx[nd] = f[3]; dy[nd] = f[4]; dw[nd] = f[5]; dh[nd] = f[6]
        }
        END {
            j = 1; matched = 0; missed = 0
            for (i = 1; i <= nf; i++) {
                while (j <= nd && dt[j] < ft[i] - 500) j++
                found = 0
                # The same widgets come round every few hundred ms: a datagram later than this
                # belongs to another visit, and this change counts as missed.
                for (k = j; k <= nd && dt[k] <= ft[i] + 100000; k++)
                    if (dk[k] == fk[i] || within(i, k)) { found = k; break }
                if (found) { printf "%.3f\n", (dt[found] - ft[i]) / 1000 > out; j = found + 1 }
                else missed++
            }
            print nf, missed, nd
        }
    ' "$work/$tag.focus" "$sink" >"$work/$tag.counts"
    local nf missed nd
    read -r nf missed nd <"$work/$tag.counts"
    # Nearest-rank percentiles of the matched ones.
    local p50 p90 p99
    read -r p50 p90 p99 < <(percentiles "$work/$tag.lat")
    append_result "$name" "$nf" "$missed" "$nd" "$p50" "$p90" "$p99" "$before" "$after" "$t0" \
        "$t1" "$idle0" "$idle1"
}

: >"$work/results"
for round in $(seq "$rounds"); do
    echo "round $round of $rounds" >&2
    run agent "$build/ocuvane-agent" --desktop=linux --magnifier-port @PORT@
    run minimal "$build/bench/orv-minimal-listener" @PORT@ "$sh" "$sx" "$sy"
done
echo
echo "Focus road on a GTK 3 window: $count focus changes, $interval ms apart, $rounds rounds;"
echo "magnifier on loopback"
echo "(latency: from GTK setting the focus to the datagram's arrival. CPU per change: all threads,"
echo " from before the changes to $settle s after them, less the idle rate; /proc/PID/stat"
echo " utime+stime in ticks of 1/$hz s, and schedstat in ns; gross: schedstat without taking the"
echo " idle rate off. Idle: schedstat over $idle s of steady focus, % of one core)"
echo
printf '%-9s %7s %7s %6s %8s %8s %8s %11s %11s %11s %8s\n' follower changes matched missed \
    'p50 ms' 'p90 ms' 'p99 ms' 'CPU/chg µs' '(schedstat)' '(gross)' 'idle %'
while read -r name nf matched missed nd p50 p90 p99 ticks ns idlePct gross; do
    printf '%-9s %7d %7d %6d %8.3f %8.3f %8.3f %11.0f %11.0f %11.0f %8.3f\n' "$name" "$nf" \
        "$matched" "$missed" "$p50" "$p90" "$p99" "$ticks" "$ns" "$gross" "$idlePct"
done <"$work/results"
# Medians over the rounds (column 10 is the schedstat figure net of idle), and their ratios.
awk '
    function median(list,    v, n, i, j, t) {
        n = split(list, v, " ")
        for (i = 2; i <= n; i++) for (j = i; j > 1 && v[j - 1] + 0 > v[j] + 0; j--) {
            t = v[j]; v[j] = v[j - 1]; v[j - 1] = t
        }
        return n % 2 ? v[(n + 1) / 2] : (v[n / 2] + v[n / 2 + 1]) / 2
    }
    { p50[$1] = p50[$1] " " $6; p90[$1] = p90[$1] " " $7; p99[$1] = p99[$1] " " $8
      cpu[$1] = cpu[$1] " " $10; idle[$1] = idle[$1] " " $11 }
    END {
        print "\nmedian of the rounds:"
        for (f in p50)
            printf "%-9s p50 %.3f ms, p90 %.3f ms, p99 %.3f ms, CPU per change %.0f µs, idle %.3f %%\n",
                f, median(p50[f]), median(p90[f]), median(p99[f]), median(cpu[f]), median(idle[f])
        if (median(p50["minimal"]) > 0 && median(cpu["minimal"]) > 0)
            printf "agent / minimal: p50 latency %.2fx, CPU per change %.2fx\n",
                median(p50["agent"]) / median(p50["minimal"]), median(cpu["agent"]) / median(cpu["minimal"])
    }
' "$work/results"
if [ -n "${ORV_BENCH_KEEP:-}" ]; then echo "raw logs in $work"; fi
exit 0
