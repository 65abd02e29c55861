#!/usr/bin/env bash
# Installs, builds and shows the main job: the shipped demo device, seen
# through the program's device access (its storages and content), and the
# program's command line.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
./scripts/build.sh
export QUILLBOX_HOME="${QUILLBOX_HOME:-$(mktemp -d)}"
bin=build/bin
"$bin/quillbox-simdev" demo
"$bin/quillbox-probe" devices
"$bin/quillbox-probe" props "Quillbox Demo*" --storages
"$bin/quillbox-probe" ls "Quillbox Demo*"
"$bin/quillbox" "/?" 2>&1
echo "Settings, log and the demo device are under $QUILLBOX_HOME"
