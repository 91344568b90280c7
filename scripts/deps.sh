#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, only those missing.
set -euo pipefail

packages=(
  g++ cmake ninja-build make pkg-config
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  libp11-kit-dev libpcsclite-dev libssl-dev openssl
  net-tools chromium
  softhsm2 opensc dpkg-dev file
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing missing packages: ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then SUDO=sudo; else
    echo "error: not root and no sudo; install these packages: ${missing[*]}" >&2
    exit 1
  fi
fi
export DEBIAN_FRONTEND=noninteractive
if ! $SUDO apt-get install -y --no-install-recommends "${missing[@]}"; then
  $SUDO apt-get update
  $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
fi
