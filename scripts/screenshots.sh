#!/usr/bin/env bash
# Takes the screenshots of the documentation under a virtual display: the
# main window over the demo device, the wait window, the chooser and the
# settings window, at 100 % into docs/ and the main window and the profile
# editor at 200 % (QT_SCALE_FACTOR=2) into docs/scale-200/.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${BUILD_DIR:-build}
cmake --build "$build" -j2 --target quillbox-screenshots quillbox quillbox-simdev
shots="$build/tests/quillbox-screenshots"
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
run() {
  QUILLBOX_HOME="$home" QT_QPA_PLATFORMTHEME= timeout 120 \
    xvfb-run -a -s "-screen 0 2400x1800x24" "$shots" "$@"
}
run docs
mkdir -p docs/scale-200
tmp=$(mktemp -d)
QT_SCALE_FACTOR=2 run "$tmp"
cp "$tmp/main-window.png" "$tmp/settings-profile.png" docs/scale-200/
rm -rf "$tmp"
echo "Screenshots in docs/ and docs/scale-200/"
