#!/usr/bin/env bash
# Builds the library and the korvane tool, then renders every effect on the
# generated demo scene into ./korvane-demo (or the folder given as $1).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh tool
cmake -S . -B build/demo -DCMAKE_BUILD_TYPE=Release -DKORVANE_BUILD_TESTS=OFF -DKORVANE_BUILD_BENCH=OFF > /dev/null
cmake --build build/demo -j"$(nproc)" --target korvane_cli
build/demo/tools/korvane info
build/demo/tools/korvane demo -o "${1:-korvane-demo}"
