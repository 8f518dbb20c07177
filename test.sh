#!/usr/bin/env bash
# Builds everything as users get it and runs all tests: ./test.sh
# ./test.sh --arm does the same for 32-bit ARM, the tests under an emulator.
# Installs what is missing.
set -euo pipefail
cd "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")"

native() {
  local packages
  mapfile -t packages <tools/build-packages
  tools/install-packages "${packages[@]}" libgtest-dev libgmock-dev libbenchmark-dev iproute2 \
    pkgconf busybox jq python3-jsonschema chromium chromium-driver
  cmake --preset release -DQUARN_TESTS=ON -DQUARN_BENCH=ON
  cmake --build --preset release
  ctest --preset release
}

arm() {
  if ! dpkg --print-foreign-architectures | grep -qx armhf; then
    local root=()
    [ "$(id -u)" -eq 0 ] || root=(sudo)
    "${root[@]}" dpkg --add-architecture armhf
  fi
  tools/install-packages cmake make g++-arm-linux-gnueabihf qemu-user libbitstream-dev libcli11-dev \
    nlohmann-json3-dev prometheus-cpp-dev libprometheus-cpp-core1.0:armhf libmicrohttpd-dev:armhf \
    libsrt-openssl-dev:armhf libsystemd-dev:armhf libconfig-dev:armhf libpcap-dev:armhf libgtest-dev:armhf \
    libgmock-dev:armhf libstdc++6:armhf libjs-dygraphs busybox jq python3-jsonschema chromium \
    chromium-driver
  cmake --preset arm
  cmake --build --preset arm
  ctest --preset arm
}

case "${1-}" in
  "") native ;;
  --arm) arm ;;
  *)
    echo "usage: ./test.sh [--arm]" >&2
    exit 2
    ;;
esac
