#!/bin/bash
# The mount lines of side_by_side.sh alone, repeated for medians: "mount and
# list the root" over the MTP emulator with the USB 2 model, first after
# plugging in (Quillbox has not seen the device: its names are forgotten
# before each such mount) and again (device still plugged in), against
# jmtpfs on the same device in the same run. RUNS rounds (default 15); each
# round mounts Quillbox twice, then jmtpfs once, each after the last mount
# went. Prints the median, least and most of each line in milliseconds.
#
# usage: bench/mtp/mount_line.sh [BUILD_BIN]   (default: build/bin)
# FLAGS=0x23 turns the trace log on (a log per process); KEEP=DIR keeps
# Quillbox's local data folder (the logs) there. jmtpfs missing: its line
# reads "not installed" (bench/mtp/install-tools.sh).
set -u
here="$(cd "$(dirname "$0")" && pwd)"
bin="$(cd "${1:-$here/../../build/bin}" && pwd)"
runs="${RUNS:-15}"
work="$(mktemp -d /tmp/qb-mount-XXXXXX)"
export QUILLBOX_MTP_EMULATOR_DIR="$work/sockets"
qh="$work/quillbox-home"; dh="$work/device-home"; mnt="$work/mnt"
emu=""
cleanup() {
  QUILLBOX_HOME="$qh" timeout 30 "$bin/quillbox" /u M: >/dev/null 2>&1
  mountpoint -q "$qh/drives/M" 2>/dev/null && fusermount3 -uz "$qh/drives/M"
  mountpoint -q "$mnt" 2>/dev/null && fusermount3 -uz "$mnt"
  [ -n "$emu" ] && kill "$emu" 2>/dev/null && wait "$emu" 2>/dev/null
  [ -n "${KEEP:-}" ] && cp -r "$qh/local" "$KEEP" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM
. "$here/instances.sh"

# The bench device's top level (side_by_side.sh), with small files.
QUILLBOX_HOME="$dh" "$bin/quillbox-simdev" create bench --name "Bench Phone" --serial BENCH0001 --type phone \
  --storage "internal:Internal storage:68719476736:34359738368" >/dev/null || exit 1
s="$dh/devices/bench/internal"
mkdir -p "$s/DCIM/Camera" "$s/Documents" "$s/Music/Album" "$s/Many" "$s/small" "$mnt"
echo notes >"$s/Documents/notes.txt"
for f in big.bin head.bin written.bin; do echo "$f" >"$s/$f"; done
mkdir -p "$qh"
printf 'Windows Registry Editor Version 5.00\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quillbox]\n@="%s"\n' "$bin" >"$qh/machine.reg"
[ -n "${FLAGS:-}" ] && printf 'Windows Registry Editor Version 5.00\n\n[HKEY_CURRENT_USER\\SOFTWARE\\Quillbox]\n"Flags"=dword:%08x\n' "$FLAGS" >"$qh/user.reg"
QUILLBOX_HOME="$dh" "$bin/quillbox-mtp-emulator" serve bench --usb2 >"$work/emulator.log" 2>&1 &
emu=$!
for i in $(seq 100); do grep -q '^serving' "$work/emulator.log" && break; sleep 0.05; done

since() { awk -v a="$1" -v b="$(date +%s.%N)" 'BEGIN { printf "%.1f", (b - a) * 1000 }'; }
quillbox_mount() {
  local t; t=$(date +%s.%N)
  QUILLBOX_HOME="$qh" "$bin/quillbox-mtp-run" "$bin/quillbox" /mn "Bench Phone" /si 1 M: >"$work/q.log" 2>&1 ||
    { echo "mount failed: $(cat "$work/q.log")" >&2; exit 1; }
  ls "$qh/drives/M" >/dev/null || { echo "ls failed" >&2; exit 1; }
  since "$t"
  QUILLBOX_HOME="$qh" timeout 30 "$bin/quillbox" /u M: >/dev/null 2>&1
  await_instances_end "$qh"
}
jmtpfs_mount() {
  local t; t=$(date +%s.%N)
  timeout 60 "$bin/quillbox-mtp-run" jmtpfs "$mnt" >"$work/j.log" 2>&1 || { echo "jmtpfs failed" >&2; exit 1; }
  ls "$mnt/Internal storage" >/dev/null || { echo "ls failed" >&2; exit 1; }
  since "$t"
  fusermount3 -u "$mnt"
}
first=(); again=(); other=()
for i in $(seq "$runs"); do
  rm -rf "$qh/local/Quillbox/MtpNames"  # as after plugging in: the device is new to Quillbox
  first+=("$(quillbox_mount)")
  again+=("$(quillbox_mount)")
  command -v jmtpfs >/dev/null && other+=("$(jmtpfs_mount)")
done
spread() {
  [ $# -eq 0 ] && { echo "not installed"; return; }
  printf '%s\n' "$@" | sort -n | awk '{ v[NR] = $1 } END {
    m = NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
    printf "median %.1f ms (least %.1f, most %.1f, %d mounts)", m, v[1], v[NR], NR }'
}
echo "Quillbox, first after plugging in: $(spread "${first[@]}")"
echo "Quillbox, mounted again:           $(spread "${again[@]}")"
echo "jmtpfs:                            $(spread "${other[@]}")"
