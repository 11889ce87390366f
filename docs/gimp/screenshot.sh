#!/usr/bin/env bash
# Takes docs/gimp/menu.png and docs/gimp/dialog.png in the real GIMP under
# Xvfb: a photo open, Filters > Korvane unfolded, then the Light Rays dialog
# with its live preview. GIMP runs with a private GIMP2_DIRECTORY holding
# only the plug-in of build/release; the menus are walked with the keyboard
# (no window manager runs), so the walk assumes GIMP 2.10's Filters menu.
#   xvfb-run -n 99 -s "-screen 0 1400x1000x24" bash docs/gimp/screenshot.sh [photo]
set -euo pipefail
cd "$(dirname "$0")/../.."
photo=$(realpath "${1:-/work/shared/photos/rocket.jpg}")
out=$PWD/docs/gimp
work=$(mktemp -d)
mkdir -p "$work/gui/plug-ins/korvane-gimp" "$work/shot"
ln -s "$PWD/build/release/gimp/korvane-gimp" "$work/gui/plug-ins/korvane-gimp/korvane-gimp"

# The first window whose title matches, waiting for it to appear.
find_window() {
  for _ in $(seq 90); do
    w=$(xdotool search --name "$1" 2>/dev/null | head -1 || true)
    [ -n "$w" ] && { echo "$w"; return; }
    sleep 1
  done
  echo "no window '$1'" >&2
  exit 1
}

# GIMP's own screenshot plug-in, run by a second, console GIMP:
# shoot TYPE WINDOW X1 Y1 X2 Y2 FILE (type 0 a window, 2 a region).
shoot() {
  GIMP2_DIRECTORY=$work/shot gimp-console-2.10 -i -d -f -b "(let* ((img (car (plug-in-screenshot \
    RUN-NONINTERACTIVE $1 $2 $3 $4 $5 $6))) (d (car (gimp-image-get-active-drawable img)))) \
    (gimp-file-save RUN-NONINTERACTIVE img d \"$7\" \"$7\"))" -b '(gimp-quit 0)' > "$work/shot.log" 2>&1
}

GIMP2_DIRECTORY=$work/gui gimp-2.10 -n -d -f -s -b "(gimp-display-new (car (gimp-file-load RUN-NONINTERACTIVE \
  \"$photo\" \"$photo\")))" > "$work/gui.log" 2>&1 &
gimp=$!
trap 'kill $gimp 2>/dev/null || true; rm -rf "$work"' EXIT
main=$(find_window "$(basename "$photo")")
sleep 3
eval "$(xdotool getwindowgeometry --shell "$main")"
# Filters is the menu bar's eighth menu; Korvane sits third from its end.
xdotool mousemove $((X + 410)) $((Y + 12)) click 1
sleep 1
xdotool key Up Up Up Right
sleep 2
shoot 2 0 "$X" "$Y" $((X + WIDTH)) $((Y + HEIGHT)) "$out/menu.png"
# Light Rays is the seventh of the eight filters.
xdotool key Down Down Down Down Down Down Return
dialog=$(find_window "Korvane Light Rays")
xdotool mousemove 0 $((Y + HEIGHT + 40))
sleep 8  # the preview renders
shoot 0 "$dialog" 0 0 0 0 "$out/dialog.png"
