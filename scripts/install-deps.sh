#!/usr/bin/env bash
# Installs the Debian 12 packages Quillbox needs to build, run and test.
# Idempotent; runs apt-get only when something is missing.
set -euo pipefail

packages=(
  build-essential cmake pkg-config ccache
  libfuse3-dev fuse3
  libmtp-dev
  qt6-base-dev libxcb1-dev xvfb
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  tzdata procps psmisc
  rsync tar coreutils findutils
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  echo "Installing: ${missing[*]}"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
fi
