#!/usr/bin/env bash
# Builds the library and the korvane tool, then renders every effect on the
# generated demo scene into ./korvane-demo (or the folder given as $1).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release > /dev/null
cmake --build build/release -j"$(nproc)" --target korvane_cli
build/release/tools/korvane info
build/release/tools/korvane demo -o "${1:-korvane-demo}"
