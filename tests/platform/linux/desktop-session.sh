#!/usr/bin/env bash
# Runs one command inside a private X11 desktop with an accessibility bus:
#   Xvfb, openbox, a private D-Bus session bus, at-spi-bus-launcher (which starts the registry),
#   and speech: a private speech-dispatcher (espeak-ng module) playing into ALSA's null device,
#   reached through SPEECHD_ADDRESS; ALSA_CONFIG_PATH sends the session's sound there too.
# Installs what is missing with apt-get when run as root. Everything started here is stopped by
# process id when the command ends, whatever its outcome. The command's exit status is returned.
#
# Usage: tests/platform/linux/desktop-session.sh [--no-install] -- COMMAND [ARGS...]
# Environment: ORV_SESSION_SCREEN (default 1280x800x24), ORV_SESSION_LOG (default: a temp dir).
set -u

install=1
while [ $# -gt 0 ]; do
    case "$1" in
        --no-install) install=0; shift ;;
        --) shift; break ;;
        *) break ;;
    esac
done
if [ $# -eq 0 ]; then
    echo "usage: $0 [--no-install] -- COMMAND [ARGS...]" >&2
    exit 2
fi

log() { echo "desktop-session: $*" >&2; }

speechd_module() {
    local d
    for d in /usr/lib/speech-dispatcher-modules /usr/lib/*/speech-dispatcher-modules \
        /usr/libexec/speech-dispatcher-modules; do
        [ -x "$d/sd_espeak-ng" ] && { echo "$d/sd_espeak-ng"; return 0; }
    done
    return 1
}

need_packages() {
    local missing=()
    command -v Xvfb >/dev/null || missing+=(xvfb)
    command -v openbox >/dev/null || missing+=(openbox)
    command -v dbus-daemon >/dev/null || missing+=(dbus-daemon)
    command -v dbus-launch >/dev/null || missing+=(dbus-x11)
    [ -x /usr/libexec/at-spi-bus-launcher ] || missing+=(at-spi2-core)
    command -v gtk3-widget-factory >/dev/null || missing+=(gtk-3-examples)
    command -v xdotool >/dev/null || missing+=(xdotool)
    command -v xprop >/dev/null || missing+=(x11-utils)
    command -v dbus-send >/dev/null || missing+=(dbus-bin)
    command -v ps >/dev/null || missing+=(procps)
    pkg-config --exists atspi-2 2>/dev/null || missing+=(libatspi2.0-dev)
    pkg-config --exists gtk+-3.0 2>/dev/null || missing+=(libgtk-3-dev)
    pkg-config --exists xrandr 2>/dev/null || missing+=(libxrandr-dev)
    pkg-config --exists x11 2>/dev/null || missing+=(libx11-dev)
    command -v pkg-config >/dev/null || missing+=(pkg-config)
    command -v speech-dispatcher >/dev/null || missing+=(speech-dispatcher)
    speechd_module >/dev/null || missing+=(speech-dispatcher-espeak-ng)
    command -v espeak-ng >/dev/null || missing+=(espeak-ng)
    echo "${missing[@]:-}"
}

if [ "$install" = 1 ]; then
    missing=$(need_packages)
    if [ -n "$missing" ]; then
        if [ "$(id -u)" != 0 ]; then
            log "missing packages ($missing) and not root: cannot install"
            exit 3
        fi
        log "installing: $missing"
        apt-get update -q >/dev/null || { log "apt-get update failed"; exit 3; }
        # shellcheck disable=SC2086
        DEBIAN_FRONTEND=noninteractive apt-get install -y -q $missing >/dev/null ||
            { log "apt-get install failed"; exit 3; }
    fi
fi

logdir=${ORV_SESSION_LOG:-$(mktemp -d /tmp/orv-desktop-session.XXXXXX)}
mkdir -p "$logdir"
pids=()
rundir=$(mktemp -d /tmp/orv-desktop-run.XXXXXX)

# Every process below one of ours (bus-activated services, the registry, the accessibility bus).
descendants() {
    local p c
    for p in "$@"; do
        for c in $(ps -o pid= --ppid "$p" 2>/dev/null); do
            echo "$c"
            descendants "$c"
        done
    done
}

cleanup() {
    local status=$?
    trap - EXIT INT TERM
    local all=() p i n
    # Children first, then ours in reverse order of start.
    for p in $(descendants "${pids[@]}"); do all+=("$p"); done
    for ((i = ${#pids[@]} - 1; i >= 0; i--)); do all+=("${pids[$i]}"); done
    for p in "${all[@]}"; do kill -TERM "$p" 2>/dev/null; done
    for p in "${all[@]}"; do
        n=0
        while kill -0 "$p" 2>/dev/null && [ $n -lt 30 ]; do
            sleep 0.1
            n=$((n + 1))
        done
        kill -KILL "$p" 2>/dev/null
    done
    for p in "${pids[@]}"; do wait "$p" 2>/dev/null; done
    rm -rf "$rundir"
    exit $status
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# A free display number: the first without a lock file.
disp=99
while [ -e "/tmp/.X${disp}-lock" ] || [ -e "/tmp/.X11-unix/X${disp}" ]; do disp=$((disp + 1)); done

# -noreset: the server keeps its state (the AT_SPI_BUS property among it) when no client is left.
Xvfb ":$disp" -screen 0 "${ORV_SESSION_SCREEN:-1280x800x24}" -nolisten tcp -noreset +extension RANDR \
    >"$logdir/xvfb.log" 2>&1 &
pids+=($!)
export DISPLAY=":$disp"
# Up once a client can connect (the socket file alone may be stale or early).
n=0
until xprop -root >/dev/null 2>&1; do
    n=$((n + 1))
    if [ $n -gt 100 ] || ! kill -0 "${pids[0]}" 2>/dev/null; then
        log "Xvfb did not start (see $logdir/xvfb.log)"
        exit 4
    fi
    sleep 0.1
done

# Private session bus; its address comes back on the first line, its pid on the second.
dbus-daemon --session --nofork --print-address=3 --print-pid=4 \
    3>"$rundir/bus.addr" 4>"$rundir/bus.pid" >"$logdir/dbus.log" 2>&1 &
pids+=($!)
n=0
until [ -s "$rundir/bus.addr" ]; do
    n=$((n + 1))
    if [ $n -gt 100 ]; then log "dbus-daemon did not start"; exit 4; fi
    sleep 0.1
done
DBUS_SESSION_BUS_ADDRESS=$(head -n1 "$rundir/bus.addr")
export DBUS_SESSION_BUS_ADDRESS
unset AT_SPI_BUS_ADDRESS

# Toolkits connect only when told accessibility is wanted.
export GTK_MODULES=gail:atk-bridge
export NO_AT_BRIDGE=0
export GNOME_ACCESSIBILITY=1
export QT_ACCESSIBILITY=1
export QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1

/usr/libexec/at-spi-bus-launcher --launch-immediately >"$logdir/at-spi-bus-launcher.log" 2>&1 &
pids+=($!)
# The launcher owns org.a11y.Bus once the accessibility bus is up.
n=0
until dbus-send --session --print-reply --dest=org.a11y.Bus /org/a11y/bus org.a11y.Bus.GetAddress \
    >"$rundir/a11y.addr" 2>/dev/null && grep -q "unix:" "$rundir/a11y.addr"; do
    n=$((n + 1))
    if [ $n -gt 100 ]; then log "accessibility bus did not come up"; exit 4; fi
    sleep 0.1
done
# Without a window manager no window is active and no focus event fires.
wm_up=0
for attempt in 1 2 3; do
    openbox --sm-disable >>"$logdir/openbox.log" 2>&1 &
    wm_pid=$!
    pids+=($wm_pid)
    n=0
    while [ $n -lt 50 ] && kill -0 "$wm_pid" 2>/dev/null; do
        if xprop -root _NET_SUPPORTING_WM_CHECK 2>/dev/null | grep -q "window id"; then
            wm_up=1
            break
        fi
        sleep 0.1
        n=$((n + 1))
    done
    [ $wm_up = 1 ] && break
    log "openbox attempt $attempt failed"
done
if [ $wm_up != 1 ]; then
    log "openbox did not start (see $logdir/openbox.log)"
    exit 4
fi

# Qt finds the accessibility bus only through the root window's AT_SPI_BUS property, which a
# real session's launcher sets; without it Qt applications never register. Set once the window
# manager holds a connection: Xvfb resets the server, properties and all, when its last client
# leaves.
a11y_addr=$(sed -n 's/^ *string "\(.*\)"$/\1/p' "$rundir/a11y.addr")
if [ -n "$a11y_addr" ]; then
    xprop -root -f AT_SPI_BUS 8s -set AT_SPI_BUS "$a11y_addr" ||
        log "could not set AT_SPI_BUS on the root window"
else
    log "accessibility bus address not understood: $(cat "$rundir/a11y.addr")"
fi

# Speech. With no sound device speech-dispatcher's default output hangs, so everything in the
# session plays into ALSA's null device, through a configuration file of the session's own read
# after the system's (the user's ~/.asoundrc and ~/.config/speech-dispatcher stay untouched).
# The daemon finds its configuration through XDG_CONFIG_HOME, given to it alone.
speechdir="$rundir/speech"
mkdir -p "$speechdir/config/speech-dispatcher" "$logdir/speech-dispatcher"
echo 'pcm.!default { type null }' >"$speechdir/asound.conf"
ALSA_CONFIG_PATH="${ALSA_CONFIG_PATH:-/usr/share/alsa/alsa.conf}:$speechdir/asound.conf"
export ALSA_CONFIG_PATH
if command -v speech-dispatcher >/dev/null && speechd_module >/dev/null; then
    module_conf=/etc/speech-dispatcher/modules/espeak-ng.conf
    [ -f "$module_conf" ] || module_conf=""
    cat >"$speechdir/config/speech-dispatcher/speechd.conf" <<CONF
CommunicationMethod "unix_socket"
SocketPath "$speechdir/speechd.sock"
Timeout 0
LogLevel 3
LogDir "$logdir/speech-dispatcher"
AudioOutputMethod "alsa"
AudioALSADevice "default"
AddModule "espeak-ng" "sd_espeak-ng" "$module_conf"
DefaultModule espeak-ng
CONF
    # --spawn returns once the daemon listens; the daemon writes its process id a moment later.
    XDG_CONFIG_HOME="$speechdir/config" speech-dispatcher --spawn -P "$speechdir/speechd.pid" \
        >"$logdir/speech-dispatcher/spawn.log" 2>&1
    spawned=$?
    # Only a process started with that pid file is taken for the daemon (a file caught half
    # written names some other process).
    speechd_pid=""
    n=0
    while [ -z "$speechd_pid" ] && [ $n -le 50 ]; do
        p=$(cat "$speechdir/speechd.pid" 2>/dev/null)
        if [ -n "$p" ] && tr '\0' ' ' <"/proc/$p/cmdline" 2>/dev/null |
            grep -qF -- "$speechdir/speechd.pid"; then
            speechd_pid=$p
        else
            sleep 0.1
            n=$((n + 1))
        fi
    done
    [ -n "$speechd_pid" ] && pids+=("$speechd_pid")
    if [ $spawned != 0 ] || [ -z "$speechd_pid" ]; then
        log "speech-dispatcher did not start (see $logdir/speech-dispatcher)"
        exit 4
    fi
    export SPEECHD_ADDRESS="unix_socket:$speechdir/speechd.sock"
else
    log "speech-dispatcher or its espeak-ng module is missing: no speech daemon in this session"
fi

log "DISPLAY=$DISPLAY DBUS_SESSION_BUS_ADDRESS=$DBUS_SESSION_BUS_ADDRESS logs in $logdir"
export ORV_DESKTOP_SESSION=1
"$@"
status=$?
log "command exited with $status"
exit $status
