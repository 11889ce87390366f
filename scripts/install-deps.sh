#!/usr/bin/env bash
# Installs the Debian packages a fresh machine lacks (only those missing).
#   install-deps.sh tool     what the library and the korvane tool need
#   install-deps.sh python   that, plus the Python package and what its examples use
#   install-deps.sh gimp     that, plus GIMP 2.10 and its plug-in development files
#   install-deps.sh          all of it, plus what the tests and benchmarks need
set -euo pipefail

packages=(
  cmake g++ make pkg-config binutils
  libcli11-dev nlohmann-json3-dev                    # the korvane tool's options and flow files
  libvips-dev libwebp-dev libimagequant-dev libcgif-dev  # the tool's image files and animations
)
if [ "${1:-all}" = "gimp" ] || [ "${1:-all}" = "all" ]; then
  packages+=(gimp libgimp2.0-dev)                    # the GIMP plug-in and its headless tests
fi
if [ "${1:-all}" = "python" ] || [ "${1:-all}" = "all" ]; then
  packages+=(
    python3-dev pybind11-dev python3-numpy            # the Python package
    python3-pil python3-dask python3-distributed      # its Dask example (Pillow reads and writes the photos)
  )
fi
if [ "${1:-all}" = "all" ]; then
  packages+=(
    python3-pytest                                   # the Python package's tests
    libgtest-dev libbenchmark-dev zlib1g-dev         # tests and benchmarks (zlib: checksums of made-up PNG files)
    libopencv-dev libcgal-dev                        # peers in benchmarks and cross-checks only
    clang libfuzzer-14-dev libclang-rt-14-dev        # fuzz targets (libFuzzer, sanitizers)
  )
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
