#!/usr/bin/env bash
# Installs what the build and the emulated sensor need, only when missing.
set -euo pipefail

packages=(cmake gcc g++ make pkg-config libusb-1.0-0-dev umockdev libumockdev-dev
          libgtest-dev libgmock-dev libbenchmark-dev python3
          python3-numpy python3-matplotlib python3-pytest python3-h5py python3-tango clang libclang-rt-14-dev valgrind)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  echo "Installing: ${missing[*]}"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
fi
