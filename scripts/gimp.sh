#!/usr/bin/env bash
# Builds the GIMP plug-in and installs it with the library it links into the
# user's GIMP 2.10 plug-in folder ($GIMP2_DIRECTORY when set, else
# ~/.config/GIMP/2.10). After GIMP restarts, every korvane command is a
# filter under Filters > Korvane.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh gimp
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release > /dev/null
cmake --build build/release -j"$(nproc)" --target korvane_gimp
# GIMP runs plug-ins/NAME/NAME; the program finds the library beside itself.
dest="${GIMP2_DIRECTORY:-$HOME/.config/GIMP/2.10}/plug-ins/korvane-gimp"
mkdir -p "$dest"
install -m 755 build/release/gimp/korvane-gimp "$dest/korvane-gimp"
install -m 644 build/release/libkorvane.so.0 "$dest/libkorvane.so.0"
echo "Installed into $dest; restart GIMP and look under Filters > Korvane."
