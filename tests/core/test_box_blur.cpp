#include <algorithm>
#include <cmath>
#include <cstring>

#include "TestSupport.h"
#include "core/BoxBlur.h"
#include "core/BoxBlurDetail.h"

using namespace Korvane;
using namespace KorvaneTest;

namespace {

// A test image with its pixels, in any of the blur's formats.
struct Image {
  int w, h, fmt;
  std::vector<uint8_t> pixels;
  Image(int w_, int h_, int fmt_) : w(w_), h(h_), fmt(fmt_), pixels(size_t(w_) * h_ * BytesPerPixel(fmt_)) {}
  // Sample i of a float or INT32 image.
  template <class T> T Get(size_t i) const { T v; std::memcpy(&v, &pixels[i * sizeof(T)], sizeof(T)); return v; }
  template <class T> void Set(size_t i, T v) { std::memcpy(&pixels[i * sizeof(T)], &v, sizeof(T)); }
  bool IsFloat() const { return fmt == PIXEL_FLOAT32 || fmt == PIXEL_FLOAT96; }
  Rect Whole() const { return Rect{0, 0, w, h}; }
  BoxBlurParam Param(int radius, const uint8_t* mask = nullptr) {
    return BoxBlurParam{MakeImageBuffer(pixels.data(), w, h, fmt), radius, mask};
  }
};

// Random content. Float samples are multiples of 1/64 below 64, so every
// window sum is exact and the reference's plain sum agrees bit for bit with
// the kernels' running sums, unless `any_float` asks for floats of any
// magnitude and rounding; integers span the whole 32-bit range.
Image Random(int w, int h, int fmt, uint32_t seed, bool any_float = false) {
  Image img(w, h, fmt);
  std::mt19937 rng(seed);
  const size_t samples = img.pixels.size() / (fmt == PIXEL_BGRA32 || fmt == PIXEL_GRAY8 ? 1 : 4);
  for (size_t i = 0; i < samples; ++i) {
    if (img.IsFloat()) {
      img.Set<float>(i, any_float ? std::ldexp(static_cast<float>(rng() % 100000), -int(rng() % 20))
                                  : static_cast<float>(static_cast<int>(rng() % 8192) - 4096) / 64.0f);
    } else if (fmt == PIXEL_INT32) {
      img.Set<int32_t>(i, static_cast<int32_t>(rng()));
    } else {
      img.pixels[i] = static_cast<uint8_t>(rng());
    }
  }
  return img;
}

// Mask weights with plenty of 0 (keep) and 255 (blur fully) among the rest.
std::vector<uint8_t> TestMask(int w, int h) {
  std::vector<uint8_t> mask(size_t(w) * h);
  for (size_t i = 0; i < mask.size(); ++i) mask[i] = static_cast<uint8_t>(i % 5 == 0 ? 0 : i % 7 == 0 ? 255 : i * 37);
  return mask;
}

// The slow, obvious blur of one pass: each sample becomes the mean of the
// window [p - r + 1, p + r - 1] cut to the line, rounded per format; the
// masked form then mixes it with the original by mask / 255.
Image Reference(const Image& in, int r, bool rows, const uint8_t* mask = nullptr) {
  Image out = in;
  if (r <= 1) return out;
  const int ch = in.fmt == PIXEL_BGRA32 ? 3 : ChannelCount(in.fmt);
  const int ps = in.fmt == PIXEL_BGRA32 ? 4 : ch;
  const int len = rows ? in.w : in.h, lines = rows ? in.h : in.w;
  for (int line = 0; line < lines; ++line) {
    for (int p = 0; p < len; ++p) {
      const int lo = std::max(0, p - r + 1), hi = std::min(len - 1, p + r - 1), n = hi - lo + 1;
      auto index = [&](int q, int c) {
        const int x = rows ? q : line, y = rows ? line : q;
        return (size_t(y) * in.w + x) * ps + c;
      };
      for (int c = 0; c < ch; ++c) {
        if (in.IsFloat()) {
          double s = 0;
          for (int q = lo; q <= hi; ++q) s += in.Get<float>(index(q, c));
          out.Set<float>(index(p, c), static_cast<float>(s * (1.0 / n)));
        } else if (in.fmt == PIXEL_INT32) {
          int64_t s = 0;
          for (int q = lo; q <= hi; ++q) s += in.Get<int32_t>(index(q, c));
          const int64_t num = 2 * s + n, den = 2 * int64_t{n};
          out.Set<int32_t>(index(p, c), static_cast<int32_t>(num >= 0 ? num / den : -((-num + den - 1) / den)));
        } else {
          int64_t s = 0;
          for (int q = lo; q <= hi; ++q) s += in.pixels[index(q, c)];
          int v = static_cast<int>(std::min(255.0, std::trunc(static_cast<double>(s) / n + 0.5)));
          if (mask) {
            const int x = rows ? p : line, y = rows ? line : p, m = mask[y * in.w + x];
            const double mixed = (in.pixels[index(p, c)] * (255.0 - m) + v * double(m)) / 255.0;
            v = static_cast<int>(std::floor(mixed + 0.5));
          }
          out.pixels[index(p, c)] = static_cast<uint8_t>(v);
        }
      }
    }
  }
  return out;
}

// One pass in the form `info` picks (plain by default).
int32_t RunPass(Runner& run, BoxBlurParam& p, bool rows, Rect band, const SystemInfo& info = Level(0)) {
  const auto task = rows ? KORVANE_PICK_AVX2(info, BoxBlurH, BoxBlurH_SSE, BoxBlurH_AVX2)
                         : KORVANE_PICK_AVX2(info, BoxBlurV, BoxBlurV_SSE, BoxBlurV_AVX2);
  return run.adapter.RunTaskByMultiThread(task.fn, &p, nullptr, band, rows);
}

const int kFormats[] = {PIXEL_BGRA32, PIXEL_GRAY8, PIXEL_FLOAT32, PIXEL_FLOAT96, PIXEL_INT32};
// Every variant: the formats, and kMasked for the masked BGRA32 blur.
constexpr int kMasked = -1;
const int kVariants[] = {PIXEL_BGRA32, PIXEL_GRAY8, PIXEL_FLOAT32, PIXEL_FLOAT96, PIXEL_INT32, kMasked};
int FormatOf(int variant) { return variant == kMasked ? PIXEL_BGRA32 : variant; }

}  // namespace

TEST(BoxBlurDivider, ExactRoundingForEveryByteSum) {
  using boxblur_detail::Divide8;
  using boxblur_detail::MakeRecip8;
  for (uint32_t n = 1; n <= 300; ++n) {
    const auto rc = MakeRecip8(n);
    for (uint32_t s = 0; s <= 255 * n; ++s) ASSERT_EQ(Divide8(s, rc), (s + n / 2) / n) << s << "/" << n;
  }
  // Large windows: the sums next to every rounding boundary.
  for (uint32_t n : {1023u, 4095u, 65537u, 1000003u, 2097151u, 2097152u}) {
    const auto rc = MakeRecip8(n);
    for (uint32_t q = 0; q <= 255; ++q)
      for (int64_t d = -2; d <= 2; ++d) {
        const int64_t s = int64_t{q} * n - n / 2 + d;
        if (s < 0 || s > int64_t{255} * n) continue;
        ASSERT_EQ(Divide8(static_cast<uint32_t>(s), rc), (s + n / 2) / n) << s << "/" << n;
      }
  }
  for (uint32_t o = 0; o < 256; ++o)
    for (uint32_t b = 0; b < 256; ++b)
      for (uint32_t m = 0; m < 256; m += 3)
        ASSERT_EQ(boxblur_detail::MixByMask(o, b, m), (o * (255 - m) + b * m + 127) / 255);
}

TEST(BoxBlur, PlainMatchesTheReferenceForEveryVariantAndRadius) {
  Runner run;
  const struct { int w, h; } sizes[] = {{23, 9}, {1, 5}, {7, 1}, {40, 33}};
  for (int v : kVariants)
    for (const auto& s : sizes) {
      const std::vector<uint8_t> mask = TestMask(s.w, s.h);
      const uint8_t* m = v == kMasked ? mask.data() : nullptr;
      for (int r : {0, 1, 2, 3, 5, 12, 20, 21, 100})
        for (bool rows : {true, false}) {
          Image img = Random(s.w, s.h, FormatOf(v), static_cast<uint32_t>(s.w * 7 + r));
          const Image want = Reference(img, r, rows, m);
          BoxBlurParam p = img.Param(r, m);
          ASSERT_EQ(RunPass(run, p, rows, img.Whole()), S_OK);
          ASSERT_EQ(img.pixels, want.pixels) << "variant " << v << " " << s.w << "x" << s.h << " r " << r
                                             << (rows ? " H" : " V");
        }
    }
}

TEST(BoxBlur, BadRecordsAreRefusedAndLogged) {
  Runner run;
  const struct { void (*edit)(BoxBlurParam&); int32_t want; } bad[] = {
      {[](BoxBlurParam& p) { p.radius = -1; }, E_INVALIDARG},
      {[](BoxBlurParam& p) { p.src.data = nullptr; }, E_POINTER},
      {[](BoxBlurParam& p) { p.src.pix_fmt = PIXEL_GRAY16; }, E_NOTIMPL},
      {[](BoxBlurParam& p) { p.mask = p.src.data, p.src.pix_fmt = PIXEL_GRAY8; }, E_NOTIMPL},  // only BGRA has a mask
      {[](BoxBlurParam& p) { p.src.stride = 20; }, E_INVALIDARG},  // shorter than the row
  };
  Image img = Random(9, 6, PIXEL_BGRA32, 3);
  for (const Form& form : Forms())
    for (bool rows : {true, false})
      for (const auto& b : bad) {
        BoxBlurParam p = img.Param(3);
        b.edit(p);
        EXPECT_EQ(RunPass(run, p, rows, img.Whole(), form.info), b.want) << form.name << " " << &b - bad;
      }
  testing::internal::CaptureStderr();
  BoxBlurParam p = img.Param(-2);
  EXPECT_EQ(RunBoxBlur(run.adapter, Level(0), p, img.Whole()), E_INVALIDARG);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "[Korvane] m_thread_adapter.RunTaskByMultiThread(BoxBlurH, (void*)&boxblur_param, "
                "nullptr, roi) Error! - Return Code: 80070057"),
            std::string::npos);
  // The band-by-band task without its record.
  ThreadJob job{nullptr, nullptr, Rect{0, 0, 4, 4}};
  BoxBlurRepeatParam empty;
  job.param = &empty;
  for (const Form& form : Forms()) {
    int32_t result = 1;
    EXPECT_EQ(KORVANE_PICK_AVX2(form.info, BoxBlurHRepeat, BoxBlurHRepeat_SSE, BoxBlurHRepeat_AVX2).fn(&job, &result),
              E_POINTER);
    EXPECT_EQ(result, E_POINTER);
  }
}

TEST(BoxBlur, PartialBandStillBlursWholeLinesAndOnlyItsOwn) {
  Runner run(3);
  const Image orig = Random(31, 27, PIXEL_GRAY8, 8);
  for (bool rows : {true, false}) {
    Image img = orig;
    const Image full = Reference(img, 4, rows);
    BoxBlurParam p = img.Param(4);
    // The band covers a few columns and rows; the pass still treats whole lines.
    ASSERT_EQ(RunPass(run, p, rows, rows ? Rect{10, 5, 12, 20} : Rect{6, 13, 22, 14}), S_OK);
    for (int y = 0; y < 27; ++y)
      for (int x = 0; x < 31; ++x) {
        const bool in = rows ? (y >= 5 && y < 20) : (x >= 6 && x < 22);
        const size_t i = size_t(y) * 31 + x;
        ASSERT_EQ(img.pixels[i], in ? full.pixels[i] : orig.pixels[i]);
      }
  }
}

TEST(BoxBlur, ConstantImagesStayConstantAndHugeWindowsAverageTheWholeLine) {
  Runner run;
  for (const Form& form : Forms()) {
    for (int fmt : kFormats) {
      Image flat(26, 17, fmt);
      for (size_t i = 0; i < flat.pixels.size() / (BytesPerPixel(fmt) / ChannelCount(fmt)); ++i) {
        if (flat.IsFloat()) flat.Set<float>(i, 0.1f);
        else if (fmt == PIXEL_INT32) flat.Set<int32_t>(i, -123456789);
        else flat.pixels[i] = 201;
      }
      const auto before = flat.pixels;
      for (int r : {2, 9, 13, 60}) {
        BoxBlurParam p = flat.Param(r);
        ASSERT_EQ(RunBoxBlur(run.adapter, form.info, p, flat.Whole(), 2), S_OK);
        ASSERT_EQ(flat.pixels, before) << form.name << " fmt " << fmt << " r " << r;
      }
    }
    // Any window wider than the lines gives the same as one just as wide.
    for (int r : {6, 1000, 1 << 30}) {
      Image img = Random(5, 3, PIXEL_GRAY8, 2);
      const Image want = Reference(Reference(img, 6, true), 6, false);
      BoxBlurParam p = img.Param(r);
      ASSERT_EQ(RunBoxBlur(run.adapter, form.info, p, img.Whole()), S_OK);
      EXPECT_EQ(img.pixels, want.pixels) << form.name << " " << r;
    }
  }
}

// Every SIMD form against the plain one on awkward sizes (1 to 40 columns,
// long rows, tall strips, windows wider than the image), each pass alone on
// padded rows whose padding and guard bytes stay untouched, and RunBoxBlur,
// which may blur an 8-bit image in one sweep per row band.
TEST(BoxBlur, SimdFormsMatchPlainBitExactOnAwkwardSizes) {
  Runner run(3);
  std::vector<std::pair<int, int>> sizes = {{333, 5}, {6, 301}, {257, 129}, {200, 37}, {33, 300}, {7, 120}};
  for (int w = 1; w <= 40; ++w) sizes.push_back({w, 1 + (w * 7) % 23});
  const std::vector<Form> forms = Forms();
  for (int v : kVariants)
    for (const auto& s : sizes) {
      const std::vector<uint8_t> mask = TestMask(s.first, s.second);
      const uint8_t* m = v == kMasked ? mask.data() : nullptr;
      for (int r : {1, 2, 3, 8, 17, 31, 64}) {
        // Arbitrary floats here: the forms must agree whatever the rounding.
        const Image orig = Random(s.first, s.second, FormatOf(v), static_cast<uint32_t>(s.first * 31 + r + v), true);
        Image plain = orig;
        for (bool rows : {true, false}) {
          BoxBlurParam pp = plain.Param(r, m);
          ASSERT_EQ(RunPass(run, pp, rows, plain.Whole()), S_OK);
        }
        for (size_t f = 1; f < forms.size(); ++f) {
          const std::string what = std::string(forms[f].name) + " variant " + std::to_string(v) + " " +
                                   std::to_string(s.first) + "x" + std::to_string(s.second) + " r " + std::to_string(r);
          TestImage padded(s.first, s.second, FormatOf(v), 8);
          padded.Fill(orig.pixels);
          BoxBlurParam pf{padded.buf, r, m};
          for (bool rows : {true, false}) ASSERT_EQ(RunPass(run, pf, rows, orig.Whole(), forms[f].info), S_OK);
          ASSERT_EQ(padded.Packed(), plain.pixels) << what;
          ASSERT_TRUE(padded.GuardsIntact()) << what;
          Image swept = orig;
          BoxBlurParam pw = swept.Param(r, m);
          ASSERT_EQ(RunBoxBlur(run.adapter, forms[f].info, pw, swept.Whole()), S_OK);
          ASSERT_EQ(swept.pixels, plain.pixels) << what << " one sweep";
        }
      }
    }
}

TEST(BoxBlur, SameResultForOneTwoAndEightWorkers) {
  for (int fmt : kFormats)
    for (const Form& form : Forms())
      ExpectSameForWorkerCounts(
          [&](Runner& run) {
            Image img = Random(61, 43, fmt, 21);
            BoxBlurParam p = img.Param(7);
            const int passes = fmt == PIXEL_BGRA32 || fmt == PIXEL_GRAY8 ? 1 : 2;  // 1: the sweep
            EXPECT_EQ(RunBoxBlur(run.adapter, form.info, p, img.Whole(), passes), S_OK);
            return img.pixels;
          },
          "fmt " + std::to_string(fmt) + " " + form.name);
}

// Several horizontal passes run band by band as one task (RunBoxBlur with
// passes > 1, every form): the same bytes as the plain passes run over the
// whole image one after another, for every format and awkward geometry.
// Heights not a multiple of 8 or 4 leave rows to the SSE4.1 and plain tails;
// radius 9 is wider than the narrow images; floats of any magnitude and
// rounding show any change of order or of the intermediate rounding.
TEST(BoxBlurRepeated, BandByBandPassesMatchWholeImagePassesBitForBit) {
  const struct { int w, h; } sizes[] = {{1, 1}, {3, 7}, {13, 9}, {37, 6}, {64, 11}, {29, 20}};
  Runner run2(2), run3(3);
  for (const auto& s : sizes)
    for (int fmt : {PIXEL_FLOAT96, PIXEL_FLOAT32, PIXEL_BGRA32, PIXEL_GRAY8})
      for (int r : {1, 2, 9})
        for (int passes : {2, 3}) {
          const Image src = Random(s.w, s.h, fmt, 7 * s.w + s.h + r, true);
          Image want = src;
          BoxBlurParam pw = want.Param(r);
          for (bool rows : {true, false})
            for (int i = 0; i < passes; ++i) ASSERT_EQ(RunPass(run2, pw, rows, want.Whole()), S_OK);
          for (const Form& form : Forms()) {
            Image got = src;
            BoxBlurParam pg = got.Param(r);
            ASSERT_EQ(RunBoxBlur(run3.adapter, form.info, pg, got.Whole(), passes), S_OK);
            ASSERT_EQ(got.pixels, want.pixels)
                << s.w << "x" << s.h << " format " << fmt << " r " << r << " passes " << passes << " " << form.name;
          }
        }
}
