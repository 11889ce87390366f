// Labelled picture sheets for the tool: a built-in 5x7 bitmap font and a
// grid layout of equal-size tiles, each with a caption strip under it. Used
// by subcommands that show every variant of an effect side by side.
//
//   std::vector<Image> tiles = ...;                  // one size, BGRA
//   Image sheet = MakeSheet(tiles, {"0 split", ...}, 4);
//   DrawLabel(sheet, 8, 8, "note", 2, Colour{255, 255, 255, 255});
//   return WriteSheet(path, tiles, labels, 4, 92, "all 8 types");  // or lay out and save in one
#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <string>
#include <vector>

#include "ImageIO.h"

namespace KorvaneTool {

// A BGRA colour, in the byte order of the images.
struct Colour {
  uint8_t b = 0, g = 0, r = 0, a = 255;
};

// Size of `text` drawn at `scale` (each font pixel becomes scale x scale):
// glyphs are 5 x 7 with one column of spacing, so a character takes
// 6 x scale pixels across and a line 7 x scale pixels down.
int LabelWidth(const std::string& text, int scale);
int LabelHeight(int scale);

// Draws `text` with its top-left corner at (x, y). ASCII 32..126 have
// glyphs; other bytes draw as '?'. Anything outside the image is clipped. On
// a gray image the colour's luma is drawn.
void DrawLabel(Image& img, int x, int y, const std::string& text, int scale, Colour colour);

// Area-average reduction (or nearest-neighbour enlargement) to `width`
// pixels across, keeping the aspect ratio; at least one row.
Image ScaleToWidth(const Image& img, int width);

// Lays `tiles` out left to right, top to bottom in `columns` columns on a dark
// background, with labels[i] centred in a strip under tile i (missing labels
// leave the strip empty). The label size follows the tile width. Tiles must
// be BGRA and of one size; otherwise, or with no tiles, the result is empty.
Image MakeSheet(const std::vector<Image>& tiles, const std::vector<std::string>& labels, int columns);

// A subcommand's sheet of every variant, as set on its command line.
struct SheetOptions {
  bool on = false;
  int tile_width = 0;  // shrink the photo to this width first; 0 keeps it
  int columns = 4;
};

// Adds `flag` (e.g. "--type-sheet": write `what`, e.g. "all eight types",
// side by side instead of one), --tile-width (16..4096) and --columns
// (1..max_columns) to a subcommand.
void AddSheetOptions(CLI::App& sub, const std::string& flag, const std::string& what, int max_columns,
                     SheetOptions* o);

// The photo a sheet's tiles are rendered from: shrunk to the tile width when
// it is wider.
Image SheetPhoto(const Image& photo, const SheetOptions& o);

// MakeSheet, then writes the sheet to `path` (JPEG at `quality`) and prints
// "wrote <path> (<what>, <width>x<height>)". 0, or the exit code of a failure.
int WriteSheet(const std::string& path, const std::vector<Image>& tiles, const std::vector<std::string>& labels,
               int columns, int quality, const std::string& what);

}  // namespace KorvaneTool
