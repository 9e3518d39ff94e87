#!/usr/bin/env bash
# Focus echo speed on a real GTK 3 window: the GTK test window moves its focus COUNT times,
# INTERVAL ms apart (a user tabbing along: an echo either ends or is cut by the next change).
# For each engine, the agent speaking with it runs side by side with one given --speech=none and
# no --speech-settings, against the same sequence, each with its own UDP sink:
#   speechd --speech=speech-dispatcher (the session's private daemon, on ALSA's null device);
#   espeak  --speech=espeak-ng rendering to WAV files (ORV_ESPEAK_WAV_DIR), which keeps the pace
#           of a sound device; playing into the null device does not (an echo "ends" within a
#           few ms, so none would be cut);
# the speaking one with focus echo on, both with --print-speech. Measured:
#   say      from the moment GTK set the focus (the window's monotonic time stamp) to the `say`
#            line of the first piece handed to the engine before the next change. The agent
#            prints g_get_monotonic_time() in seconds to the millisecond, the window's clock.
#            Nothing is subtracted: 100 ms of it is the echo's designed delay;
#   CPU      each agent's utime+stime (/proc/PID/stat, ticks) and schedstat (all live threads,
#            ns) from before the sequence until SETTLE s after it, less its idle rate (IDLE s of
#            steady focus after), per focus change; the main thread and the others apart
#            (espeak-ng synthesises on its own thread inside the agent), and the speech daemon
#            with its module. Side by side, both see the same events under the same load: a
#            machine shared with other work moves an agent's CPU per change by a millisecond
#            from one run to the next, as much as what is measured;
#   first audio  not printed by the agent, so measured by bench/speech-first-audio.c, which says
#            the texts the agent said, in order and INTERVAL ms apart: the daemon's BEGIN event,
#            and espeak-ng's first chunk plus the offset of its first sample of at least
#            THRESHOLD (both from the moment the engine took the text). For the agent's own
#            espeak-ng echoes that ended unhurried, the same from its WAV files: the `end` time
#            less the audio after that sample.
#
# Usage: bench/linux-speech.sh [BUILD_DIR]   (default build/bench-linux, a Release build)
# Environment: ORV_BENCH_COUNT (50), ORV_BENCH_INTERVAL_MS (400), ORV_BENCH_ROUNDS (4; each round
# runs both engines, in turns first), ORV_BENCH_SETTLE_S (2.5), ORV_BENCH_IDLE_S (3),
# ORV_BENCH_THRESHOLD (328, -40 dBFS), ORV_BENCH_KEEP (a directory to keep the raw logs in).
# Outside a desktop session it re-runs itself inside tests/platform/linux/desktop-session.sh.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build/bench-linux}
count=${ORV_BENCH_COUNT:-50}
interval=${ORV_BENCH_INTERVAL_MS:-400}
rounds=${ORV_BENCH_ROUNDS:-4}
settle=${ORV_BENCH_SETTLE_S:-2.5}
idle=${ORV_BENCH_IDLE_S:-3}
threshold=${ORV_BENCH_THRESHOLD:-328}
client=$build/bench/orv-speech-first-audio

if [ -z "${ORV_DESKTOP_SESSION:-}" ]; then
    cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
    nice ninja -C "$build" ocuvane-agent orv-gtk-testapp orv-focus-sink >/dev/null
    # Built here: the engines' libraries are the only ones it needs.
    # shellcheck disable=SC2046
    cc -O2 -Wall -o "$client" "$root/bench/speech-first-audio.c" \
        $(pkg-config --cflags --libs speech-dispatcher espeak-ng) -lpthread
    exec bash "$root/tests/platform/linux/desktop-session.sh" --no-install -- \
        bash "$0" "$build"
fi
if [ -z "${SPEECHD_ADDRESS:-}" ]; then
    echo "no speech daemon in this session (see tests/platform/linux/desktop-session.sh)" >&2
    exit 1
fi

work=${ORV_BENCH_KEEP:-$(mktemp -d /tmp/orv-speech-bench.XXXXXX)}
mkdir -p "$work"
pids=()
source "$root/bench/follower-lib.sh"
trap cleanup EXIT

start_window
hz=$(getconf CLK_TCK)
speechd_dir=$(dirname "${SPEECHD_ADDRESS#unix_socket:}")
settings=speechEnabled=1,magnificationEnabled=1,focusEchoEnabled=1

# The speech daemon and its modules (started at the first utterance).
speechd_pids() {
    local p
    p=$(cat "$speechd_dir/speechd.pid")
    echo "$p" "$(ps -o pid= --ppid "$p" | xargs)"
}

# Their schedstat nanoseconds, summed over their live threads.
speechd_ns() {
    local sum=0 p f ns
    for p in $1; do
        for f in /proc/"$p"/task/*/schedstat; do
            if read -r ns _ 2>/dev/null <"$f"; then sum=$((sum + ns)); fi
        done
    done
    echo "$sum"
}

# Starts one agent against a fresh sink: NAME TAG; sets `pid` and `sink`.
start_agent() {
    local name=$1 tag=$2
    sink="$work/$tag.sink"
    "$build/bench/orv-focus-sink" >"$sink" &
    pids+=($!)
    sinks+=($!)
    await "$sink" '^port '
    local port
    port=$(awk '/^port /{ print $2; exit }' "$sink")
    local env=() args=(--desktop=linux --magnifier-port "$port" --print-speech)
    case $name in
        off) args+=(--speech=none) ;;
        speechd) args+=(--speech=speech-dispatcher --speech-settings "$settings") ;;
        espeak)
            env=(ORV_ESPEAK_WAV_DIR="$work/$tag.wav")
            args+=(--speech=espeak-ng --speech-settings "$settings")
            ;;
    esac
    env "${env[@]}" "$build/ocuvane-agent" "${args[@]}" >"$work/$tag.out" 2>"$work/$tag.err" &
    pid=$!
    pids+=("$pid")
}

# One engine: the agent speaking with it and the agent with --speech=none, side by side against
# the same sequence (both see the same events under the same load, so the difference in their CPU
# is speech's), each on its own sink; measures both, stops them.
run() {
    local engine=$1 pid sink sinks=() k
    local names=(off "$engine") tags=("off-$engine.$round" "$engine.$round") agents=() sinkFiles=()
    for k in 0 1; do
        start_agent "${names[$k]}" "${tags[$k]}"
        agents+=("$pid")
        sinkFiles+=("$sink")
    done
    # Up once a focus change reaches each sink (the agent drops the focus it finds at start); the
    # echoes of these changes also bring the daemon's connection up.
    local tries=0
    until [ "$(grep -c ORVCommReq "${sinkFiles[0]}")" -gt 0 ] &&
        [ "$(grep -c ORVCommReq "${sinkFiles[1]}")" -gt 0 ]; do
        tries=$((tries + 1))
        if [ $tries -gt 40 ]; then echo "an agent never sent a focus area" >&2; exit 1; fi
        echo "focus Second" >&3
        sleep 0.1
        echo "focus First" >&3
        sleep 0.1
    done
    echo "focus First" >&3
    sleep 1
    local daemon
    daemon=$(speechd_pids)
    # shellcheck disable=SC2086
    await_quiet 30 "${agents[@]}" $daemon
    local from=$(($(wc -l <"$work/app.out") + 1))
    local saysFrom=$(($(wc -l <"$work/${tags[1]}.out") + 1))
    local snap="$work/${tags[1]}.cpu" d0 d1 t0 t1
    for k in 0 1; do cpu_snapshot "${agents[$k]}" "$snap.$k.0"; done
    d0=$(speechd_ns "$daemon")
    t0=$(date +%s.%N)
    echo "cycle $interval $count" >&3
    until [ "$(tail -n +"$from" "$work/app.out" | grep -c '^done')" -gt 0 ]; do sleep 0.1; done
    sleep "$settle"
    for k in 0 1; do cpu_snapshot "${agents[$k]}" "$snap.$k.1"; done
    d1=$(speechd_ns "$daemon")
    t1=$(date +%s.%N)
    tail -n +"$from" "$work/app.out" | grep '^focus ' >"$work/$engine.$round.focus"
    sleep "$idle"
    for k in 0 1; do cpu_snapshot "${agents[$k]}" "$snap.$k.2"; done
    kill -TERM "${agents[@]}" "${sinks[@]}" 2>/dev/null || true
    wait "${agents[@]}" "${sinks[@]}" 2>/dev/null || true

    # Each change pairs with the first `say` after it and before the next change (the last one:
    # within one interval).
    local tag=${tags[1]}
    tail -n +"$saysFrom" "$work/$tag.out" | grep '"say"' >"$work/$tag.says" || true
    awk -v interval="$interval" -v out="$work/$tag.lat" -v texts="$work/$tag.texts" '
        FNR == NR { ft[++nf] = $NF; next }
        match($0, /"time":[0-9.]+/) {
            st[++ns] = substr($0, RSTART + 7, RLENGTH - 7) * 1e6
            t = $0; sub(/.*"say":"/, "", t); sub(/","voice".*/, "", t); sx[ns] = t
        }
        END {
            j = 1; said = 0
            for (i = 1; i <= nf; i++) {
                limit = i < nf ? ft[i + 1] : ft[i] + interval * 1000
                while (j <= ns && st[j] < ft[i]) j++
                if (j <= ns && st[j] < limit) {
                    printf "%.3f\n", (st[j] - ft[i]) / 1000 > out
                    print sx[j] > texts
                    said++
                }
            }
            print nf, nf - said, ns
        }
    ' "$work/$engine.$round.focus" "$work/$tag.says" >"$work/$tag.counts"
    touch "$work/$tag.lat" "$work/$tag.texts"
    local nf silent ns_says p50 p90 p99 tk ns
    read -r nf silent ns_says <"$work/$tag.counts"
    cp "$work/$tag.lat" "$work/$tag.lat.sorted"
    read -r p50 p90 p99 < <(percentiles "$work/$tag.lat.sorted")
    for k in 0 1; do
        # append_result takes two readings of "ticks ns"; given zero and the differences.
        local span idleSpan main other
        read -r tk ns main other < <(cpu_delta "${agents[$k]}" "$snap.$k.0" "$snap.$k.1")
        span="$tk $ns"
        read -r tk ns _ < <(cpu_delta "${agents[$k]}" "$snap.$k.1" "$snap.$k.2")
        idleSpan="$tk $ns"
        if [ "$k" = 0 ]; then
            append_result "off/$engine" "$nf" "$nf" 0 0 0 0 "0 0" "$span" "$t0" "$t1" "0 0" \
                "$idleSpan"
        else
            append_result "$engine" "$nf" "$silent" "$ns_says" "$p50" "$p90" "$p99" "0 0" "$span" \
                "$t0" "$t1" "0 0" "$idleSpan"
        fi
        # Main thread, other threads and the daemon, gross, per change (µs); the daemon's figure
        # belongs to the speaking agent's row.
        awk -v n="$nf" -v main="$main" -v other="$other" -v d0="$d0" -v d1="$d1" -v k="$k" 'BEGIN {
            printf " %.0f %.0f %s\n", main / 1000 / n, other / 1000 / n,
                k ? sprintf("%.0f", (d1 - d0) / 1000 / n) : "-" }' >"$work/results.tmp"
        paste -d '' <(tail -n 1 "$work/results") "$work/results.tmp" >>"$work/results.full"
    done
    rm "$work/results.tmp"

    # The agent's own espeak-ng files: one per `say` (warm-up ones too), numbered in order.
    if [ "$engine" = espeak ]; then
        grep -E '"(say|end)"' "$work/$tag.out" >"$work/$tag.speech"
        python3 "$root/bench/speech-wav-onset.py" "$threshold" "$work/$tag.wav"/utterance-*.wav \
            >"$work/$tag.onsets"
        # A finished echo's end came when its last sample had played: its first audible sample
        # played (samples after it) / rate before that.
        awk -v out="$work/espeak.direct" '
            FNR == NR { samples[FNR] = $2; rate[FNR] = $3; first[FNR] = $4; next }
            /"say"/ { k++; match($0, /"time":[0-9.]+/); say = substr($0, RSTART + 7, RLENGTH - 7) }
            /"end":"finished"/ && k && first[k] >= 0 {
                match($0, /"time":[0-9.]+/); end = substr($0, RSTART + 7, RLENGTH - 7)
                printf "%.1f\n", (end - (samples[k] - first[k]) / rate[k] - say) * 1000 >> out
            }
        ' "$work/$tag.onsets" "$work/$tag.speech"
    fi
}

# The engine alone, on the texts the agent said in its last run, in the same order and spacing.
first_audio() {
    local name=$1 texts="$work/$1.$rounds.texts"
    if [ "$name" = speechd ]; then
        # The agent's rate for 180 wpm on the daemon's scale (docs/speech-engines.md).
        "$client" speechd "$interval" 4 <"$texts" >"$work/$name.first"
    else
        "$client" espeak "$interval" 180 gmw/en "$threshold" <"$texts" >"$work/$name.first"
    fi
    awk '$3 != "-" { printf "%.3f\n", ($3 - $2) / 1000 }' "$work/$name.first" >"$work/$name.fa"
    # Paired with the agent's say latency for the same text: an estimate of focus to first audio.
    paste -d ' ' "$work/$name.$rounds.lat" "$work/$name.first" |
        awk '$4 != "-" && NF == 4 { printf "%.3f\n", $1 + ($4 - $3) / 1000 }' >"$work/$name.total"
}

: >"$work/results"
: >"$work/results.full"
for round in $(seq "$rounds"); do
    echo "round $round of $rounds" >&2
    if [ $((round % 2)) = 1 ]; then run speechd; run espeak; else run espeak; run speechd; fi
done
echo "first audio: the engines alone" >&2
first_audio speechd
first_audio espeak

echo
echo "Focus echo on a GTK 3 window: $count focus changes, $interval ms apart, $rounds rounds"
echo "(say: from GTK setting the focus to the agent's say line, 100 ms of it the echo's designed"
echo " delay. CPU per change in µs: from before the changes to $settle s after them, less the idle"
echo " rate over $idle s; ticks of 1/$hz s and schedstat ns; gross, main thread, other threads and"
echo " the speech daemon with its module: schedstat without taking the idle rate off)"
echo
printf '%-11s %5s %6s %6s %8s %8s %8s %7s %7s %7s %7s %7s %7s %7s\n' config chg silent says \
    'p50 ms' 'p90 ms' 'p99 ms' ticks sched gross main others daemon 'idle %'
while read -r name nf _ silent ns p50 p90 p99 ticks sched idlePct gross main others daemon; do
    printf '%-11s %5d %6d %6d %8.3f %8.3f %8.3f %7.0f %7.0f %7.0f %7.0f %7.0f %7s %7.3f\n' \
        "$name" "$nf" "$silent" "$ns" "$p50" "$p90" "$p99" "$ticks" "$sched" "$gross" "$main" \
        "$others" "$daemon" "$idlePct"
done <"$work/results.full"

echo
echo "say latency, all rounds pooled (nearest rank):"
for name in speechd espeak; do
    cat "$work/$name".*.lat >"$work/$name.lat.all"
    read -r p50 p90 p99 < <(percentiles "$work/$name.lat.all")
    printf '  %-8s %4d echoes: p50 %.3f ms, p90 %.3f ms, p99 %.3f ms\n' "$name" \
        "$(wc -l <"$work/$name.lat.all")" "$p50" "$p90" "$p99"
done

echo
echo "CPU per change added by speech (schedstat net of idle, each round against off in that round;"
echo " then the medians of the gross main thread and other threads against off's):"
awk -v count="$count" '
    function median(v, n,    i, j, t) {
        for (i = 2; i <= n; i++) for (j = i; j > 1 && v[j - 1] > v[j]; j--) {
            t = v[j]; v[j] = v[j - 1]; v[j - 1] = t
        }
        return n % 2 ? v[(n + 1) / 2] : (v[n / 2] + v[n / 2 + 1]) / 2
    }
    { r = ++seen[$1]; cpu[$1, r] = $10; main[$1, r] = $13; others[$1, r] = $14; says[$1] += $5 }
    END {
        n = seen["speechd"]
        for (e = 1; e <= 2; e++) {
            name = e == 1 ? "speechd" : "espeak"
            lo = 1e18; hi = -1e18; list = ""
            for (r = 1; r <= n; r++) {
                d = cpu[name, r] - cpu["off/" name, r]
                list = list sprintf(" %+.0f", d); v[r] = d
                if (d < lo) lo = d; if (d > hi) hi = d
                m[r] = main[name, r] - main["off/" name, r]; o[r] = others[name, r] - others["off/" name, r]
            }
            med = median(v, n)
            verdict = "over 1 ms"
            if (med <= 1000) verdict = "within 1 ms at the median, not in every round"
            if (hi <= 1000) verdict = "within 1 ms in every round"
            printf "  %-8s rounds:%s µs; median %+.0f µs (from %+.0f to %+.0f): %s\n", name, list,
                med, lo, hi, verdict
            printf "  %-8s main thread %+.0f µs, other threads %+.0f µs; %.1f echoes per 10 changes\n",
                "", median(m, n), median(o, n), says[name] / (n * count) * 10
        }
    }
' "$work/results.full"

echo
echo "first audio, the engine alone on the same texts (from the engine taking the text):"
for name in speechd espeak; do
    what=$([ "$name" = speechd ] && echo "BEGIN event" || echo "first sample >= $threshold")
    if [ -s "$work/$name.fa" ]; then
        cp "$work/$name.fa" "$work/$name.fa.sorted"
        read -r p50 p90 p99 < <(percentiles "$work/$name.fa.sorted")
        printf '  %-8s %s, %d of %d: p50 %.3f ms, p90 %.3f ms, p99 %.3f ms\n' "$name" "$what" \
            "$(wc -l <"$work/$name.fa")" "$(wc -l <"$work/$name.first")" "$p50" "$p90" "$p99"
    else
        printf '  %-8s %s: none came\n' "$name" "$what"
    fi
    if [ -s "$work/$name.total" ]; then
        read -r p50 p90 p99 < <(percentiles "$work/$name.total")
        printf '  %-8s   + the agent'\''s say latency, text by text (round %d): p50 %.3f ms, p99 %.3f ms\n' \
            "" "$rounds" "$p50" "$p99"
    fi
done
if [ -s "$work/espeak.direct" ]; then
    read -r p50 p90 p99 < <(percentiles "$work/espeak.direct")
    printf '  espeak   the agent'\''s own WAV files, echoes that ended unhurried (%d): say to first\n' \
        "$(wc -l <"$work/espeak.direct")"
    printf '           sample p50 %.1f ms, p99 %.1f ms\n' "$p50" "$p99"
fi
if [ -n "${ORV_BENCH_KEEP:-}" ]; then echo "raw logs in $work"; fi
exit 0
