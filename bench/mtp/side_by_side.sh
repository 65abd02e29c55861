#!/bin/bash
# Side by side: the same emulated MTP device (same content, same USB 2
# speed model) mounted with Quillbox, jmtpfs and go-mtpfs, one after the
# other, and the same steps timed on each. Prints one table.
#
# usage: bench/mtp/side_by_side.sh [BUILD_BIN]   (default: build/bin)
# jmtpfs and go-mtpfs: bench/mtp/install-tools.sh (a tool that is missing
# is reported as such). Every wait has a limit (LIMIT seconds, default 300);
# the emulator and every mount are removed again on exit. KEEP_LOGS=DIR
# keeps the tools' logs and step outputs there. BIG_MIB, MANY and SMALL
# change the sizes (256 MiB, 10,000 files, 1,000 files). TOOLS="quillbox"
# (any of quillbox jmtpfs go-mtpfs) runs only those; the others read
# "not run".
set -u
here="$(cd "$(dirname "$0")" && pwd)"
. "$here/instances.sh"
bin="$(cd "${1:-$here/../../build/bin}" && pwd)"
limit="${LIMIT:-300}"
big_mib="${BIG_MIB:-256}"
many="${MANY:-10000}"
small="${SMALL:-1000}"

work="$(mktemp -d /tmp/qb-side-XXXXXX)"
device_home="$work/device-home"      # the emulator's home: the device folder
quillbox_home="$work/quillbox-home"  # Quillbox's home: sees only the emulated device
export QUILLBOX_MTP_EMULATOR_DIR="$work/sockets"
mnt="$work/mnt"
emulator_pid=""
go_pid=""
mounted=""
root=""  # the folder that shows the storage, set by mount_tool

cleanup() {
  if [ -n "$mounted" ]; then unmount_tool "$mounted"; fi
  stop_emulator
  if [ -n "${KEEP_LOGS:-}" ]; then mkdir -p "$KEEP_LOGS" && cp "$work"/*.log "$work"/*.steps "$KEEP_LOGS"/ 2>/dev/null; fi
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

now() { date +%s.%N; }
elapsed() { awk -v a="$1" -v b="$(now)" 'BEGIN { printf "%.2f", b - a }'; }
# Runs the command until it succeeds, at most `limit` seconds.
wait_for() {
  local end=$((SECONDS + limit))
  until "$@" >/dev/null 2>&1; do
    [ $SECONDS -ge $end ] && return 1
    sleep 0.05
  done
}

simdev() { QUILLBOX_HOME="$device_home" "$bin/quillbox-simdev" "$@"; }
storage() { echo "$device_home/devices/bench/internal"; }

make_device() {
  simdev create bench --name "Bench Phone" --serial BENCH0001 --type phone \
    --storage "internal:Internal storage:68719476736:34359738368" >/dev/null || exit 1
  local s; s="$(storage)"
  mkdir -p "$s/DCIM/Camera" "$s/Documents" "$s/Music/Album" "$s/Many"
  head -c $((big_mib << 20)) /dev/urandom >"$s/big.bin"
  head -c $((big_mib << 20)) /dev/urandom >"$s/head.bin"
  for i in $(seq 1 40); do head -c 300000 /dev/urandom >"$s/DCIM/Camera/IMG_$i.jpg"; done
  for i in $(seq 1 20); do head -c 100000 /dev/urandom >"$s/Music/Album/track$i.mp3"; done
  echo "notes" >"$s/Documents/notes.txt"
  (cd "$s/Many" && seq -f "file%05g.txt" 1 "$many" | xargs touch)
  mkdir -p "$work/local/small"
  for i in $(seq 1 "$small"); do echo "small file $i" >"$work/local/small/s$i.txt"; done
  head -c $((big_mib << 20)) /dev/urandom >"$work/local/write.bin"
}

start_emulator() {
  : >"$work/emulator.log"
  QUILLBOX_HOME="$device_home" "$bin/quillbox-mtp-emulator" serve bench --usb2 --interface-name MTP \
    >"$work/emulator.log" 2>&1 &
  emulator_pid=$!
  wait_for grep -q "^serving" "$work/emulator.log"
}

stop_emulator() {
  if [ -n "$emulator_pid" ]; then
    kill "$emulator_pid" 2>/dev/null
    wait "$emulator_pid" 2>/dev/null
    emulator_pid=""
  fi
}

# The device as it was before a tool changed it.
reset_device() {
  local s; s="$(storage)"
  rm -rf "$s/written.bin" "$s/small" "$s/Documents/from-device.txt"
}

# mount_tool TOOL: mounts; sets `root` to the folder that shows the storage.
mount_tool() {
  case "$1" in
    quillbox)
      QUILLBOX_HOME="$quillbox_home" "$bin/quillbox-mtp-run" "$bin/quillbox" /mn "Bench Phone" /si 1 M: \
        >"$work/quillbox.log" 2>&1 || return 1
      root="$quillbox_home/drives/M"
      ;;
    jmtpfs)
      command -v jmtpfs >/dev/null || return 1
      mkdir -p "$mnt"
      timeout "$limit" "$bin/quillbox-mtp-run" jmtpfs "$mnt" >"$work/jmtpfs.log" 2>&1 || return 1
      wait_for mountpoint -q "$mnt" || return 1
      root="$mnt/Internal storage"
      ;;
    go-mtpfs)
      command -v go-mtpfs >/dev/null || return 1
      mkdir -p "$mnt"
      "$bin/quillbox-mtp-run" go-mtpfs "$mnt" >"$work/go-mtpfs.log" 2>&1 &
      go_pid=$!
      wait_for mountpoint -q "$mnt" || return 1
      root="$mnt/Internal storage"
      ;;
  esac
}

unmount_tool() {
  case "$1" in
    quillbox)
      QUILLBOX_HOME="$quillbox_home" timeout 60 "$bin/quillbox" /u M: >/dev/null 2>&1
      local point="$quillbox_home/drives/M"
      mountpoint -q "$point" 2>/dev/null && fusermount3 -uz "$point"
      await_instances_end "$quillbox_home"  # it lets the device go as it ends
      ;;
    *)
      mountpoint -q "$mnt" 2>/dev/null && { fusermount3 -u "$mnt" 2>/dev/null || fusermount3 -uz "$mnt"; }
      if [ -n "$go_pid" ]; then  # go-mtpfs ends with its mount
        wait_for bash -c "! kill -0 $go_pid" || kill "$go_pid"
        wait "$go_pid" 2>/dev/null
        go_pid=""
      fi
      ;;
  esac
  mounted=""
}

declare -A result
steps=(mount ls_many ls_lR read_big write_big copy_small change head_4k mount_again)
declare -A label=(
  [mount]="mount and list the root (first after plugging in)"
  [ls_many]="ls -l of a ${many}-file folder (cold)"
  [ls_lR]="ls -lR of the whole device"
  [read_big]="cold read of a ${big_mib} MiB file"
  [write_big]="write a ${big_mib} MiB file (until on the device)"
  [copy_small]="copy ${small} small files in (until on the device)"
  [change]="a file made on the device shows"
  [head_4k]="first 4 KiB of a ${big_mib} MiB file (cold)"
  [mount_again]="mount and list the root again (device still plugged in)"
)

# step TOOL NAME COMMAND...: times the command, records seconds or "failed".
step() {
  local tool="$1" name="$2"
  shift 2
  local t; t="$(now)"
  if timeout "$limit" bash -c "$*" >>"$work/$tool.steps" 2>&1; then
    result[$tool,$name]="$(elapsed "$t") s"
  else
    result[$tool,$name]="failed"
  fi
}

# timed_mount TOOL STEP: mounts and lists the root, recording the time
# under STEP; false when either failed.
timed_mount() {
  local tool="$1" name="$2" t
  t="$(now)"
  if mount_tool "$tool" && timeout "$limit" ls "$root" >/dev/null 2>&1; then
    result[$tool,$name]="$(elapsed "$t") s"
    mounted="$tool"
    return 0
  fi
  result[$tool,$name]="failed"
  return 1
}

run_tool() {
  local tool="$1"
  reset_device
  start_emulator || { echo "emulator did not start" >&2; return; }
  if ! timed_mount "$tool" mount; then
    for s in "${steps[@]}"; do [ "$s" = mount ] || result[$tool,$s]="not run"; done
    unmount_tool "$tool"
    stop_emulator
    return
  fi
  local s; s="$(storage)"
  step "$tool" ls_many "ls -l '$root/Many' | tail -n +2 | wc -l | grep -qx $many"
  step "$tool" ls_lR "ls -lR '$root' >/dev/null"
  step "$tool" read_big "cmp '$root/big.bin' '$s/big.bin'"
  step "$tool" write_big "cp '$work/local/write.bin' '$root/written.bin' &&
    until [ \"\$(stat -c %s '$s/written.bin' 2>/dev/null)\" = $((big_mib << 20)) ]; do sleep 0.05; done &&
    cmp '$work/local/write.bin' '$s/written.bin'"
  step "$tool" copy_small "cp -r '$work/local/small' '$root/' &&
    until [ \"\$(ls '$s/small' 2>/dev/null | wc -l)\" = $small ]; do sleep 0.05; done"
  ls "$root/Documents" >/dev/null 2>&1
  step "$tool" change "echo made > '$s/Documents/from-device.txt' &&
    until ls '$root/Documents' | grep -qx from-device.txt; do sleep 0.05; done"
  step "$tool" head_4k "head -c 4096 '$root/head.bin' | cmp - <(head -c 4096 '$s/head.bin')"
  unmount_tool "$tool"
  # Mounted again while the device stays plugged in (a tool may know it by now).
  timed_mount "$tool" mount_again
  unmount_tool "$tool"
  stop_emulator
}

make_device
mkdir -p "$quillbox_home"
printf 'Windows Registry Editor Version 5.00\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quillbox]\n@="%s"\n' "$bin" \
  >"$quillbox_home/machine.reg"
tools=(quillbox jmtpfs go-mtpfs)
for tool in ${TOOLS:-${tools[*]}}; do run_tool "$tool"; done

printf '\n| step | Quillbox | jmtpfs | go-mtpfs |\n|---|---|---|---|\n'
for s in "${steps[@]}"; do
  printf '| %s |' "${label[$s]}"
  for tool in "${tools[@]}"; do printf ' %s |' "${result[$tool,$s]:-not run}"; done
  printf '\n'
done
