#!/usr/bin/env bash
# Installs the Debian packages only `make bench` needs, only those missing: the
# parsers and PKCS#11 tracers it measures against, and the profilers used to
# find out why a figure falls short. `make test` never needs them.
set -euo pipefail

packages=(
  libbenchmark-dev python3
  nlohmann-json3-dev rapidjson-dev libtinyxml2-dev libpugixml-dev
  softhsm2 opensc p11-kit p11-kit-modules util-linux
  valgrind linux-perf
)

exec "$(dirname "$0")/apt-install-missing.sh" "${packages[@]}"
