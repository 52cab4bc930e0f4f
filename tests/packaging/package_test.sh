#!/usr/bin/env bash
# The Debian package, end to end on this machine: built with the package
# preset, installed with dpkg, its files where the README says, the installed
# daemon started through its socket as the service user (systemd-socket-activate
# stands in for the service manager), the writes and system calls of one run
# checked against the unit's sandbox, then purged without leftovers.
#
# Usage: package_test.sh SOURCE_DIR. Needs root and dpkg (exit 77, skipped,
# otherwise) and leaves an installed kelhelperd package alone.
set -euo pipefail

src="$1"
if ((EUID != 0)) || ! command -v dpkg >/dev/null; then
    echo "skipped: needs root and dpkg"
    exit 77
fi
if dpkg-query -W -f='${Status}' kelhelperd 2>/dev/null | grep -q installed; then
    echo "skipped: a kelhelperd package is installed on this machine already"
    exit 77
fi

user=kelhelperd
socket=/run/kelhelperd/helper-server.sock
logs=/var/log/kelhelperd
daemon=/usr/sbin/kelhelperd
work="$(mktemp -d)"
daemon_pid=0
installed=0

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

cleanup() {
    if ((daemon_pid > 0)); then
        kill -KILL "$daemon_pid" 2>/dev/null || true
    fi
    if ((installed)); then
        dpkg --purge kelhelperd >/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT

# Every path on the system disks but the package manager's own books.
snapshot() {
    find /etc /usr /var /run -xdev \( -path /var/lib/dpkg -o -path /var/cache -o -path /var/lib/apt \
        -o -path /var/log/apt -o -path /var/log/dpkg.log -o -path /var/tmp \) -prune -o -print | sort
}

# Waits up to 10 s until process $1 ignores SIGTERM: its watch is in place.
wait_for_watch() {
    local i mask
    for ((i = 0; i < 1000; i++)); do
        mask="$(awk '/^SigIgn:/ {print $2}' "/proc/$1/status" 2>/dev/null || true)"
        if [[ -n "$mask" ]] && (((16#$mask >> 14) & 1)); then
            return 0
        fi
        sleep 0.01
    done
    return 1
}

# Starts "$@" in the background, waits for the daemon's SIGTERM watch, ends
# it with SIGTERM and expects status 0. With client=1, a client connects first
# (through the socket that starts the daemon) and stays for a second. The
# daemon is the command's own process after its execs, or, under strace, the
# tracer's child.
run_until_sigterm() {
    "$@" &
    local runner=$! i
    daemon_pid=$runner
    if [[ -n "${client:-}" ]]; then
        for ((i = 0; i < 500; i++)); do [[ -S "$socket" ]] && break; sleep 0.01; done
        { sleep 1; } | socat - "UNIX-CONNECT:$socket" &
    fi
    if [[ "$1" == strace ]]; then
        for ((i = 0; i < 500; i++)); do
            daemon_pid="$(pgrep -P "$runner" || true)"
            [[ -n "$daemon_pid" ]] && break
            sleep 0.01
        done
    fi
    ((daemon_pid > 0)) || fail "$1: no daemon process"
    wait_for_watch "$daemon_pid" || fail "$1: the daemon never watched for SIGTERM"
    kill -TERM "$daemon_pid"
    local status=0
    wait "$runner" || status=$?
    daemon_pid=0
    ((status == 0)) || fail "$1: exit status $status"
}

(cd "$src" && cmake --preset package >/dev/null && cmake --build --preset package >/dev/null &&
    cpack --preset package >/dev/null)
deb="$(ls "$src"/build/package/kelhelperd_*.deb)"

snapshot >"$work/before"
dpkg -i "$deb" >/dev/null
installed=1

for path in "$daemon" /usr/bin/kelprefs /usr/share/man/man8/kelhelperd.8 \
    /usr/share/man/man1/kelprefs.1 /usr/lib/systemd/system/kelhelperd.service \
    /usr/lib/systemd/system/kelhelperd.socket /usr/lib/sysusers.d/kelhelperd.conf \
    /usr/lib/tmpfiles.d/kelhelperd.conf /etc/kel/device.json \
    /etc/systemd/system/sockets.target.wants/kelhelperd.socket; do
    [[ -e "$path" ]] || fail "$path is not installed"
done
[[ "$(getent passwd "$user" | cut -d: -f6)" == /var/lib/kelhelperd ]] || fail "no user $user"
for folder in /run/kelhelperd "$logs" /var/lib/kelhelperd; do
    [[ "$(stat -c %U "$folder")" == "$user" ]] || fail "$folder is not the service user's"
done
systemd-analyze verify /usr/lib/systemd/system/kelhelperd.socket \
    /usr/lib/systemd/system/kelhelperd.service || fail "the units do not verify"

# Started through its socket by the first client, as the service user.
as_user=(setpriv --reuid="$user" --regid="$user" --init-groups --no-new-privs)
client=1 run_until_sigterm systemd-socket-activate -l "$socket" -- "${as_user[@]}" "$daemon"
grep -q ':Info:kelhelperd:Signal received$' "$logs/kelhelperd.log" || fail "no log file"
[[ "$(tail -n 1 "$logs/kelhelperd.log")" == *:Info:kelhelperd:Exit! ]] || fail "no Exit! last"

# One run under strace: what the daemon writes stays in its two folders, and
# every system call it makes passes the unit's filter. It binds a socket of its
# own: the stand-in manager's socket, made by root, goes as the manager's would
# when its unit stops.
rm -f "$socket"
run_until_sigterm strace -f -qq -o "$work/trace" "${as_user[@]}" "$daemon"
awk -v daemon="$daemon" 'index($0, "execve(\"" daemon "\"") { on = 1 } on' "$work/trace" \
    >"$work/daemon-trace"
grep -E '(O_WRONLY|O_RDWR|O_CREAT)|(mkdir|unlink|rename|bind)' "$work/daemon-trace" |
    grep -oE '"/[^"]*"' | tr -d '"' | sort -u >"$work/written"
if grep -vE "^(/run/kelhelperd|$logs|/proc/self/task/[0-9]+)/|^/dev/null$" "$work/written"; then
    fail "written outside the service's folders (above)"
fi
# The system calls of the named sets, the sets they include expanded.
filter_list() {
    local set
    for set in "$@"; do
        systemd-analyze syscall-filter "$set" | tail -n +2 | grep -vE '^ *#' | tr -d ' ' |
            while read -r entry; do
                if [[ "$entry" == @* ]]; then filter_list "$entry"; else echo "$entry"; fi
            done
    done | sort -u
}
filter_list @system-service >"$work/allowed"
filter_list @privileged @resources >"$work/denied"
grep -oE '^[0-9]+ +([a-z0-9_]+)\(' "$work/daemon-trace" | sed -E 's/^[0-9]+ +//; s/\($//' |
    sort -u >"$work/used"
if comm -23 "$work/used" <(comm -23 "$work/allowed" "$work/denied") | grep .; then
    fail "system calls outside the unit's filter (above)"
fi

dpkg --purge kelhelperd >/dev/null
installed=0
snapshot >"$work/after"
if ! diff "$work/before" "$work/after"; then
    fail "the purge left files behind, or removed some (above)"
fi
echo "package built, installed, run through its socket and purged: all well"
