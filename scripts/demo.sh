#!/usr/bin/env bash
# The main job: installs what is needed, builds, creates the demo device,
# maps its internal storage as drive Q and uses the drive as any program
# would (ls, df, cat, cp). The drive stays mapped at the end; the last lines
# say how to unmap it. With --unmount it is unmapped at the end.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
./scripts/build.sh

bin="$PWD/build/bin"
export QUILLBOX_HOME="${QUILLBOX_HOME:-$(mktemp -d /tmp/quillbox-demo-XXXXXX)}"
mkdir -p "$QUILLBOX_HOME"
# The install folder: instances start their children from there.
printf 'Windows Registry Editor Version 5.00\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quillbox]\n@="%s"\n' "$bin" \
  >"$QUILLBOX_HOME/machine.reg"

show() { printf '\n\033[1m$'; printf ' %q' "$@"; printf '\033[0m\n'; }
step() { show "$@"; "$@"; }
# The device library's own messages (property dumps) go to a file.
quiet_step() { show "$@"; "$@" >>"$QUILLBOX_HOME/device-messages.txt"; }

"$bin/quillbox-simdev" demo
step "$bin/quillbox-simdev" list
quiet_step "$bin/quillbox" /mn "Quillbox Demo Phone" /si 1 Q:
echo "mapped (exit code $?)"
drive="$QUILLBOX_HOME/drives/Q"
step grep " $drive " /proc/mounts
step ls -l "$drive"
step ls -l "$drive/DCIM/Camera"
step df -h "$drive"
step cat "$drive/Documents/Shopping list.txt"
photo="$(ls "$drive/DCIM/Camera" | head -n 1)"
step cp "$drive/DCIM/Camera/$photo" "$QUILLBOX_HOME/$photo"
step cmp "$QUILLBOX_HOME/$photo" "$QUILLBOX_HOME/devices/demo/internal/DCIM/Camera/$photo"
printf 'The copied photo "%s" (%s bytes, starts with %s) is the device'"'"'s file byte for byte.\n' \
  "$photo" "$(stat -c %s "$QUILLBOX_HOME/$photo")" "$(head -c 3 "$QUILLBOX_HOME/$photo" | od -An -tx1 | tr -d ' ')"

if [ "${1:-}" = "--unmount" ]; then
  quiet_step "$bin/quillbox" /u Q:
  echo "Drive Q unmapped."
else
  echo
  echo "The demo phone stays mapped as $drive. To unmap it:"
  echo "  QUILLBOX_HOME=$QUILLBOX_HOME $bin/quillbox /u Q:"
fi
