#!/usr/bin/env bash
# Installs what the build and the emulated sensor need, only when missing.
set -euo pipefail

packages=(cmake gcc g++ make pkg-config libusb-1.0-0-dev umockdev libumockdev-dev colord-data
          libeigen3-dev libhdf5-dev liblbfgspp-dev
          libgtest-dev libgmock-dev libbenchmark-dev python3
          python3-numpy python3-matplotlib python3-pytest python3-h5py python3-tango clang libclang-rt-14-dev valgrind
          python3-aiohttp python3-selenium python3-mypy chromium chromium-driver python3-pandas)
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

# Pinned npm packages, kept in the build tree: uPlot draws the live view's
# plot (the install rule copies its two files under share/orb-sensor), and
# jcampconverter reads back the JCAMP-DX files the package writes in its
# tests (an independent reader, run with node). They are installed in one
# command: npm drops from the prefix what a later install does not name.
npm_packages=(uplot@1.6.32 jcampconverter@12.5.3)
npm_dir="$(cd "$(dirname "$0")/.." && pwd)/build/npm"
for package in "${npm_packages[@]}"; do
  name=${package%@*}
  if ! grep -qs '"version": "'"${package##*@}"'"' "$npm_dir/node_modules/$name/package.json"; then
    command -v npm >/dev/null || { echo "setup.sh: $package needs npm (Node.js 18 or later)" >&2; exit 1; }
    echo "Installing ${npm_packages[*]} into $npm_dir"
    mkdir -p "$npm_dir"
    npm install --prefix "$npm_dir" --no-save --no-package-lock --no-audit --no-fund "${npm_packages[@]}" >/dev/null
    break
  fi
done
