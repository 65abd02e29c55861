#!/bin/bash
# Debian's mtp-tools against the MTP emulator: a simulated device served by
# quillbox-mtp-emulator, the tools run on the emulator's USB library and
# find the device by libmtp's own probing. The emulator is always stopped.
#   mtp_tools_test.sh BIN_DIR
set -u
bin="$1"
home="$(mktemp -d)"
export QUILLBOX_HOME="$home"
export QUILLBOX_MTP_EMULATOR_DIR="$home/sockets"
emulator_pid=""
failures=0
passes=0

mount_dir=""
cleanup() {
  if [ -n "$mount_dir" ] && mountpoint -q "$mount_dir"; then
    fusermount3 -u "$mount_dir" 2>/dev/null || fusermount3 -uz "$mount_dir" 2>/dev/null
  fi
  if [ -n "$emulator_pid" ]; then
    kill "$emulator_pid" 2>/dev/null
    wait "$emulator_pid" 2>/dev/null
  fi
  rm -rf "$home"
}
trap cleanup EXIT

check() {  # check NAME CONDITION...
  local name="$1"
  shift
  if "$@"; then
    passes=$((passes + 1))
  else
    failures=$((failures + 1))
    echo "FAILED: $name" >&2
  fi
}

run() {  # run TOOL ARGS: one MTP tool, bounded, output in $out
  out="$(timeout 60 "$bin/quillbox-mtp-run" "$@" 2>&1)"
}

# Waits (bounded) until COMMAND succeeds.
wait_for() {
  local limit=$((SECONDS + 30))
  until "$@"; do
    [ $SECONDS -ge $limit ] && return 1
    sleep 0.05
  done
}

"$bin/quillbox-simdev" demo >/dev/null || exit 1
device="$home/devices/demo"
"$bin/quillbox-mtp-emulator" serve demo --die-with-parent >"$home/emulator.log" 2>&1 &
emulator_pid=$!
check "emulator serves" wait_for grep -qs "^serving demo" "$home/emulator.log"

run mtp-detect
check "mtp-detect finds the device by its OS descriptor" grep -q "Microsoft device descriptor 0xee" <<<"$out"
check "mtp-detect reads the device info" grep -q "Serial number: QBDEMO0001" <<<"$out"
check "mtp-detect lists both storages" grep -q "StorageDescription: SD card" <<<"$out"
check "mtp-detect reads the friendly name" grep -q "Friendly name: Quillbox Demo Phone" <<<"$out"

run mtp-folders
check "mtp-folders lists folders" grep -q "Screenshots" <<<"$out"

run mtp-files
check "mtp-files lists files" grep -q "Filename: IMG_20230614_091205.jpg" <<<"$out"
id="$(awk '/^File ID:/ {id=$3} /Filename: IMG_20230614_091205.jpg/ {print id; exit}' <<<"$out")"

run mtp-getfile "$id" "$home/got.jpg"
check "mtp-getfile gives the file's bytes" cmp -s "$home/got.jpg" "$device/internal/DCIM/Camera/IMG_20230614_091205.jpg"

# 3 MB crosses many 512-byte packets and ends on no packet boundary; 1 MiB ends on one.
head -c 3000001 /dev/urandom >"$home/up.bin"
head -c 1048576 /dev/urandom >"$home/exact.bin"
run mtp-sendfile "$home/up.bin" /Download
check "mtp-sendfile uploads" cmp -s "$home/up.bin" "$device/internal/Download/up.bin"
new_id="$(sed -n 's/^New file ID: //p' <<<"$out")"
run mtp-sendfile "$home/exact.bin" /Download
check "an upload of whole packets ends" cmp -s "$home/exact.bin" "$device/internal/Download/exact.bin"
run mtp-getfile "$new_id" "$home/back.bin"
check "the uploaded file reads back" cmp -s "$home/up.bin" "$home/back.bin"

run mtp-delfile -n "$new_id"
check "mtp-delfile deletes" test ! -e "$device/internal/Download/up.bin"

# A file added to the device folder by someone else is seen.
echo "from outside" >"$device/internal/Documents/outside.txt"
run mtp-files
check "a file made in the device folder is listed" grep -q "Filename: outside.txt" <<<"$out"

# jmtpfs: a FUSE mount through libmtp, read with ordinary programs.
if command -v jmtpfs >/dev/null && [ -e /dev/fuse ]; then
  mount_dir="$home/mnt"
  mkdir -p "$mount_dir"
  timeout 60 "$bin/quillbox-mtp-run" jmtpfs "$mount_dir" >"$home/jmtpfs.log" 2>&1
  check "jmtpfs mounts the device" mountpoint -q "$mount_dir"
  check "jmtpfs shows the storages" test -d "$mount_dir/SD card"
  check "a file read through jmtpfs is the device's" \
    cmp -s "$mount_dir/Internal storage/Documents/outside.txt" "$device/internal/Documents/outside.txt"
  fusermount3 -u "$mount_dir"
  check "jmtpfs unmounts" bash -c "! mountpoint -q '$mount_dir'"
fi

# Faults of the simulated device.
"$bin/quillbox-simdev" fault demo offline >/dev/null
run mtp-files
check "an offline device cannot be opened" grep -q "Unable to open raw device\|No devices" <<<"$out"
"$bin/quillbox-simdev" fault demo clear >/dev/null
"$bin/quillbox-simdev" fault demo fail-after 100000 >/dev/null
run mtp-getfile "$new_id" "$home/failed.bin"
check "a failing transfer is an error" grep -qi "error" <<<"$out"
"$bin/quillbox-simdev" fault demo clear >/dev/null

# Unplugged in the middle of a transfer.
big_id="$(timeout 60 "$bin/quillbox-mtp-run" mtp-files 2>/dev/null | awk '/^File ID:/ {id=$3} /Filename: exact.bin/ {print id; exit}')"
"$bin/quillbox-simdev" fault demo rate 200000 >/dev/null
timeout 60 "$bin/quillbox-mtp-run" mtp-getfile "$big_id" "$home/cut.bin" >"$home/cut.log" 2>&1 &
getter=$!
check "the slow transfer starts" wait_for test -s "$home/cut.bin"
"$bin/quillbox-simdev" disconnect demo >/dev/null
wait "$getter"
check "unplugging ends the transfer with an error" grep -qi "error" "$home/cut.log"
not_whole() { [ ! -e "$1" ] || [ "$(stat -c %s "$1")" -lt "$2" ]; }
check "the cut file is not left whole" not_whole "$home/cut.bin" 1048576
"$bin/quillbox-simdev" fault demo clear >/dev/null
run mtp-detect
check "an unplugged device is not listed" grep -q "No raw devices found" <<<"$out"
"$bin/quillbox-simdev" connect demo >/dev/null
run mtp-files
check "plugged in again, it is listed again" grep -q "Filename: exact.bin" <<<"$out"

# go-mtpfs takes only devices whose interface name holds "MTP".
if command -v go-mtpfs >/dev/null && [ -e /dev/fuse ]; then
  kill "$emulator_pid"
  wait "$emulator_pid" 2>/dev/null
  : >"$home/emulator.log"
  "$bin/quillbox-mtp-emulator" serve demo --interface-name MTP --die-with-parent >"$home/emulator.log" 2>&1 &
  emulator_pid=$!
  check "emulator serves with a named interface" wait_for grep -qs "^serving demo" "$home/emulator.log"
  mount_dir="$home/gomnt"
  mkdir -p "$mount_dir"
  timeout 60 "$bin/quillbox-mtp-run" go-mtpfs "$mount_dir" >"$home/go-mtpfs.log" 2>&1 &
  go_pid=$!
  check "go-mtpfs mounts the device" wait_for mountpoint -q "$mount_dir"
  check "a file read through go-mtpfs is the device's" \
    cmp -s "$mount_dir/Internal storage/DCIM/Camera/IMG_20230614_091205.jpg" \
    "$device/internal/DCIM/Camera/IMG_20230614_091205.jpg"
  fusermount3 -u "$mount_dir"
  wait "$go_pid"
fi

echo "$passes passed, $failures failed"
[ "$failures" -eq 0 ]
