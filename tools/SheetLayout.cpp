#include "SheetLayout.h"

#include <algorithm>
#include <cstdio>

#include "ToolSupport.h"

namespace KorvaneTool {

namespace {

constexpr int kGlyphW = 5;
constexpr int kGlyphH = 7;
constexpr int kAdvance = kGlyphW + 1;

// ASCII 32..126 in order, five columns per glyph as two hex digits each,
// bit 0 the top row.
constexpr char kFontHex[] =
    "000000000000005F00000007000700147F147F14242A7F2A12231308646236495522500005030000001C2241000041221C0014083E081408083E0808"  //  !"#$%&'()*+
    "00503000000808080808006060000020100804023E5149453E00427F400042615149462141454B311814127F1027454545393C4A4949300171090503"  // ,-./01234567
    "3649494936064949291E003636000000563600000814224100141414141400412214080201510906324979413E7E1111117E7F494949363E41414122"  // 89:;<=>?@ABC
    "7F4141221C7F494949417F090909013E4149497A7F0808087F00417F41002040413F017F081422417F404040407F020C027F7F0408107F3E4141413E"  // DEFGHIJKLMNO
    "7F090909063E4151215E7F09192946464949493101017F01013F4040403F1F2040201F3F4038403F631408146307087008076151494543007F414100"  // PQRSTUVWXYZ[
    "02040810200041417F0004020102044040404040000102040020545454787F484444383844444420384444487F3854545418087E090102485454543C"  // \]^_`abcdefg
    "7F0804047800447D40002040443D007F1028440000417F40007C041804787C0804047838444444387C14141408081414187C7C080404084854545420"  // hijklmnopqrs
    "043F4440203C4040207C1C2040201C3C4030403C44281028440C5050503C4464544C44000836410000007F000000413608000804081008";  // tuvwxyz{|}~

// The font table, decoded once.
struct Font {
  uint8_t glyphs[95][kGlyphW];
  Font() {
    auto nibble = [](char c) { return static_cast<uint8_t>(c <= '9' ? c - '0' : c - 'A' + 10); };
    for (int i = 0; i < 95 * kGlyphW; ++i)
      glyphs[i / kGlyphW][i % kGlyphW] = static_cast<uint8_t>(nibble(kFontHex[2 * i]) << 4 | nibble(kFontHex[2 * i + 1]));
  }
};

const uint8_t* Glyph(unsigned char ch) {
  static const Font font;
  return font.glyphs[(ch >= 32 && ch <= 126 ? ch : '?') - 32];
}

void FillRect(Image& img, int x0, int y0, int x1, int y1, const uint8_t* px) {
  x0 = std::max(x0, 0);
  y0 = std::max(y0, 0);
  x1 = std::min(x1, img.width);
  y1 = std::min(y1, img.height);
  for (int y = y0; y < y1; ++y)
    for (int x = x0; x < x1; ++x) std::copy(px, px + img.channels, img.at(x, y));
}

}  // namespace

int LabelWidth(const std::string& text, int scale) {
  // No spacing column after the last glyph.
  return text.empty() ? 0 : (static_cast<int>(text.size()) * kAdvance - 1) * std::max(scale, 1);
}

int LabelHeight(int scale) { return kGlyphH * std::max(scale, 1); }

void DrawLabel(Image& img, int x, int y, const std::string& text, int scale, Colour colour) {
  scale = std::max(scale, 1);
  uint8_t px[4] = {colour.b, colour.g, colour.r, colour.a};
  if (img.channels == 1) px[0] = static_cast<uint8_t>((colour.r * 299 + colour.g * 587 + colour.b * 114 + 500) / 1000);
  for (size_t i = 0; i < text.size(); ++i) {
    const uint8_t* glyph = Glyph(static_cast<unsigned char>(text[i]));
    const int gx = x + static_cast<int>(i) * kAdvance * scale;
    if (gx >= img.width) break;
    for (int col = 0; col < kGlyphW; ++col)
      for (int row = 0; row < kGlyphH; ++row)
        if (glyph[col] >> row & 1) {
          FillRect(img, gx + col * scale, y + row * scale, gx + (col + 1) * scale, y + (row + 1) * scale, px);
        }
  }
}

Image ScaleToWidth(const Image& img, int width) {
  if (img.width <= 0 || img.height <= 0 || width <= 0) return Image();
  const int height = std::max(1, static_cast<int>(static_cast<int64_t>(img.height) * width / img.width));
  Image out(width, height, img.channels);
  for (int y = 0; y < height; ++y) {
    // Source rows and columns [s0, s1) cover this output pixel; at least one.
    const int sy0 = static_cast<int>(static_cast<int64_t>(y) * img.height / height);
    const int sy1 = std::max(sy0 + 1, static_cast<int>(static_cast<int64_t>(y + 1) * img.height / height));
    for (int x = 0; x < width; ++x) {
      const int sx0 = static_cast<int>(static_cast<int64_t>(x) * img.width / width);
      const int sx1 = std::max(sx0 + 1, static_cast<int>(static_cast<int64_t>(x + 1) * img.width / width));
      const int64_t count = static_cast<int64_t>(sy1 - sy0) * (sx1 - sx0);
      for (int c = 0; c < img.channels; ++c) {
        int64_t sum = 0;
        for (int sy = sy0; sy < sy1; ++sy)
          for (int sx = sx0; sx < sx1; ++sx) sum += img.at(sx, sy)[c];
        out.at(x, y)[c] = static_cast<uint8_t>((sum + count / 2) / count);
      }
    }
  }
  return out;
}

void DrawText(Image& img, int x, int y, int width, int pixel_height, const std::string& text, Colour colour) {
  Image mask;
  if (img.channels != 4) return;
  if (!RenderText(text, pixel_height, mask)) {
    const int scale = std::max(1, pixel_height / kGlyphH);
    DrawLabel(img, x + std::max(0, (width - LabelWidth(text, scale)) / 2), y, text, scale, colour);
    return;
  }
  const int x0 = x + std::max(0, (width - mask.width) / 2);
  const int y0 = y + (pixel_height - mask.height) / 2;
  const uint8_t ink[3] = {colour.b, colour.g, colour.r};
  for (int my = 0; my < mask.height; ++my) {
    const int iy = y0 + my;
    if (iy < 0 || iy >= img.height || iy < y || iy >= y + pixel_height) continue;
    for (int mx = 0; mx < mask.width; ++mx) {
      const int ix = x0 + mx;
      if (ix < 0 || ix >= img.width || ix >= x + width) continue;
      const int a = *mask.at(mx, my);
      uint8_t* p = img.at(ix, iy);
      for (int c = 0; c < 3; ++c) p[c] = static_cast<uint8_t>((ink[c] * a + p[c] * (255 - a) + 127) / 255);
    }
  }
}

void SheetSize(int w, int h, int count, int columns, int64_t& sheet_w, int64_t& sheet_h) {
  columns = std::max(1, std::min(columns, count));
  const int64_t rows = (static_cast<int64_t>(count) + columns - 1) / columns;
  const int64_t scale = std::max(1, w / 160);
  const int64_t gap = 4 * scale;
  const int64_t strip = kGlyphH * 2 * scale + 2 * gap;
  sheet_w = gap + columns * (static_cast<int64_t>(w) + gap);
  sheet_h = gap + rows * (static_cast<int64_t>(h) + strip);
}

Image MakeSheet(const std::vector<Image>& tiles, const std::vector<std::string>& labels, int columns) {
  if (tiles.empty() || columns <= 0) return Image();
  const int tw = tiles[0].width, th = tiles[0].height;
  for (const Image& t : tiles)
    if (t.width != tw || t.height != th || t.channels != 4 || tw <= 0 || th <= 0) return Image();
  int64_t sheet_w = 0, sheet_h = 0;
  SheetSize(tw, th, static_cast<int>(tiles.size()), columns, sheet_w, sheet_h);
  if (sheet_w * sheet_h > kMaxSheetPixels || sheet_w > 65535 || sheet_h > 65535) return Image();

  columns = std::min(columns, static_cast<int>(tiles.size()));
  const int scale = std::max(1, tw / 160);  // label lines about a tenth of a 240-pixel tile
  const int gap = 4 * scale;
  const int text_h = kGlyphH * 2 * scale;
  const int strip = text_h + 2 * gap;
  const int cell_h = th + strip;
  Image sheet(static_cast<int>(sheet_w), static_cast<int>(sheet_h), 4);
  const uint8_t background[4] = {36, 32, 32, 255};
  FillRect(sheet, 0, 0, sheet.width, sheet.height, background);

  for (size_t i = 0; i < tiles.size(); ++i) {
    const int x0 = gap + static_cast<int>(i % columns) * (tw + gap);
    const int y0 = gap + static_cast<int>(i / columns) * cell_h;
    for (int y = 0; y < th; ++y) std::copy(tiles[i].at(0, y), tiles[i].at(0, y) + tw * 4, sheet.at(x0, y0 + y));
    if (i < labels.size()) DrawText(sheet, x0, y0 + th + gap, tw, text_h, labels[i], Colour{235, 235, 235, 255});
  }
  return sheet;
}

Image SheetPhoto(const Image& photo, int tile_width) {
  Image small = tile_width > 0 && photo.width > tile_width ? ScaleToWidth(photo, tile_width) : photo;
  small.meta = photo.meta;
  return small;
}

int CheckSheetSize(const Image& tile, int count, int columns) {
  int64_t w = 0, h = 0;
  SheetSize(tile.width, tile.height, count, columns, w, h);
  if (w * h <= kMaxSheetPixels && w <= 65535 && h <= 65535) return 0;
  return Fail("the sheet would be " + std::to_string(w) + "x" + std::to_string(h) + " pixels, more than " +
              std::to_string(kMaxSheetPixels / 1000000) + " megapixels; use a smaller --tile-width or another --columns");
}

}  // namespace KorvaneTool
