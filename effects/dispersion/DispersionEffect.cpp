#include "effects/dispersion/DispersionEffect.h"

#include <algorithm>
#include <cmath>
#include <climits>
#include <cstring>
#include <exception>
#include <stdexcept>

#include "core/BandTask.h"
#include "core/BoxBlur.h"
#include "core/DebugLog.h"
#include "core/ImageChecks.h"
#include "core/InpaintMask.h"
#include "core/Random.h"
#include "core/SmartBuffer.h"

namespace Korvane {

namespace {

constexpr float kPi = 3.14159265f;
// How many particles ahead Render fetches the record of the one it will draw.
constexpr uint32_t kPrefetchAhead = 8;

int32_t Refuse(int32_t code, const char* why) { return LogRefusal("Dispersion", why, code); }

inline bool IsSubject(const ImageBuffer& mask, int32_t x, int32_t y) { return RowPtr(mask, y)[x] != 0; }

}  // namespace

bool DispersionEffect::PreparedKey::operator==(const PreparedKey& o) const {
  return input == o.input && mask == o.mask && width == o.width && height == o.height &&
         input_stride == o.input_stride && mask_stride == o.mask_stride && direction == o.direction &&
         spread == o.spread && distance == o.distance && particle_size == o.particle_size && density == o.density &&
         dissolve_width == o.dissolve_width && turbulence == o.turbulence && seed == o.seed;
}

DispersionEffect::PreparedKey DispersionEffect::KeyOf(const DispersionParam& p) {
  PreparedKey k;
  k.input = p.input->data;
  k.mask = p.mask->data;
  k.width = p.input->width;
  k.height = p.input->height;
  k.input_stride = p.input->stride;
  k.mask_stride = p.mask->stride;
  k.direction = p.direction;
  k.spread = p.spread;
  k.distance = p.distance;
  k.particle_size = p.particle_size;
  k.density = p.density;
  k.dissolve_width = p.dissolve_width;
  k.turbulence = p.turbulence;
  k.seed = p.seed;
  return k;
}

int32_t DispersionEffect::Validate(const DispersionParam* param, bool for_process) {
  if (!param) return Refuse(E_POINTER, "the parameter record is NULL");
  const DispersionParam& p = *param;
  // The frame images in the one order every effect keeps. The mask is never
  // optional here; Init renders nothing, so the photo stands in for the
  // output over its whole extent.
  if (!p.mask || !p.mask->data) return Refuse(E_POINTER, "mask missing");
  const ImageBuffer* out = for_process ? p.output : p.input;
  const Rect roi = for_process ? p.roi : (p.input ? FullRect(*p.input) : Rect{});
  switch (CheckFrameImages(p.input, out, roi, p.mask)) {
    case S_OK: break;
    case E_POINTER: return Refuse(E_POINTER, "input or output missing");
    case E_NOTIMPL: return Refuse(E_NOTIMPL, "input and output must be BGRA32, the mask GRAY8");
    default: return Refuse(E_INVALIDARG, "an image size or stride, or the roi, out of range");
  }
  // Later frames read the photo again, so the output may not overwrite it.
  if (for_process && (Overlaps(*p.output, *p.input) || Overlaps(*p.output, *p.mask))) {
    return Refuse(E_INVALIDARG, "output shares memory with the input or mask");
  }
  if (p.anime_frame_count < 1) return Refuse(E_INVALIDARG, "anime_frame_count below 1");
  if (p.anime_frame_index < 0) return Refuse(E_INVALIDARG, "anime_frame_index below 0");
  if (p.loop_mode != DISPERSION_ONCE && p.loop_mode != DISPERSION_LOOP) {
    return Refuse(E_INVALIDARG, "loop_mode must be 0 or 1");
  }
  if (!std::isfinite(p.direction)) return Refuse(E_INVALIDARG, "direction is not finite");
  if (!InRange(p.spread, 0.0f, 180.0f)) return Refuse(E_INVALIDARG, "spread outside 0..180");
  if (!InRange(p.distance, 0.0f, 1.0f)) return Refuse(E_INVALIDARG, "distance outside 0..1");
  if (!InRange(p.particle_size, 0.5f, 32.0f)) return Refuse(E_INVALIDARG, "particle_size outside 0.5..32");
  if (!InRange(p.density, 0.0f, 1.0f)) return Refuse(E_INVALIDARG, "density outside 0..1");
  if (!InRange(p.dissolve_width, 0.0f, 1.0f)) return Refuse(E_INVALIDARG, "dissolve_width outside 0..1");
  if (!InRange(p.fade, 0.0f, 1.0f)) return Refuse(E_INVALIDARG, "fade outside 0..1");
  if (!InRange(p.turbulence, 0.0f, 1.0f)) return Refuse(E_INVALIDARG, "turbulence outside 0..1");
  return S_OK;
}

float DispersionEffect::CalProgress(int32_t frame_count, int32_t frame_index, int32_t loop_mode) {
  if (frame_count <= 1 || frame_index <= 0) return 0.0f;
  // Past the end a loop starts over, and a single crumble stays gone.
  if (loop_mode == DISPERSION_LOOP) {
    const double phase = static_cast<double>(frame_index % frame_count) / frame_count;
    return static_cast<float>(1.0 - std::fabs(1.0 - 2.0 * phase));
  }
  return static_cast<float>(static_cast<double>(std::min(frame_index, frame_count - 1)) / (frame_count - 1));
}

void DispersionEffect::ReleaseAll() {
  m_prepared = false;
  m_key = PreparedKey();
  m_width = m_height = 0;
  m_has_subject = false;
  std::vector<float>().swap(m_start);
  m_background = SmartBuffer();
  std::vector<DispersionParticle>().swap(m_particles);
  m_circles = CircleTable();
  std::vector<FrameParticle>().swap(m_frame);
  std::vector<int32_t>().swap(m_row_span);
  std::vector<uint32_t>().swap(m_strip_start);
  std::vector<uint32_t>().swap(m_strip_items);
}

int32_t DispersionEffect::Uninit() {
  ReleaseAll();
  return S_OK;
}

int32_t DispersionEffect::Init(const DispersionParam* param) {
  const int32_t hr = Validate(param, false);
  if (hr < 0) return hr;
  return PrepareFor(*param);
}

int32_t DispersionEffect::PrepareFor(const DispersionParam& p) {
  ReleaseAll();
  m_width = p.input->width;
  m_height = p.input->height;
  int32_t hr;
  if ((hr = DetectMaskEdge(p)) < 0 || (hr = CreateTmpBuffer(p)) < 0 || (hr = CreateCircleTable(p)) < 0) {
    ReleaseAll();
    return hr;
  }
  m_key = KeyOf(p);
  m_prepared = true;
  return S_OK;
}

int32_t DispersionEffect::DetectMaskEdge(const DispersionParam& p) {
  try {
    m_start.assign(static_cast<size_t>(m_width) * m_height, kDispersionNever);
  } catch (const std::exception& e) {
    DebugLog("DetectMaskEdge - %s caught!", e.what());
    return E_OUTOFMEMORY;
  }
  const ImageBuffer& mask = *p.mask;
  const float theta = p.direction * (kPi / 180.0f);
  const float wx = std::cos(theta), wy = -std::sin(theta);  // rows run downwards

  // The leading edge is the subject's farthest extent along the wind; every
  // subject pixel's distance from it, over the whole extent, orders the crumble.
  // Along a row the projection is linear, so its extremes lie at the row's
  // first and last subject pixels.
  float lo = 0, hi = 0;
  bool any = false;
  Rect box{m_width, m_height, 0, 0};
  for (int32_t y = 0; y < m_height; ++y) {
    const uint8_t* m = RowPtr(mask, y);
    int32_t first = 0, last = m_width - 1;
    while (first < m_width && !m[first]) ++first;
    if (first == m_width) continue;
    while (!m[last]) --last;
    for (const int32_t x : {first, last}) {
      const float q = x * wx + y * wy;
      if (!any) lo = hi = q, any = true;
      lo = std::min(lo, q);
      hi = std::max(hi, q);
    }
    box = Rect{std::min(box.left, first), std::min(box.top, y), std::max(box.right, last + 1), y + 1};
  }
  m_proj_min = lo;
  m_proj_max = hi;
  m_has_subject = any;
  m_subject_box = any ? box : Rect{};
  if (!any) return S_OK;

  // Start = where the front passes, blended towards a random time by
  // dissolve_width, plus a little jitter that roughens the front. All starts
  // end early enough for every flight to finish by the last frame.
  const float extent = hi - lo;
  const float w = p.dissolve_width;
  const float span = 1.0f - kLife - kJitter;
  Mt19937 gen(p.seed);
  for (int32_t y = box.top; y < box.bottom; ++y) {
    const uint8_t* m = RowPtr(mask, y);
    float* s = &m_start[static_cast<size_t>(y) * m_width];
    for (int32_t x = box.left; x < box.right; ++x) {
      if (!m[x]) continue;
      const float u = extent > 0 ? (hi - (x * wx + y * wy)) / extent : 0.0f;
      const float r = DrawUnit(gen);
      const float j = DrawUnit(gen);
      s[x] = span * ((1.0f - w) * u + w * r) + kJitter * j;
    }
  }
  return S_OK;
}

void DispersionEffect::MakeParticles(const DispersionParam& p) {
  const ImageBuffer& in = *p.input;
  const ImageBuffer& mask = *p.mask;
  const float theta = p.direction * (kPi / 180.0f);
  // Each particle leaves at direction +- spread: 180 sends them every way.
  const float half_spread = p.spread * (kPi / 180.0f);
  const float reach =
      p.distance * std::sqrt(static_cast<float>(m_width) * m_width + static_cast<float>(m_height) * m_height);

  // Sample points of a particle's disc for its colour: a grid of at most
  // 7 x 7 points, so large discs cost no more than small ones.
  struct Offset {
    int32_t dx, dy;
  };
  std::vector<Offset> disc;
  const int32_t rr = static_cast<int32_t>(p.particle_size);
  const int32_t step = std::max(1, rr / 3);
  // The grid runs through the centre, which is always subject.
  const int32_t from = -(rr - rr % step);
  for (int32_t dy = from; dy <= rr; dy += step) {
    for (int32_t dx = from; dx <= rr; dx += step) {
      if (dx * dx + dy * dy <= p.particle_size * p.particle_size) disc.push_back(Offset{dx, dy});
    }
  }

  // A stream of its own, so the start times and the particles do not shift
  // one another when a setting changes.
  Mt19937 gen(p.seed ^ 0x9E3779B9u);
  const Rect& box = m_subject_box;
  for (int32_t y = box.top; y < box.bottom; ++y) {
    const uint8_t* m = RowPtr(mask, y);
    for (int32_t x = box.left; x < box.right; ++x) {
      if (!m[x] || !(DrawUnit(gen) < p.density)) continue;
      DispersionParticle q;
      q.x = static_cast<float>(x);
      q.y = static_cast<float>(y);
      q.start = m_start[static_cast<size_t>(y) * m_width + x];
      const float angle = theta + DrawFloat(gen, -half_spread, half_spread);
      const float travel = reach * DrawFloat(gen, 0.45f, 1.0f);
      q.travel_x = travel * std::cos(angle);
      q.travel_y = -travel * std::sin(angle);
      q.life = kLife * DrawFloat(gen, 0.6f, 1.0f);
      q.radius = p.particle_size * DrawFloat(gen, 0.7f, 1.0f);
      q.curl = p.turbulence * kCurlShare * travel * DrawFloat(gen, 0.5f, 1.0f);
      q.curl_phase = DrawFloat(gen, 0.0f, 2.0f * kPi);
      q.curl_turns = DrawFloat(gen, -1.5f, 1.5f);
      // The colour of the subject under the disc (the centre is always subject).
      uint32_t sum[4] = {0, 0, 0, 0}, n = 0;
      for (const Offset& o : disc) {
        const int32_t sx = x + o.dx, sy = y + o.dy;
        if (sx < 0 || sy < 0 || sx >= m_width || sy >= m_height || !IsSubject(mask, sx, sy)) continue;
        const uint8_t* px = RowPtr(in, sy) + static_cast<ptrdiff_t>(sx) * 4;
        for (int c = 0; c < 4; ++c) sum[c] += px[c];
        ++n;
      }
      for (int c = 0; c < 4; ++c) q.bgra[c] = static_cast<uint8_t>((sum[c] + n / 2) / n);
      m_particles.push_back(q);
    }
  }
}

int32_t DispersionEffect::CreateTmpBuffer(const DispersionParam& p) {
  int32_t hr = S_OK;
  try {
    if (KORVANE_FAILED(CreateSmartBufferData(m_background, m_width, m_height, PIXEL_BGRA32))) return hr;
    hr = LogStep("InpaintMaskByDistTransform", InpaintMaskByDistTransform(*p.input, *p.mask, m_background));
    if (hr < 0) return hr;
    // The fill carries edge colours inwards in straight streaks; a wide blur
    // turns them into a soft wash. Only subject pixels ever show the
    // background, so only they need it.
    if (m_has_subject) {
      BoxBlurParam blur;
      blur.src = MapView(m_background, Rect{0, 0, m_width, m_height});
      blur.radius = std::max(2, static_cast<int32_t>(std::hypot(m_width, m_height) / 80.0));
      // Around the subject only: two passes reach 2 (radius - 1) pixels, so
      // a margin of twice the radius blurs its pixels as the whole image would.
      const int32_t margin = 2 * blur.radius;
      const Rect& b = m_subject_box;
      const Rect around =
          Clip(Rect{b.left - margin, b.top - margin, b.right + margin, b.bottom + margin}, m_width, m_height);
      if ((hr = RunBoxBlur(m_thread_adapter, m_system_info, blur, around, 2)) < 0) return hr;
    }
    MakeParticles(p);
    const size_t n = m_particles.size();
    // A particle's disc spans at most this many strips.
    const int32_t side = 2 * static_cast<int32_t>(std::ceil(p.particle_size + 0.5f)) + 1;
    const size_t strips_each = static_cast<size_t>((side + kStripRows - 1) / kStripRows + 1);
    // A frame numbers its particles and their strip entries in 32 bits.
    if (n > static_cast<size_t>(INT32_MAX) / strips_each) throw std::length_error("too many particles");
    m_frame.assign(n, FrameParticle());
    m_row_span.assign(2 * n, -1);
    m_strip_start.assign(static_cast<size_t>(m_height / kStripRows + 2), 0);
    m_strip_items.assign(n * strips_each, 0);
  } catch (const std::exception& e) {
    DebugLog("CreateTmpBuffer - %s caught!", e.what());
    return E_OUTOFMEMORY;
  }
  return S_OK;
}

int32_t DispersionEffect::CreateCircleTable(const DispersionParam& p) {
  try {
    m_circles.Build(p.particle_size);
  } catch (const std::exception& e) {
    DebugLog("CreateCircleTable - %s caught!", e.what());
    return E_OUTOFMEMORY;
  }
  return S_OK;
}

int32_t DispersionEffect::Process(const DispersionParam* param) {
  int32_t hr = Validate(param, true);
  if (hr < 0) return hr;
  if (!m_prepared) {
    DebugLog("Please call Init before Process");
    return E_FAIL;
  }
  if (!(KeyOf(*param) == m_key) && (hr = PrepareFor(*param)) < 0) return hr;
  const float progress = CalProgress(param->anime_frame_count, param->anime_frame_index, param->loop_mode);
  if ((hr = LogStep("MoveParticles", ComputeFrame(progress, param->fade, param->roi))) < 0) return hr;
  BinFrame(param->roi);
  return LogStep("DrawParticles", Render(*param, progress));
}

int32_t DispersionEffect::ComputeFrame(float progress, float fade, const Rect& roi) {
  const int32_t n = static_cast<int32_t>(m_particles.size());
  if (n == 0) return S_OK;
  const CircleTable& table = m_circles;
  constexpr int32_t kSub = CircleTable::kSub;
  // Bands of the particle list: row i of this rectangle is particle i.
  return RunBands(m_thread_adapter, Rect{0, 0, 1, n}, [&](const Rect& band) {
    for (int32_t i = band.top; i < band.bottom; ++i) {
      const DispersionParticle& q = m_particles[static_cast<size_t>(i)];
      FrameParticle& f = m_frame[static_cast<size_t>(i)];
      int32_t* span = &m_row_span[2 * static_cast<size_t>(i)];
      span[0] = span[1] = -1;
      if (!(progress > q.start)) continue;
      const float a = std::min(1.0f, (progress - q.start) / q.life);
      const int32_t alpha = static_cast<int32_t>((1.0f - fade * a * a) * 256.0f + 0.5f);
      const int32_t step =
          std::min(table.radius_steps, static_cast<int32_t>(q.radius * (1.0f - 0.6f * fade * a) * kSub + 0.5f));
      if (alpha <= 0 || step < 1) continue;
      // Ease-out along the flight, and a curl whose radius grows with age.
      const float e = 1.0f - (1.0f - a) * (1.0f - a);
      const float turn = q.curl_phase + 2.0f * kPi * q.curl_turns * a;
      const float cx = q.x + q.travel_x * e + q.curl * a * std::cos(turn);
      const float cy = q.y + q.travel_y * e + q.curl * a * std::sin(turn);
      int32_t ix = static_cast<int32_t>(std::floor(cx)), iy = static_cast<int32_t>(std::floor(cy));
      int32_t sx = static_cast<int32_t>((cx - ix) * kSub + 0.5f), sy = static_cast<int32_t>((cy - iy) * kSub + 0.5f);
      if (sx >= kSub) sx -= kSub, ++ix;
      if (sy >= kSub) sy -= kSub, ++iy;
      f.entry = (step - 1) * kSub * kSub + sy * kSub + sx;
      const int32_t half = table.entries[static_cast<size_t>(f.entry)].half;
      const int32_t top = std::max(roi.top, iy - half), bottom = std::min(roi.bottom, iy + half + 1);
      if (top >= bottom || ix + half < roi.left || ix - half >= roi.right) continue;
      f.x = ix;
      f.y = iy;
      f.alpha = std::min(alpha, 256);
      for (int c = 0; c < 4; ++c) f.bgra[c] = q.bgra[c];
      span[0] = (top - roi.top) / kStripRows;
      span[1] = (bottom - 1 - roi.top) / kStripRows;
    }
    return S_OK;
  });
}

void DispersionEffect::BinFrame(const Rect& roi) {
  // Counting sort of the particles into strips, keeping list order inside
  // each strip, so every pixel receives its particles in list order whatever
  // the bands are.
  const size_t strips = static_cast<size_t>((RectHeight(roi) + kStripRows - 1) / kStripRows);
  uint32_t* start = m_strip_start.data();
  std::fill(start, start + strips + 1, 0u);
  const size_t n = m_particles.size();
  for (size_t i = 0; i < n; ++i) {
    const int32_t* span = &m_row_span[2 * i];
    for (int32_t s = span[0]; s >= 0 && s <= span[1]; ++s) ++start[s + 1];
  }
  for (size_t s = 0; s < strips; ++s) start[s + 1] += start[s];
  for (size_t i = 0; i < n; ++i) {
    const int32_t* span = &m_row_span[2 * i];
    for (int32_t s = span[0]; s >= 0 && s <= span[1]; ++s) m_strip_items[start[s]++] = static_cast<uint32_t>(i);
  }
  for (size_t s = strips; s > 0; --s) start[s] = start[s - 1];
  start[0] = 0;
}

void DispersionEffect::FillBaseRow(FillBaseFn fill, const ImageBuffer& in, const ImageBuffer& out, const Rect& roi,
                                   int32_t y, float progress) const {
  uint8_t* o = RowPtr(out, y - roi.top);
  const uint8_t* photo = RowPtr(in, y);
  // Outside the subject's box every start time is "never": the photo itself.
  const Rect& box = m_subject_box;
  const int32_t a = y >= box.top && y < box.bottom ? std::min(std::max(box.left, roi.left), roi.right) : roi.right;
  const int32_t b = y >= box.top && y < box.bottom ? std::min(std::max(box.right, a), roi.right) : roi.right;
  auto copy = [&](int32_t from, int32_t to) {
    std::memcpy(o + static_cast<ptrdiff_t>(from - roi.left) * 4, photo + static_cast<ptrdiff_t>(from) * 4,
                static_cast<size_t>(to - from) * 4);
  };
  copy(roi.left, a);
  if (a < b) {
    fill(photo + static_cast<ptrdiff_t>(a) * 4, RowPtr(m_background, y) + static_cast<ptrdiff_t>(a) * 4,
         &m_start[static_cast<size_t>(y) * m_width + a], progress, o + static_cast<ptrdiff_t>(a - roi.left) * 4, b - a);
  }
  copy(b, roi.right);
}

int32_t DispersionEffect::Render(const DispersionParam& p, float progress) {
  const auto fill = KORVANE_PICK_AVX2(m_system_info, DispersionFillBase, DispersionFillBase_SSE, DispersionFillBase_AVX2);
  const auto draw =
      KORVANE_PICK_AVX2(m_system_info, DispersionDrawParticle, DispersionDrawParticle_SSE, DispersionDrawParticle_AVX2);
  const ImageBuffer& in = *p.input;
  const ImageBuffer& out = *p.output;
  const Rect roi = p.roi;
  return RunBands(m_thread_adapter, roi, [&](const Rect& band) {
    for (int32_t s = (band.top - roi.top) / kStripRows;; ++s) {
      const int32_t y0 = std::max(band.top, roi.top + s * kStripRows);
      const int32_t y1 = std::min(band.bottom, roi.top + (s + 1) * kStripRows);
      if (y0 >= y1) break;
      for (int32_t y = y0; y < y1; ++y) FillBaseRow(fill.fn, in, out, roi, y, progress);
      // A strip's particles lie all over the list once they fly: their
      // records are fetched a few draws ahead, or each draw waits on memory.
      const uint32_t first = m_strip_start[s], last = m_strip_start[s + 1];
      for (uint32_t k = first; k < last; ++k) {
        if (k + kPrefetchAhead < last) __builtin_prefetch(&m_frame[m_strip_items[k + kPrefetchAhead]]);
        draw.fn(m_circles, m_frame[m_strip_items[k]], roi.left, roi.right, y0, y1, out.data, roi.left, roi.top,
                out.stride);
      }
    }
    return S_OK;
  });
}

}  // namespace Korvane
