#!/bin/sh
# Installs the Linux MTP file systems that bench/mtp/side_by_side.sh
# compares with (Debian packages). Neither the build nor the tests need them.
set -e
if [ "$(id -u)" -ne 0 ]; then
  echo "install-tools.sh: run as root (apt-get)" >&2
  exit 1
fi
apt-get update
apt-get install -y --no-install-recommends jmtpfs go-mtpfs mtp-tools fuse3
