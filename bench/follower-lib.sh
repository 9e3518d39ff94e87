# Shared by bench/linux-latency.sh and bench/linux-caret.sh (sourced; not run on its own). Both
# set `work`, `pids`, `hz` and `idle` before calling these.

cleanup() {
    local p
    for p in "${pids[@]}"; do kill -CONT "$p" 2>/dev/null || true; kill -TERM "$p" 2>/dev/null || true; done
    for p in "${pids[@]}"; do wait "$p" 2>/dev/null || true; done
    [ -n "${ORV_BENCH_KEEP:-}" ] || rm -rf "$work"
}

# Waits until FILE has a line matching PATTERN (bounded).
await() {
    local file=$1 pattern=$2 n=0
    until grep -q -- "$pattern" "$file" 2>/dev/null; do
        n=$((n + 1))
        if [ $n -gt 200 ]; then echo "timed out waiting for '$pattern' in $file" >&2; exit 1; fi
        sleep 0.05
    done
}

# CPU of a process and its threads: "ticks nanoseconds".
cpu() {
    local pid=$1 ticks ns=0 f t
    ticks=$(awk '{ print $14 + $15 }' "/proc/$pid/stat")
    # A thread may end between the listing and the read.
    for f in /proc/"$pid"/task/*/schedstat; do
        if read -r t _ 2>/dev/null <"$f"; then ns=$((ns + t)); fi
    done
    echo "$ticks $ns"
}

# Sorts the latencies in FILE (ms, one a line) and prints their nearest-rank p50 p90 p99.
percentiles() {
    sort -n "$1" -o "$1"
    awk '{ v[NR] = $1 } END {
        for (q = 1; q <= 3; q++) {
            split("50 90 99", qs, " "); r = int(qs[q] / 100 * NR + 0.999999); if (r < 1) r = 1
            printf "%s ", v[r] + 0
        }
        print "" }' "$1"
}

# One follower's line of $work/results:
#   NAME EVENTS MISSED DATAGRAMS P50 P90 P99 CPU0 CPU1 T0 T1 IDLE0 IDLE1
# CPUn and IDLEn are `cpu` answers ("ticks ns") around the events and around the steady span.
append_result() {
    awk -v name="$1" -v n="$2" -v missed="$3" -v nd="$4" -v p50="$5" -v p90="$6" -v p99="$7" \
        -v cpu0="$8" -v cpu1="$9" -v t0="${10}" -v t1="${11}" -v idle0="${12}" -v idle1="${13}" \
        -v hz="$hz" -v idles="$idle" 'BEGIN {
        split(cpu0, a); split(cpu1, b); split(idle0, c); split(idle1, d)
        # Idle share of the measured span, in seconds of CPU, by either clock.
        span = t1 - t0
        idleTicks = (d[1] - c[1]) / hz / idles * span
        idleNs = (d[2] - c[2]) / 1e9 / idles * span
        printf "%s %d %d %d %d %s %s %s %.0f %.0f %.3f %.0f\n", name, n, n - missed, missed, nd,
            p50, p90, p99, ((b[1] - a[1]) / hz - idleTicks) * 1e6 / n,
            ((b[2] - a[2]) / 1e9 - idleNs) * 1e6 / n, (d[2] - c[2]) / 1e9 / idles * 100,
            (b[2] - a[2]) / 1000 / n }' >>"$work/results"
}

# CPU of a process at this moment, into FILE: its utime+stime ticks (exited threads included) on
# the first line, then "TID NS" for each live thread. Threads may end while being read.
cpu_snapshot() {
    local pid=$1 file=$2 f t ns
    {
        awk '{ print $14 + $15 }' "/proc/$pid/stat"
        for f in /proc/"$pid"/task/*/schedstat; do
            t=${f%/schedstat}
            t=${t##*/}
            if read -r ns _ 2>/dev/null <"$f"; then echo "$t $ns"; fi
        done
    } >"$file" 2>/dev/null || true
}

# Between two snapshots of PID: "ticks ns mainNs otherNs", ns summed thread by thread over the
# threads alive at the second (a thread that ended between them would otherwise take its whole
# past off the sum; one born between them counts from zero).
cpu_delta() {
    awk -v pid="$1" 'FNR == 1 { t[++f] = $1; next }
        f == 1 { before[$1] = $2; next }
        { d = $2 - before[$1]; all += d; if ($1 == pid) main += d }
        END { printf "%d %d %d %d\n", t[2] - t[1], all, main, all - main }' "$2" "$3"
}

# Waits until the processes given use under 1% of a core together over half a second (start-up
# work done, such as a daemon listing its voices for the agent), at most LIMIT seconds; says so
# on standard error when they never settle.
await_quiet() {
    local limit=$1 a b n=0 p f sum ns
    shift
    a=-1
    while [ $n -lt $((limit * 2)) ]; do
        sum=0
        for p in "$@"; do
            for f in /proc/"$p"/task/*/schedstat; do
                if read -r ns _ 2>/dev/null <"$f"; then sum=$((sum + ns)); fi
            done
        done
        b=$sum
        if [ "$a" -ge 0 ] && [ $((b - a)) -lt 5000000 ]; then return 0; fi
        a=$b
        sleep 0.5
        n=$((n + 1))
    done
    echo "processes $* still busy after $limit s; measuring anyway" >&2
}

# Starts the GTK test window reporting its focus into $work/app.out, its commands written to
# descriptor 3, and waits until it is ready.
start_window() {
    mkfifo "$work/app.in"
    "$build/tests/orv-gtk-testapp" --report <"$work/app.in" >"$work/app.out" 2>"$work/app.err" &
    pids+=($!)
    exec 3>"$work/app.in"
    await "$work/app.out" '^ready'
}
