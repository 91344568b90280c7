#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, only those missing.
set -euo pipefail

packages=(
  g++ cmake ninja-build make pkg-config
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  libp11-kit-dev libpcsclite-dev libssl-dev openssl
  net-tools python3
  softhsm2 opensc dpkg-dev file
  # PKCS#11 3.0 definitions (names, interface layout) and the NSS tools of the spy tests
  libnss3-dev libnss3-tools
  # zelph-log: its command line and its JSON output
  libcli11-dev nlohmann-json3-dev
  # make fuzz: clang with libFuzzer and its sanitizer runtimes
  clang libclang-rt-14-dev
)

exec "$(dirname "$0")/apt-install-missing.sh" "${packages[@]}"
