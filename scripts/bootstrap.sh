#!/usr/bin/env bash
# Installs, with apt-get, every Debian 12 package that building, testing and benchmarking Quillo
# needs. Safe to run again: packages already present are left alone and nothing is downloaded.
set -euo pipefail

packages=(
  # toolchain
  build-essential g++ clang cmake ninja-build ccache pkg-config git python3
  # libraries
  libasio-dev libprotobuf-dev protobuf-compiler nlohmann-json3-dev libplist-dev
  libhowardhinnant-date-dev libfmt-dev libexpected-dev libcli11-dev libssl-dev libsqlite3-dev
  libblkid-dev libmount-dev libacl1-dev libattr1-dev libicu-dev
  libsystemd-dev dbus-daemon polkitd  # sd-bus for polkit; the approval tests' private bus and polkitd
  # tests and benchmarks
  googletest libgtest-dev libgmock-dev libbenchmark-dev tzdata procps time
  # disk and file tools the tests, benchmarks and Linux routes drive
  rsync btrfs-progs gdisk util-linux fdisk e2fsprogs dosfstools attr acl
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "bootstrap: all ${#packages[@]} packages are installed."
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then SUDO="sudo"; else
    echo "bootstrap: these packages are missing and installing them needs root: ${missing[*]}" >&2
    exit 1
  fi
fi

echo "bootstrap: installing ${#missing[@]} missing package(s): ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
echo "bootstrap: done."
