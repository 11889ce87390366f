// Labelled picture sheets for the tool: a grid of equal-size tiles, each with
// a caption under it set in a real font (libvips text rendering), or in a
// built-in 5x7 bitmap font where no font is installed. Used by subcommands
// that show every variant of an effect side by side.
//
//   Image small = SheetPhoto(photo, 240);
//   if (int rc = CheckSheetSize(small, 8, columns)) return rc;
//   std::vector<Image> tiles = ...;        // one size, BGRA
//   Image img = MakeSheet(tiles, {"0 split", ...}, columns);
#pragma once

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

// Draws `text` in the bitmap font with its top-left corner at (x, y). ASCII
// 32..126 have glyphs; other bytes draw as '?'. Anything outside the image is
// clipped. On a gray image the colour's luma is drawn.
void DrawLabel(Image& img, int x, int y, const std::string& text, int scale, Colour colour);

// Draws `text` in a sans-serif font about `pixel_height` pixels tall, centred
// in the box (x, y, width, pixel_height) and clipped to it; falls back to the
// bitmap font when no font can be rendered. BGRA images only.
void DrawText(Image& img, int x, int y, int width, int pixel_height, const std::string& text, Colour colour);

// Area-average reduction (or nearest-neighbour enlargement) to `width`
// pixels across, keeping the aspect ratio; at least one row.
Image ScaleToWidth(const Image& img, int width);

// Lays `tiles` out left to right, top to bottom in `columns` columns on a dark
// background, with labels[i] centred in a strip under tile i (missing labels
// leave the strip empty). The label size follows the tile width. Tiles must
// be BGRA and of one size; otherwise, with no tiles, or when the sheet would
// exceed kMaxSheetPixels, the result is empty.
Image MakeSheet(const std::vector<Image>& tiles, const std::vector<std::string>& labels, int columns);

// Sheets are bounded by their own size, whatever the photo.
constexpr int64_t kMaxSheetPixels = 64'000'000;

// The size of the sheet MakeSheet makes from `count` tiles of w x h (64-bit:
// no overflow for any int sizes).
void SheetSize(int w, int h, int count, int columns, int64_t& sheet_w, int64_t& sheet_h);

// The photo a sheet's tiles are rendered from: shrunk to `tile_width` when
// it is wider.
Image SheetPhoto(const Image& photo, int tile_width);

// 0 when a sheet of `count` tiles of `tile`'s size fits kMaxSheetPixels;
// otherwise prints why (naming --tile-width) and returns exit code 1.
int CheckSheetSize(const Image& tile, int count, int columns);

}  // namespace KorvaneTool
