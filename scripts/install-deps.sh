#!/usr/bin/env bash
# Installs the Debian packages that building, testing and benchmarking hemiray
# need, and only those that are missing. Does nothing when everything is present.
set -euo pipefail

packages=(
  cmake g++ make ninja-build pkg-config
  libgtest-dev libgmock-dev libbenchmark-dev
  libpstreams-dev libcli11-dev libhdf5-dev hdf5-tools
  gzip ncompress
  libopenmpi-dev openmpi-bin
  clang libclang-rt-dev libomp-dev
  python3-dev pybind11-dev python3-numpy python3-scipy python3-meshio python3-h5py
  python3-pytest python3-gmsh
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "installing: ${missing[*]}"
sudo=()
[[ $(id -u) -eq 0 ]] || sudo=(sudo)
export DEBIAN_FRONTEND=noninteractive
if ! "${sudo[@]}" apt-get install -y --no-install-recommends "${missing[@]}"; then
  "${sudo[@]}" apt-get update
  "${sudo[@]}" apt-get install -y --no-install-recommends "${missing[@]}"
fi
