// Every effect's parameter record through the engine: random fields, image
// sizes, strides, formats, regions, frame counts and indices, and null
// pointers where the record allows them. Each call must answer with a result
// code and write nothing outside the caller's pixels (guard bytes around and
// between the rows of every image). Bokeh and sparkle also take hostile
// manual positions and both region modes, and a region render of bokeh,
// sparkle or light rays must be the crop of the whole render. One table
// entry per effect; the first input byte picks the entry.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "FuzzSupport.h"
#include "effects/animation/Animation.h"
#include "effects/bokeh/Bokeh.h"
#include "effects/dispersion/Dispersion.h"
#include "effects/focus_blur/FocusBlur.h"
#include "effects/glitch/Glitch.h"
#include "effects/glow/Glow.h"
#include "effects/light_rays/LightRays.h"
#include "effects/sparkle/Sparkle.h"

using namespace Korvane;
using KorvaneFuzz::GuardedImage;
using KorvaneFuzz::SomeFloat;

namespace {

// The images of one run; all are checked after every call.
struct Images {
  FuzzedDataProvider& in;
  std::vector<std::unique_ptr<GuardedImage>> all;
  explicit Images(FuzzedDataProvider& p) : in(p) {}

  int32_t Side(int32_t usual) {
    return in.ConsumeProbability<float>() < 0.85f ? usual : in.ConsumeIntegralInRange<int32_t>(-2, 70);
  }
  int32_t Format(int32_t usual) {
    return in.ConsumeProbability<float>() < 0.9f ? usual : in.ConsumeIntegralInRange<int32_t>(-1, 7);
  }
  // An image of about w x h in about `fmt`.
  GuardedImage& Make(int32_t fmt, int32_t w, int32_t h) {
    const int32_t f = Format(fmt), iw = Side(w), ih = Side(h);
    all.push_back(std::make_unique<GuardedImage>(in, f, iw, ih));
    return *all.back();
  }
  void Check(const char* what) const {
    for (const auto& img : all) img->CheckGuards(what);
  }
};

// A SmartBuffer over a guarded image (the library never frees it), or an
// empty one.
SmartBuffer View(const GuardedImage& img) {
  SmartBuffer b;
  if (img.buf.data) b.data = std::shared_ptr<unsigned char[]>(img.buf.data, [](unsigned char*) {});
  b.width = img.buf.width;
  b.height = img.buf.height;
  b.stride = img.buf.stride;
  b.channel = img.buf.channel;
  b.pix_fmt = img.buf.pix_fmt;
  return b;
}

Rect SomeRect(FuzzedDataProvider& in, int32_t w, int32_t h) {
  Rect r{0, 0, w, h};
  if (in.ConsumeBool()) {
    r.left = in.ConsumeIntegralInRange<int32_t>(-3, w + 3);
    r.top = in.ConsumeIntegralInRange<int32_t>(-3, h + 3);
    r.right = in.ConsumeIntegralInRange<int32_t>(-3, w + 3);
    r.bottom = in.ConsumeIntegralInRange<int32_t>(-3, h + 3);
  }
  return r;
}

int32_t FrameCount(FuzzedDataProvider& in) { return in.ConsumeIntegralInRange<int32_t>(-2, 60); }

// A coordinate of a w-pixel photo, often a hostile one: off the photo, huge,
// not a number.
float SomeCoordinate(FuzzedDataProvider& in, int32_t w) {
  const float hostile[] = {-1.0f, -0.0001f, static_cast<float>(w), w - 0.0001f, 1e10f, -1e30f, NAN, INFINITY};
  if (in.ConsumeProbability<float>() < 0.2f) return hostile[in.ConsumeIntegralInRange<size_t>(0, 7)];
  return SomeFloat(in, -10.0f, static_cast<float>(w) + 10.0f);
}

// The pixels of an image, packed; empty when it has none to read.
std::vector<uint8_t> Pixels(const ImageBuffer& img) {
  std::vector<uint8_t> out;
  if (!img.data || img.width < 1 || img.height < 1 || img.stride < img.width * 4) return out;
  for (int32_t y = 0; y < img.height; ++y) {
    const uint8_t* row = img.data + static_cast<ptrdiff_t>(y) * img.stride;
    out.insert(out.end(), row, row + static_cast<size_t>(img.width) * 4);
  }
  return out;
}

// A render of the region `roi` in REGION_SHAPES_REACHING (and any light rays
// roi) must be the crop of the render of the whole photo with the same
// settings; `render(roi, out)` renders one, both images are w x h based.
template <class Render>
void CheckRegionIsCrop(const char* what, int32_t w, int32_t h, const Rect& roi, const std::vector<uint8_t>& part,
                       Render&& render) {
  if (part.empty() || roi.left < 0 || roi.top < 0 || roi.right > w || roi.bottom > h) return;
  std::vector<uint8_t> whole(static_cast<size_t>(w) * h * 4);
  ImageBuffer out = MakeImageBuffer(whole.data(), w, h);
  if (render(Rect{0, 0, w, h}, out) != S_OK) return;
  for (int32_t y = roi.top; y < roi.bottom; ++y) {
    const size_t n = static_cast<size_t>(roi.right - roi.left) * 4;
    if (std::memcmp(&whole[(static_cast<size_t>(y) * w + roi.left) * 4], &part[(y - roi.top) * n], n) != 0) {
      std::fprintf(stderr, "%s: the region render is not the crop of the whole render\n", what);
      std::abort();
    }
  }
}

template <class T>
T* Create(int32_t type) {
  void* p = nullptr;
  const int32_t hr = KorvaneFuzz::Engine()->CreateEffect(&p, type);
  if (hr != S_OK || !p) return nullptr;
  return static_cast<T*>(p);
}

void Delete(void* fx, int32_t type) {
  if (KorvaneFuzz::Engine()->DeleteEffect(&fx, type) != S_OK) std::abort();
}

void FocusBlurRun(FuzzedDataProvider& in) {
  auto* fx = Create<FocusBlur>(EFFECT_FOCUS_BLUR);
  if (!fx) return;  // not built into this library
  Images img(in);
  const int32_t w = in.ConsumeIntegralInRange<int32_t>(1, 48), h = in.ConsumeIntegralInRange<int32_t>(1, 48);
  GuardedImage& src = img.Make(PIXEL_BGRA32, w, h);
  GuardedImage& guide = img.Make(in.ConsumeBool() ? PIXEL_GRAY8 : PIXEL_BGRA32, w, h);
  GuardedImage& dst = img.Make(PIXEL_BGRA32, w, h);
  FocusBlurParam p;
  p.input = src.buf;
  p.mask = guide.buf;
  p.output = in.ConsumeBool() ? src.buf : dst.buf;
  for (int k = in.ConsumeIntegralInRange(1, 3); k > 0; --k) {
    p.blur_level = in.ConsumeIntegralInRange<int32_t>(-5, 110);
    p.focus_value = in.ConsumeIntegralInRange<int32_t>(-5, 300);
    p.focus_range = in.ConsumeIntegralInRange<int32_t>(-5, 300);
    if (in.ConsumeBool()) fx->Init(&p);
    fx->Process(&p);
    img.Check("focus blur");
  }
  fx->Uninit();
  Delete(fx, EFFECT_FOCUS_BLUR);
}

void GlitchRun(FuzzedDataProvider& in) {
  auto* fx = Create<Glitch>(EFFECT_GLITCH);
  if (!fx) return;  // not built into this library
  Images img(in);
  const int32_t w = in.ConsumeIntegralInRange<int32_t>(1, 48), h = in.ConsumeIntegralInRange<int32_t>(1, 48);
  GuardedImage& src = img.Make(PIXEL_BGRA32, w, h);
  GuardedImage& dst = img.Make(PIXEL_BGRA32, w, h);
  GlitchImages images{in.ConsumeProbability<float>() < 0.05f ? nullptr : &src.buf, &dst.buf};
  fx->SetImages(in.ConsumeProbability<float>() < 0.03f ? nullptr : &images);
  for (int k = in.ConsumeIntegralInRange(1, 3); k > 0; --k) {
    GlitchParam p{&src.buf, in.ConsumeBool() ? &src.buf : &dst.buf};
    p.glitch_type = in.ConsumeIntegralInRange<int32_t>(-1, 9);
    p.shift_x = in.ConsumeIntegralInRange<int32_t>(-150, 150);
    p.shift_y = in.ConsumeIntegralInRange<int32_t>(-150, 150);
    p.radius = in.ConsumeIntegralInRange<int32_t>(-10, 150);
    p.angle = in.ConsumeIntegralInRange<int32_t>(-150, 150);
    fx->Process(in.ConsumeProbability<float>() < 0.03f ? nullptr : &p);
    img.Check("glitch");
  }
  fx->Release();
  Delete(fx, EFFECT_GLITCH);
}

// Effects with Initialize(width, height) and a record of SmartBuffers: the
// photo, an optional mask, and an output the size of the record's region.
template <class Fx, class Param>
void SmartRecordRun(FuzzedDataProvider& in, int32_t type, const char* name, void (*fill)(FuzzedDataProvider&, Param&)) {
  auto* fx = Create<Fx>(type);
  if (!fx) return;  // not built into this library
  Images img(in);
  const int32_t w = in.ConsumeIntegralInRange<int32_t>(1, 48), h = in.ConsumeIntegralInRange<int32_t>(1, 48);
  fx->Initialize(img.Side(w), img.Side(h));
  GuardedImage& src = img.Make(PIXEL_BGRA32, w, h);
  GuardedImage& mask = img.Make(PIXEL_GRAY8, w, h);
  for (int k = in.ConsumeIntegralInRange(1, 2); k > 0; --k) {
    Param p;
    p.roi = SomeRect(in, w, h);
    GuardedImage& dst = img.Make(PIXEL_BGRA32, p.roi.right - p.roi.left, p.roi.bottom - p.roi.top);
    p.src = View(src);
    if (in.ConsumeBool()) p.mask = View(mask);
    p.dst = View(dst);
    fill(in, p);
    fx->Process(p);
    img.Check(name);
  }
  fx->ReleaseBuffer();
  Delete(fx, type);
}

void FillGlow(FuzzedDataProvider& in, GlowParam& p) {
  p.glow_intensity = SomeFloat(in, -0.5f, 1.5f);
  p.glow_contrast = SomeFloat(in, 0.0f, 4.0f);
  p.glow_radius = SomeFloat(in, -2.0f, 40.0f);
  p.hlr_threshold = in.ConsumeIntegralInRange<int32_t>(-10, 300);
  p.saturation = SomeFloat(in, -2.0f, 2.0f);
  p.color_strength = SomeFloat(in, -1.0f, 3.0f);
  p.color_hue = SomeFloat(in, -1.0f, 2.0f);
  p.brightness = SomeFloat(in, -1.0f, 2.0f);
  p.opacity = in.ConsumeIntegralInRange<int32_t>(-10, 300);
  p.blend_mode = in.ConsumeIntegralInRange<int32_t>(-2, 31);
}

void FillLightRays(FuzzedDataProvider& in, LightRaysParam& p) {
  p.ray_level = SomeFloat(in, -0.5f, 1.5f);
  p.ray_softness = SomeFloat(in, -1.0f, 10.0f);
  p.ray_length = SomeFloat(in, -10.0f, 500.0f);
  p.hlr_threshold = SomeFloat(in, -10.0f, 300.0f);
  p.blend_strength = SomeFloat(in, -1.0f, 3.0f);
  p.anime_frame_count = FrameCount(in);
  p.anime_frame_index = in.ConsumeIntegralInRange<int32_t>(-2, 70);
  p.animate_rays = in.ConsumeIntegral<uint8_t>();
  p.animate_hue = in.ConsumeIntegral<uint8_t>();
  p.ray_mode = in.ConsumeIntegralInRange<int32_t>(-1, 2);
  p.ray_angle = SomeFloat(in, -720.0f, 720.0f);
  p.lampshade_param = SomeFloat(in, -10.0f, 100.0f);
  p.lampshade_spread = SomeFloat(in, -10.0f, 400.0f);
  p.lampshade_angle = SomeFloat(in, -400.0f, 400.0f);
  p.ray_radius = SomeFloat(in, -10.0f, 200.0f);
  p.center_x = in.ConsumeIntegralInRange<int32_t>(-100, 200);
  p.center_y = in.ConsumeIntegralInRange<int32_t>(-100, 200);
  p.hue_shift = SomeFloat(in, -2.0f, 2.0f);
  p.color_param = SomeFloat(in, -2.0f, 2.0f);
}

void GlowRun(FuzzedDataProvider& in) { SmartRecordRun<Glow, GlowParam>(in, EFFECT_GLOW, "glow", FillGlow); }

void LightRaysRun(FuzzedDataProvider& in) {
  SmartRecordRun<LightRays, LightRaysParam>(in, EFFECT_LIGHT_RAYS, "light rays", FillLightRays);
  // A valid record over an roi: the crop of the whole render.
  auto* fx = Create<LightRays>(EFFECT_LIGHT_RAYS);
  if (!fx) return;
  const int32_t w = in.ConsumeIntegralInRange<int32_t>(1, 40), h = in.ConsumeIntegralInRange<int32_t>(1, 40);
  std::vector<uint8_t> photo(static_cast<size_t>(w) * h * 4);
  for (auto& b : photo) b = in.ConsumeIntegral<uint8_t>();
  LightRaysParam p;
  FillLightRays(in, p);
  p.src = MakeSmartBufferView(photo.data(), w, h);
  const Rect roi = SomeRect(in, w, h);
  const auto render = [&](const Rect& r, ImageBuffer& out) {
    p.roi = r;
    p.dst = MakeSmartBufferView(out.data, out.width, out.height);
    return fx->Process(p);
  };
  if (fx->Initialize(w, h) == S_OK && roi.right > roi.left && roi.bottom > roi.top) {
    std::vector<uint8_t> part(static_cast<size_t>(roi.right - roi.left) * (roi.bottom - roi.top) * 4);
    ImageBuffer out = MakeImageBuffer(part.data(), roi.right - roi.left, roi.bottom - roi.top);
    if (render(roi, out) == S_OK) CheckRegionIsCrop("light rays", w, h, roi, part, render);
  }
  fx->ReleaseBuffer();
  Delete(fx, EFFECT_LIGHT_RAYS);
}

void BokehRun(FuzzedDataProvider& in) {
  auto* fx = Create<Bokeh>(EFFECT_BOKEH);
  if (!fx) return;  // not built into this library
  Images img(in);
  const int32_t w = in.ConsumeIntegralInRange<int32_t>(1, 48), h = in.ConsumeIntegralInRange<int32_t>(1, 48);
  GuardedImage& src = img.Make(PIXEL_BGRA32, w, h);
  GuardedImage& mask = img.Make(PIXEL_GRAY8, w, h);
  const int32_t s = in.ConsumeIntegralInRange<int32_t>(1, 24);
  GuardedImage& shape = img.Make(PIXEL_BGRA32, s, s);
  fx->SetSource(in.ConsumeProbability<float>() < 0.05f ? nullptr : &src.buf);
  const int32_t region_mode = in.ConsumeIntegralInRange<int32_t>(-1, 2);
  fx->SetRegionMode(region_mode);
  for (int k = in.ConsumeIntegralInRange(1, 2); k > 0; --k) {
    BokehParam p;
    p.quality_mode = in.ConsumeIntegralInRange<int32_t>(-1, 3);
    p.bokeh_source_mode = in.ConsumeIntegralInRange<int32_t>(-1, 3);
    p.paste_switch = in.ConsumeIntegral<uint8_t>();
    p.hue_shift_switch = in.ConsumeIntegral<uint8_t>();
    p.twinkle_switch = in.ConsumeIntegral<uint8_t>();
    p.anime_frame_count = FrameCount(in);
    p.anime_frame_index = in.ConsumeIntegralInRange<int32_t>(-2, 70);
    p.rebuild_shapes = in.ConsumeIntegral<uint8_t>();
    p.keep_background = in.ConsumeIntegral<uint8_t>();
    p.blur_buff_ratio = SomeFloat(in, -0.5f, 1.5f);
    p.blur_strength = SomeFloat(in, -0.5f, 1.5f);
    p.focus_value = SomeFloat(in, -0.5f, 1.5f);
    p.focus_range = SomeFloat(in, -0.5f, 1.5f);
    BokehShapeParam sp;
    sp.shape = shape.buf;
    sp.size_blend = SomeFloat(in, -0.5f, 1.5f);
    sp.amount = SomeFloat(in, -0.5f, 1.5f);
    sp.rotation = SomeFloat(in, -720.0f, 720.0f);
    sp.hue_offset = SomeFloat(in, -2.0f, 2.0f);
    sp.saturation = SomeFloat(in, -2.0f, 2.0f);
    sp.shape_changed = in.ConsumeIntegralInRange<int32_t>(0, 1);
    sp.color_mode = in.ConsumeIntegralInRange<int32_t>(-1, 3);
    const Rect roi = SomeRect(in, w, h);
    GuardedImage& dst = img.Make(PIXEL_BGRA32, roi.right - roi.left, roi.bottom - roi.top);
    const ImageBuffer* guide = in.ConsumeProbability<float>() < 0.1f ? nullptr : &mask.buf;
    const int32_t hr = fx->Process(in.ConsumeProbability<float>() < 0.03f ? nullptr : &p,
                                   in.ConsumeProbability<float>() < 0.03f ? nullptr : &sp, &src.buf, guide, &dst.buf, roi);
    img.Check("bokeh");
    if (hr == S_OK && region_mode == REGION_SHAPES_REACHING) {
      CheckRegionIsCrop("bokeh", w, h, roi, Pixels(dst.buf), [&](const Rect& r, ImageBuffer& out) {
        return fx->Process(&p, &sp, &src.buf, guide, &out, r);
      });
    }
  }
  fx->ReleaseBuffer();
  Delete(fx, EFFECT_BOKEH);
}

void SparkleRun(FuzzedDataProvider& in) {
  auto* fx = Create<Sparkle>(EFFECT_SPARKLE);
  if (!fx) return;  // not built into this library
  Images img(in);
  const int32_t w = in.ConsumeIntegralInRange<int32_t>(1, 48), h = in.ConsumeIntegralInRange<int32_t>(1, 48);
  GuardedImage& src = img.Make(PIXEL_BGRA32, w, h);
  const int32_t s = in.ConsumeIntegralInRange<int32_t>(1, 24);
  GuardedImage& shape_img = img.Make(PIXEL_BGRA32, s, s);
  fx->SetSource(in.ConsumeProbability<float>() < 0.05f ? nullptr : &src.buf);
  if (in.ConsumeBool()) fx->SetAutoSparkleShape(&shape_img.buf);
  SparkleShape shape;
  shape.image = shape_img.buf;
  shape.type_id = in.ConsumeIntegral<uint16_t>();
  if (in.ConsumeBool()) fx->SetManualSparkleShape(&shape);
  if (in.ConsumeBool()) fx->SetMaxManualSparkleCount(in.ConsumeIntegralInRange<int32_t>(-2, 50));
  const int32_t region_mode = in.ConsumeIntegralInRange<int32_t>(-1, 2);
  fx->SetRegionMode(region_mode);
  std::vector<SparklePoint> points(in.ConsumeIntegralInRange<size_t>(0, 12));
  for (auto& pt : points) pt = {SomeCoordinate(in, w), SomeCoordinate(in, h), SomeFloat(in, -1.0f, 8.0f)};
  const int32_t count = in.ConsumeProbability<float>() < 0.9f ? int32_t(points.size()) : in.ConsumeIntegralInRange<int32_t>(-3, int32_t(points.size()));
  if (in.ConsumeBool()) fx->AddManualSparkles(points.empty() ? nullptr : points.data(), count, in.ConsumeBool() ? &shape : nullptr);
  for (int k = in.ConsumeIntegralInRange(0, 2); k > 0; --k) {
    fx->UpdateManualSparkles(points.empty() ? nullptr : points.data(), count, in.ConsumeIntegralInRange<int32_t>(-1, 3));
  }
  if (in.ConsumeBool()) fx->ShowAllAutoSparkles();
  if (in.ConsumeBool()) fx->ResetSparkleTypes();
  for (int k = in.ConsumeIntegralInRange(1, 2); k > 0; --k) {
    SparkleParam p;
    p.quality_mode = in.ConsumeIntegralInRange<int32_t>(-1, 3);
    p.rotate = in.ConsumeIntegral<uint8_t>();
    p.twinkle = in.ConsumeIntegral<uint8_t>();
    p.auto_sparkle = in.ConsumeIntegral<uint8_t>();
    p.manual_sparkle = in.ConsumeIntegral<uint8_t>();
    p.anime_frame_count = FrameCount(in);
    p.anime_frame_index = in.ConsumeIntegralInRange<int32_t>(-2, 70);
    SparkleRenderParam rp[2];
    for (auto& r : rp) {
      r.color_mode = in.ConsumeIntegralInRange<int32_t>(-1, 3);
      r.amount = SomeFloat(in, -0.5f, 1.5f);
      r.saturation = SomeFloat(in, -2.0f, 2.0f);
      r.brightness = SomeFloat(in, -2.0f, 2.0f);
      r.rotation = SomeFloat(in, -720.0f, 720.0f);
      r.size = SomeFloat(in, -1.0f, 7.0f);
      r.twinkle_cycles = in.ConsumeIntegralInRange<int32_t>(-1, 5);
    }
    const Rect roi = SomeRect(in, w, h);
    GuardedImage& dst = img.Make(PIXEL_BGRA32, roi.right - roi.left, roi.bottom - roi.top);
    const int32_t hr = fx->Process(in.ConsumeProbability<float>() < 0.03f ? nullptr : &p,
                                   in.ConsumeProbability<float>() < 0.05f ? nullptr : &rp[0],
                                   in.ConsumeProbability<float>() < 0.05f ? nullptr : &rp[1], &src.buf, &dst.buf, roi);
    img.Check("sparkle");
    if (hr == S_OK && region_mode == REGION_SHAPES_REACHING) {
      CheckRegionIsCrop("sparkle", w, h, roi, Pixels(dst.buf), [&](const Rect& r, ImageBuffer& out) {
        return fx->Process(&p, &rp[0], &rp[1], &src.buf, &out, r);
      });
    }
  }
  fx->ReleaseBuffer();
  Delete(fx, EFFECT_SPARKLE);
}

void DispersionRun(FuzzedDataProvider& in) {
  auto* fx = Create<Dispersion>(EFFECT_DISPERSION);
  if (!fx) return;  // not built into this library
  Images img(in);
  const int32_t w = in.ConsumeIntegralInRange<int32_t>(1, 48), h = in.ConsumeIntegralInRange<int32_t>(1, 48);
  GuardedImage& src = img.Make(PIXEL_BGRA32, w, h);
  GuardedImage& mask = img.Make(PIXEL_GRAY8, w, h);
  DispersionParam p;
  p.input = &src.buf;
  p.mask = in.ConsumeProbability<float>() < 0.05f ? nullptr : &mask.buf;
  p.anime_frame_count = FrameCount(in);
  p.loop_mode = in.ConsumeIntegralInRange<int32_t>(-1, 2);
  p.direction = SomeFloat(in, -720.0f, 720.0f);
  p.spread = SomeFloat(in, -10.0f, 200.0f);
  p.distance = SomeFloat(in, -0.5f, 1.5f);
  p.particle_size = SomeFloat(in, 0.0f, 40.0f);
  p.density = SomeFloat(in, -0.5f, 1.5f);
  p.dissolve_width = SomeFloat(in, -0.5f, 1.5f);
  p.fade = SomeFloat(in, -0.5f, 1.5f);
  p.turbulence = SomeFloat(in, -0.5f, 1.5f);
  p.seed = in.ConsumeIntegral<uint32_t>();
  fx->Init(in.ConsumeProbability<float>() < 0.03f ? nullptr : &p);
  for (int k = in.ConsumeIntegralInRange(1, 2); k > 0; --k) {
    p.roi = SomeRect(in, w, h);
    GuardedImage& dst = img.Make(PIXEL_BGRA32, p.roi.right - p.roi.left, p.roi.bottom - p.roi.top);
    p.output = &dst.buf;
    p.anime_frame_index = in.ConsumeIntegralInRange<int32_t>(-2, 70);
    fx->Process(&p);
    img.Check("dispersion");
  }
  fx->Uninit();
  Delete(fx, EFFECT_DISPERSION);
}

void AnimationRun(FuzzedDataProvider& in) {
  auto* fx = Create<Animation>(EFFECT_ANIMATION);
  if (!fx) return;  // not built into this library
  Images img(in);
  const int32_t w = in.ConsumeIntegralInRange<int32_t>(1, 48), h = in.ConsumeIntegralInRange<int32_t>(1, 48);
  GuardedImage& src = img.Make(PIXEL_BGRA32, w, h);
  GuardedImage& mask = img.Make(PIXEL_GRAY8, w, h);
  std::vector<std::vector<float>> points(in.ConsumeIntegralInRange<size_t>(0, 4));
  std::vector<FlowData> flows;
  for (auto& pts : points) {
    pts.resize(2 * in.ConsumeIntegralInRange<size_t>(0, 8));
    for (float& v : pts) v = SomeFloat(in, -2.0f * w, 3.0f * w);
    const uint32_t declared = in.ConsumeProbability<float>() < 0.95f ? uint32_t(pts.size() / 2) : in.ConsumeIntegralInRange<uint32_t>(0, uint32_t(pts.size() / 2));
    flows.push_back({pts.empty() || in.ConsumeProbability<float>() < 0.03f ? nullptr : pts.data(), declared,
                     in.ConsumeIntegralInRange<uint32_t>(0, 3)});
  }
  AnimationParam p;
  p.input = &src.buf;
  p.mask = in.ConsumeProbability<float>() < 0.03f ? nullptr : &mask.buf;
  p.loop_mode = in.ConsumeIntegralInRange<int32_t>(-1, 3);
  p.anime_frame_count = uint32_t(FrameCount(in));
  p.p_flow = flows.empty() ? nullptr : flows.data();
  p.flow_num = uint32_t(flows.size());
  fx->Init(&p);
  for (int k = in.ConsumeIntegralInRange(1, 3); k > 0; --k) {
    Rect roi = SomeRect(in, w, h);
    p.p_output_roi = in.ConsumeBool() ? &roi : nullptr;
    const int32_t ow = p.p_output_roi ? roi.right - roi.left : w, oh = p.p_output_roi ? roi.bottom - roi.top : h;
    GuardedImage& dst = img.Make(PIXEL_BGRA32, ow, oh);
    p.output = &dst.buf;
    switch (in.ConsumeIntegralInRange(0, 3)) {
      case 0: fx->SetFrameCount(uint32_t(FrameCount(in))); break;
      case 1: fx->UpdateFlowPoints(&p); break;
      default: break;
    }
    fx->Animate(&p, in.ConsumeIntegralInRange<int32_t>(-2, 70));
    img.Check("animation");
  }
  fx->Uninit();
  Delete(fx, EFFECT_ANIMATION);
}

// One entry per effect in the engine.
struct Entry {
  const char* name;
  void (*run)(FuzzedDataProvider& in);
};
const Entry kEffects[] = {
    {"focus blur", FocusBlurRun}, {"glitch", GlitchRun},       {"glow", GlowRun},
    {"light rays", LightRaysRun}, {"bokeh", BokehRun},         {"sparkle", SparkleRun},
    {"dispersion", DispersionRun}, {"animation", AnimationRun},
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  FuzzedDataProvider in(data + 1, size - 1);
  kEffects[data[0] % (sizeof(kEffects) / sizeof(kEffects[0]))].run(in);
  return 0;
}
