#!/usr/bin/env bash
# The Debian package, end to end on this machine: built with debhelper and
# checked with lintian (scripts/lib.sh's kel_build_deb), installed with dpkg,
# its files where the README says, the installed daemon started through its
# socket as the service user (systemd-socket-activate stands in for the
# service manager), the writes and system calls of one run checked against the
# unit's sandbox, what another user may put in the daemon's way refused, an
# admin's disable and mask kept across a reinstall, then purged without
# leftovers.
#
# Usage: package_test.sh SOURCE_DIR. Needs root and dpkg (exit 77, skipped,
# otherwise) and leaves an installed kelhelperd package alone.
set -euo pipefail

src="$1"
source "$src/scripts/lib.sh"
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
log="$logs/kelhelperd.log"
daemon=/usr/sbin/kelhelperd
units=/lib/systemd/system
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
        systemctl --quiet unmask kelhelperd.socket || true
        dpkg --purge kelhelperd >/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT

# Every path on the system disks but the package manager's own books and the
# service manager's run-time state (systemd-analyze verify stamps a file
# there).
snapshot() {
    find /etc /usr /var /run -xdev \( -path /var/lib/dpkg -o -path /var/cache -o -path /var/lib/apt \
        -o -path /var/log/apt -o -path /var/log/dpkg.log -o -path /var/tmp -o -path /run/systemd \) \
        -prune -o -print | sort
}

# Waits up to 10 s until process $1 ignores SIGTERM, its watch in place, and
# returns 0; 1 as soon as the process has exited, 2 when it runs on unwatched.
wait_for_watch() {
    local i mask
    for ((i = 0; i < 1000; i++)); do
        mask="$(awk '/^State:/ && $2 == "Z" {exit 1} /^SigIgn:/ {print $2}' "/proc/$1/status" \
            2>/dev/null)" || return 1
        if [[ -n "$mask" ]] && (((16#$mask >> 14) & 1)); then
            return 0
        fi
        sleep 0.01
    done
    return 2
}

# Starts "$@" in the background and waits until the daemon has either exited
# or watches for SIGTERM, then ends it with SIGTERM; expects status 0. With
# client=1, a client connects first (through the socket that starts the
# daemon) and stays for a second. The daemon is the command's own process
# after its execs, or, under strace, the tracer's child. With err=FILE, the
# command's standard error goes there.
run_in_order() {
    "$@" 2>"${err:-/dev/stderr}" &
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
    local watch=0
    wait_for_watch "$daemon_pid" || watch=$?
    ((watch != 2)) || fail "$1: the daemon never watched for SIGTERM"
    ((watch == 1)) || kill -TERM "$daemon_pid"
    local status=0
    wait "$runner" || status=$?
    daemon_pid=0
    ((status == 0)) || fail "$1: exit status $status"
}

kel_build_deb
deb="$(ls "$src"/build/deb/kelhelperd_*.deb)"
size="$(dpkg-deb -f "$deb" Installed-Size)"
((size < 1024)) || fail "installed size $size KiB, not under 1 MiB"

snapshot >"$work/before"
dpkg -i "$deb" >/dev/null
installed=1

for path in "$daemon" /usr/bin/kelprefs /usr/share/man/man8/kelhelperd.8.gz \
    /usr/share/man/man1/kelprefs.1.gz "$units/kelhelperd.service" "$units/kelhelperd.socket" \
    /usr/lib/sysusers.d/kelhelperd.conf /usr/lib/tmpfiles.d/kelhelperd.conf /etc/kel/device.json \
    /etc/systemd/system/sockets.target.wants/kelhelperd.socket; do
    [[ -e "$path" ]] || fail "$path is not installed"
done
[[ "$(getent passwd "$user" | cut -d: -f6)" == /var/lib/kelhelperd ]] || fail "no user $user"
for path in /run/kelhelperd /run/kelhelperd/helper-server.lock "$log" "$logs/snapshots" \
    /var/lib/kelhelperd; do
    [[ "$(stat -c %U "$path")" == "$user" ]] || fail "$path is not the service user's"
done
[[ "$(stat -c %U "$logs")" == root ]] || fail "$logs is not root's"
systemd-analyze verify "$units/kelhelperd.socket" "$units/kelhelperd.service" ||
    fail "the units do not verify"

# Started through its socket by the first client, as the service user.
as_user=(setpriv --reuid="$user" --regid="$user" --init-groups --no-new-privs)
client=1 run_in_order systemd-socket-activate -l "$socket" -- "${as_user[@]}" "$daemon"
grep -q ':Info:kelhelperd:Signal received$' "$log" || fail "no log file"
[[ "$(tail -n 1 "$log")" == *:Info:kelhelperd:Exit! ]] || fail "no Exit! last"

# One run under strace: what the daemon writes stays in its two folders, and
# every system call it makes passes the unit's filter. It binds a socket of its
# own: the stand-in manager's socket, made by root, goes as the manager's would
# when its unit stops.
rm -f "$socket"
run_in_order strace -f -qq -o "$work/trace" "${as_user[@]}" "$daemon"
awk -v daemon="$daemon" 'index($0, "execve(\"" daemon "\"") { on = 1 } on' "$work/trace" \
    >"$work/daemon-trace"
grep -E '(O_WRONLY|O_RDWR|O_CREAT)|(mkdir|unlink|rename|bind)' "$work/daemon-trace" |
    grep -oE '"/[^"]*"' | tr -d '"' | sort -u >"$work/written"
if grep -vE "^(/run/kelhelperd|$logs)(/|$)|^/proc/self/task/[0-9]+/|^/dev/null$" \
    "$work/written"; then
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

# What another user may put in the daemon's way at its log file: a link to a
# file the service user may write, or a FIFO. Run as the service user, or as
# root (which then does not host: the runtime folder is the service user's),
# the daemon says once that it keeps no log, writes nothing through it and
# ends in order.
echo untouched >"$logs/target"
chown "$user:" "$logs/target"
for who in service root; do
    runner=()
    [[ "$who" == root ]] || runner=("${as_user[@]}")
    for kind in link fifo; do
        rm -f "$log"
        if [[ "$kind" == link ]]; then ln -s "$logs/target" "$log"; else mkfifo "$log"; fi
        err="$work/err" run_in_order env KEL_PREFERENCES_DIR="$work/none" "${runner[@]}" "$daemon"
        [[ "$(grep -c 'not keeping a log file' "$work/err")" == 1 ]] ||
            fail "$who, $kind: not said once that no log is kept: $(cat "$work/err")"
        [[ "$(tail -n 1 "$work/err")" == *'#I Exit!' ]] ||
            fail "$who, $kind: no Exit! last: $(cat "$work/err")"
    done
done
[[ "$(cat "$logs/target")" == untouched ]] || fail "written through a link at the log file"

# A log file that a run as root made is the service user's again after
# systemd-tmpfiles, as at boot.
rm -f "$log"
touch "$log"
systemd-tmpfiles --create kelhelperd.conf
[[ "$(stat -c %U "$log")" == "$user" ]] || fail "tmpfiles does not give the log file back"

# A second daemon while one hosts is refused and leaves the first one's log
# alone: it holds the first one's lines only.
"${as_user[@]}" "$daemon" 2>/dev/null &
daemon_pid=$!
wait_for_watch "$daemon_pid" || fail "the first daemon never watched for SIGTERM"
"${as_user[@]}" "$daemon" 2>"$work/err" || fail "the second daemon failed"
grep -q 'Not allowed to host kel helper server!' "$work/err" || fail "the second daemon hosted"
kill -TERM "$daemon_pid"
wait "$daemon_pid" || fail "the first daemon failed"
daemon_pid=0
[[ "$(cut -d: -f4- "$log")" == $'Signal received\nExit!' ]] ||
    fail "the first daemon's log is not its own: $(cat "$log")"

# Nobody else can open the hosting lock, so nobody else can hold it.
if setpriv --reuid=nobody --regid=nogroup --clear-groups \
    flock -n /run/kelhelperd/helper-server.lock true 2>/dev/null; then
    fail "another user can take the hosting lock"
fi

# An admin's choice survives a reinstall, as it would an upgrade.
for choice in disable:disabled mask:masked; do
    systemctl --quiet "${choice%:*}" kelhelperd.socket
    dpkg -i "$deb" >/dev/null
    [[ "$(systemctl is-enabled kelhelperd.socket 2>/dev/null)" == "${choice#*:}" ]] ||
        fail "a reinstall undid systemctl ${choice%:*}"
    systemctl --quiet unmask kelhelperd.socket
done

dpkg --purge kelhelperd >/dev/null
installed=0
snapshot >"$work/after"
if ! diff "$work/before" "$work/after"; then
    fail "the purge left files behind, or removed some (above)"
fi
echo "package built, linted, installed, run through its socket, probed and purged: all well"
