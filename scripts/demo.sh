#!/usr/bin/env bash
# Installs, builds and shows the main job.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
./scripts/build.sh
export QUILLBOX_HOME="${QUILLBOX_HOME:-$(mktemp -d)}"
build/bin/quillbox "/?"
