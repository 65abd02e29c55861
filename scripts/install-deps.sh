#!/usr/bin/env bash
# Installs the Debian 12 packages Quillbox needs to build, run and test.
# Idempotent; runs apt-get only when something is missing.
set -euo pipefail

packages=(
  build-essential cmake pkg-config ccache
  libfuse3-dev fuse3
  libmtp-dev libusb-1.0-0-dev mtp-tools jmtpfs go-mtpfs
  qt6-base-dev qt6-svg-dev libxcb1-dev xvfb xauth
  x11-utils dbus  # window tests: xwininfo/xprop, a private session bus (docs/ui.md)
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  tzdata procps psmisc
  rsync tar coreutils findutils
  clang libclang-rt-dev  # the fuzzing build (docs/fuzzing.md)
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
