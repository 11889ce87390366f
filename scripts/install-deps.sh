#!/usr/bin/env bash
# Installs the Debian packages a fresh machine lacks (only those missing).
set -euo pipefail

packages=(
  cmake g++ make pkg-config binutils
  libgtest-dev libbenchmark-dev                      # tests and benchmarks
  libcli11-dev nlohmann-json3-dev                    # the korvane tool's options and flow files
  libspng-dev libturbojpeg0-dev libwebp-dev libgif-dev  # the tool's image files
  libopencv-dev libcgal-dev                          # peers in benchmarks and cross-checks only
)

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
