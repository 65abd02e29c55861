#!/usr/bin/env bash
# Configures and builds Quillbox into build/ (programs in build/bin).
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)"
