#!/bin/bash
# The first line of side_by_side.sh alone: "mount and list the root"
# (quillbox /mn ... /si 1 M: over the MTP emulator with the USB 2 model, then
# ls of the drive), RUNS times (default 5), each after the last serving
# instance ended.
#
# usage: bench/mtp/mount_line.sh [BUILD_BIN]   (default: build/bin)
# FLAGS=1 turns the trace log on; KEEP=DIR keeps the local data folder (the
# log with its timestamps) there.
set -u
here="$(cd "$(dirname "$0")" && pwd)"
bin="$(cd "${1:-$here/../../build/bin}" && pwd)"
runs="${RUNS:-5}"
work="$(mktemp -d /tmp/qb-mount-XXXXXX)"
export QUILLBOX_MTP_EMULATOR_DIR="$work/sockets"
qh="$work/quillbox-home"; dh="$work/device-home"
emu=""
cleanup() {
  QUILLBOX_HOME="$qh" timeout 30 "$bin/quillbox" /u M: >/dev/null 2>&1
  mountpoint -q "$qh/drives/M" 2>/dev/null && fusermount3 -uz "$qh/drives/M"
  [ -n "$emu" ] && kill "$emu" 2>/dev/null && wait "$emu" 2>/dev/null
  [ -n "${KEEP:-}" ] && cp -r "$qh/local" "$KEEP" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
. "$here/instances.sh"
QUILLBOX_HOME="$dh" "$bin/quillbox-simdev" create bench --name "Bench Phone" --serial BENCH0001 --type phone \
  --storage "internal:Internal storage:68719476736:34359738368" >/dev/null || exit 1
s="$dh/devices/bench/internal"
mkdir -p "$s/DCIM/Camera" "$s/Documents" "$s/Music/Album" "$s/Many"
echo notes >"$s/Documents/notes.txt"
mkdir -p "$qh"
printf 'Windows Registry Editor Version 5.00\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quillbox]\n@="%s"\n' "$bin" >"$qh/machine.reg"
[ -n "${FLAGS:-}" ] && printf 'Windows Registry Editor Version 5.00\n\n[HKEY_CURRENT_USER\\SOFTWARE\\Quillbox]\n"Flags"=dword:%08x\n' "$FLAGS" >"$qh/user.reg"
QUILLBOX_HOME="$dh" "$bin/quillbox-mtp-emulator" serve bench --usb2 >"$work/emulator.log" 2>&1 &
emu=$!
for i in $(seq 100); do grep -q '^serving' "$work/emulator.log" && break; sleep 0.05; done
for i in $(seq "$runs"); do
  t=$(date +%s.%N)
  QUILLBOX_HOME="$qh" "$bin/quillbox-mtp-run" "$bin/quillbox" /mn "Bench Phone" /si 1 M: >"$work/q.log" 2>&1 || { echo "mount failed"; cat "$work/q.log"; exit 1; }
  ls "$qh/drives/M" >/dev/null || echo "ls failed"
  awk -v a="$t" -v b="$(date +%s.%N)" 'BEGIN { printf "mount and list the root: %.3f s\n", b - a }'
  QUILLBOX_HOME="$qh" timeout 30 "$bin/quillbox" /u M: >/dev/null 2>&1
  await_instances_end "$qh"
done
