#!/usr/bin/env bash
# Installs every system dependency of the project from Debian packages.
# Safe to run again: packages already present are left as they are.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build pkg-config
  libboost-dev libboost-program-options-dev libboost-filesystem-dev
  libboost-log-dev libboost-thread-dev libboost-chrono-dev
  libboost-date-time-dev libboost-system-dev libboost-atomic-dev
  libhdf5-dev hdf5-tools
  libopenblas-dev
  libcurl4-openssl-dev
  libzmq3-dev
  rapidjson-dev
  zlib1g-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  python3-numpy python3-h5py python3-matplotlib python3-edlib
  openssl
  libedlib-dev seqkit
  libminimap2-dev
  clang libfuzzer-14-dev libclang-rt-14-dev
  snakemake
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all system packages already installed"
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update
$SUDO apt-get install -y --no-install-recommends "${missing[@]}"
