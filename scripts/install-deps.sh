#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need; as a normal user it
# only names the missing ones.
set -euo pipefail

packages=(
  cmake ninja-build g++ clang libclang-rt-14-dev make
  libgtest-dev libgmock-dev libbenchmark-dev
  android-libcutils-dev android-libutils-dev android-liblog-dev
  iproute2 procps
  libevent-dev libsystemd-dev pkg-config valgrind
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "Missing build dependencies. Install them with:" >&2
  echo "  sudo apt-get install ${missing[*]}" >&2
  exit 1
fi
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
