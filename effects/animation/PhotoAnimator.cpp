#include "effects/animation/PhotoAnimator.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>
#include <new>

#include "core/DebugLog.h"
#include "core/ImageChecks.h"
#include "core/SmartBuffer.h"
#include "core/InpaintMask.h"

namespace Korvane {

namespace {

constexpr uint32_t kNone = 0xFFFFFFFFu;  // no triangle, no chunk left

// The shared row check plus the longest side any effect accepts.
bool ImageFits(const ImageBuffer& img, int32_t bytes_per_pixel) {
  return RowsFit(img, bytes_per_pixel) && img.width <= kMaxImageSide && img.height <= kMaxImageSide;
}

bool Finite(float x, float y) { return std::isfinite(x) && std::isfinite(y); }

// Inverse of the 3x3 matrix whose columns are (x_k, y_k, 1) of a triangle.
// Twice the signed area of a rest triangle, as the inverse uses it.
double RestDeterminant(const float tri[6]) {
  const double x0 = tri[0], y0 = tri[1], x1 = tri[2], y1 = tri[3], x2 = tri[4], y2 = tri[5];
  return (y1 - y2) * x0 - (y0 - y2) * x1 + (y0 - y1) * x2;
}

int32_t GetInverse(const float tri[6], double inv[9]) {
  const double x0 = tri[0], y0 = tri[1], x1 = tri[2], y1 = tri[3], x2 = tri[4], y2 = tri[5];
  const double det = RestDeterminant(tri);
  if (det == 0.0) return E_FAIL;
  const double r = 1.0 / det;
  inv[0] = (y1 - y2) * r, inv[1] = (x2 - x1) * r, inv[2] = (x1 * y2 - x2 * y1) * r;
  inv[3] = (y2 - y0) * r, inv[4] = (x0 - x2) * r, inv[5] = (x2 * y0 - x0 * y2) * r;
  inv[6] = (y0 - y1) * r, inv[7] = (x1 - x0) * r, inv[8] = (x0 * y1 - x1 * y0) * r;
  return S_OK;
}

int32_t CreateDelaunay(std::unique_ptr<Delaunay>& mesh) {
  mesh.reset(new (std::nothrow) Delaunay());
  return mesh ? S_OK : E_OUTOFMEMORY;
}

}  // namespace

int32_t PhotoAnimator::GetAffineMat(float transform_mat[6], const float dst_tri[6], const float src_tri[6]) {
  double inv_src[9];
  const int32_t hr = GetInverse(dst_tri, inv_src);
  if (hr < 0) return LogCall("GetInverse(src_tri, inv_src)", hr);
  for (int r = 0; r < 2; ++r) {
    const double q0 = src_tri[r], q1 = src_tri[2 + r], q2 = src_tri[4 + r];
    for (int c = 0; c < 3; ++c) {
      transform_mat[3 * r + c] = static_cast<float>(q0 * inv_src[c] + q1 * inv_src[3 + c] + q2 * inv_src[6 + c]);
    }
  }
  return S_OK;
}

int32_t PhotoAnimator::CheckFlows(const AnimationParam& param) const {
  for (uint32_t i = 0; i < param.flow_num; ++i) {
    if (!param.p_flow[i].p_points || param.p_flow[i].point_num == 0) return E_INVALIDARG;
  }
  return S_OK;
}

int32_t PhotoAnimator::Init(const AnimationParam* p_param) {
  if (!p_param) return E_POINTER;
  const AnimationParam& param = *p_param;
  if (!param.p_flow && param.flow_num > 0) return E_POINTER;
  if (param.anime_frame_count < 2 || param.loop_mode >= 3) return E_INVALIDARG;
  if (!param.input || !param.input->data) return E_POINTER;
  if (!param.mask || !param.mask->data) return E_POINTER;
  if (param.input->pix_fmt != PIXEL_BGRA32 || param.mask->pix_fmt != PIXEL_GRAY8) return E_INVALIDARG;
  if (CheckFlows(param) < 0) return E_INVALIDARG;
  if (!ImageFits(*param.input, 4) || !ImageFits(*param.mask, 1) || param.mask->width != param.input->width ||
      param.mask->height != param.input->height) {
    return E_INVALIDARG;
  }
  try {
    int32_t hr;
    m_ready = false;
    if (!mesh && KORVANE_FAILED(CreateDelaunay(mesh))) return hr;
    const uint32_t w = static_cast<uint32_t>(param.input->width), h = static_cast<uint32_t>(param.input->height);
    if (w != m_image_width || h != m_image_height) {
      if (KORVANE_FAILED(PrepareBuffer(param.input->width, param.input->height))) return hr;
    }
    m_frame_count = param.anime_frame_count;
    loop_mode = param.loop_mode;
    hr = LogStep("InpaintMaskByDistTransform", InpaintMaskByDistTransform(*param.input, *param.mask, m_background));
    if (hr < 0) return hr;
    if (KORVANE_FAILED(PrepareAnimationParm())) return hr;
    if ((hr = LogStep("PrepareDelaunayTri", PrepareDelaunayTri(param))) < 0) return hr;
    m_ready = true;
    return S_OK;
  } catch (const std::exception& e) {
    DebugLog("Init - %s caught!", e.what());
    return E_OUTOFMEMORY;
  }
}

int32_t PhotoAnimator::PrepareBuffer(int32_t w, int32_t h) {
  int32_t hr;
  m_background = SmartBuffer();
  m_image_width = 0;
  m_image_height = 0;
  if (KORVANE_FAILED(CreateSmartBufferData(m_background, w, h, PIXEL_BGRA32))) return hr;
  m_image_width = static_cast<uint32_t>(w);
  m_image_height = static_cast<uint32_t>(h);
  return S_OK;
}

int32_t PhotoAnimator::PrepareAnimationParm() {
  const float n = static_cast<float>(m_frame_count);
  // A count of 0 is stored as it is; every frame index is then out of range.
  const float unit = m_frame_count > 0 ? 1.0f / n : 0.0f;
  m_blend_step = unit;
  switch (loop_mode) {
    case 1:  // past and future half a flow vector apart
      m_step = 0.5f * unit;
      m_past_offset = 0.0f;
      m_future_offset = 0.5f;
      break;
    case 2:  // a full flow vector apart: the seamless loop
      m_step = unit;
      m_past_offset = -1.0f;
      m_future_offset = 0.0f;
      break;
    default:
      m_step = unit;
      m_past_offset = 0.0f;
      m_future_offset = 0.0f;
      break;
  }
  return S_OK;
}

int32_t PhotoAnimator::SetFrameCount(uint32_t frame_count) {
  m_frame_count = frame_count;
  return PrepareAnimationParm();
}

int32_t PhotoAnimator::UpdateFlowPoints(const AnimationParam* p_param) {
  if (!p_param) return E_POINTER;
  const AnimationParam& param = *p_param;
  if (!m_ready) return E_FAIL;
  if (!param.p_flow && param.flow_num > 0) return E_POINTER;
  if (param.loop_mode >= 3) return E_INVALIDARG;
  if (!param.input) return E_POINTER;
  if (CheckFlows(param) < 0) return E_INVALIDARG;
  // The mesh must cover the buffers prepared by Init.
  if (static_cast<uint32_t>(param.input->width) != m_image_width ||
      static_cast<uint32_t>(param.input->height) != m_image_height) {
    return E_INVALIDARG;
  }
  try {
    loop_mode = param.loop_mode;
    return LogStep("PrepareDelaunayTri", PrepareDelaunayTri(param));
  } catch (const std::exception& e) {
    mesh_points.clear();
    DebugLog("UpdateFlowPoints - %s caught!", e.what());
    return E_OUTOFMEMORY;
  }
}

int32_t PhotoAnimator::Uninit() {
  mesh_points.clear();
  past_points.clear();
  future_points.clear();
  flow_dx.clear();
  flow_dy.clear();
  moving_triangles.clear();
  static_triangles.clear();
  m_triangles.clear();
  m_spans.clear();
  m_row_begin.clear();
  m_maps.clear();
  m_single.clear();
  m_background = SmartBuffer();
  m_image_width = 0;
  m_image_height = 0;
  if (mesh) mesh->Reset();
  m_ready = false;
  return S_OK;
}

int32_t PhotoAnimator::PrepareDelaunayTri(const AnimationParam& param) {
  int32_t hr;
  // Nothing of the old mesh survives a failure below: the frame calls then
  // see fewer than four vertices and refuse to run.
  moving_triangles.clear();
  static_triangles.clear();
  m_spans.clear();
  m_row_begin.clear();
  mesh_points.clear();
  flow_dx.clear();
  flow_dy.clear();

  size_t room = 4;
  for (uint32_t i = 0; i < param.flow_num; ++i) {
    room += param.p_flow[i].flow_type == FLOW_STROKE ? param.p_flow[i].point_num / 10 : param.p_flow[i].point_num;
  }
  mesh_points.reserve(room);
  flow_dx.reserve(room);
  flow_dy.reserve(room);
  if (KORVANE_FAILED(SetFlowPoints(param.p_flow, param.flow_num)) ||
      KORVANE_FAILED(AddCorner(param.input->height, param.input->width))) {
    mesh_points.clear();
    return hr;
  }
  mesh->Reset();
  hr = mesh->Triangulate(&mesh_points[0].x, static_cast<uint32_t>(mesh_points.size()));
  if (LogStep("Update Delaunaty Triangulation", hr) < 0) {
    mesh_points.clear();
    return hr;
  }
  const uint32_t count = mesh->GetTriangleCount();
  m_triangles.assign(static_cast<size_t>(count) * 3, 0);
  if (KORVANE_FAILED(mesh->GetTriangles(m_triangles.data(), static_cast<int32_t>(count)))) {
    mesh_points.clear();
    return hr;
  }
  for (uint32_t t = 0; t < count; ++t) {
    const uint32_t* v = &m_triangles[3 * static_cast<size_t>(t)];
    bool still = true;
    for (int k = 0; k < 3; ++k) still = still && flow_dx[v[k]] == 0.0f && flow_dy[v[k]] == 0.0f;
    std::vector<int32_t>& list = still ? static_triangles : moving_triangles;
    for (int k = 0; k < 3; ++k) list.push_back(static_cast<int32_t>(v[k]));
  }
  past_points.assign(mesh_points.size(), MeshPoint{0.0f, 0.0f});
  future_points.assign(mesh_points.size(), MeshPoint{0.0f, 0.0f});
  BuildSpans();
  return S_OK;
}

int32_t PhotoAnimator::SetFlowPoints(const FlowData* p_flow, uint32_t flow_num) {
  int32_t hr;
  for (uint32_t i = 0; i < flow_num; ++i) {
    const FlowData& flow = p_flow[i];
    const float* p = flow.p_points;
    switch (flow.flow_type) {
      case FLOW_STROKE:
        if (KORVANE_FAILED(AddStroke(flow))) return hr;
        break;
      case FLOW_PATH:
        for (uint32_t k = 0; k + 1 < flow.point_num; ++k) {
          const float x = p[2 * k], y = p[2 * k + 1];
          const float dx = p[2 * k + 2] - x, dy = p[2 * k + 3] - y;
          if (!Finite(x, y) || !Finite(dx, dy)) return E_INVALIDARG;
          mesh_points.push_back({x, y});
          flow_dx.push_back(dx);
          flow_dy.push_back(dy);
        }
        break;
      case FLOW_ANCHOR:
        if (!Finite(p[0], p[1])) return E_INVALIDARG;
        mesh_points.push_back({p[0], p[1]});
        flow_dx.push_back(0.0f);
        flow_dy.push_back(0.0f);
        break;
      default:
        break;  // unknown kinds are ignored
    }
  }
  return S_OK;
}

int32_t PhotoAnimator::AddStroke(const FlowData& flow) {
  const float* p = flow.p_points;
  const uint32_t n = flow.point_num;
  for (uint32_t k = 0; k < n; ++k) {
    if (!Finite(p[2 * k], p[2 * k + 1])) return E_INVALIDARG;
  }
  if (n < 2) return S_OK;
  // Segment lengths and the stroke's arc length.
  std::vector<double> length(n - 1);
  double total = 0.0;
  for (uint32_t k = 0; k + 1 < n; ++k) {
    length[k] = std::hypot(static_cast<double>(p[2 * k + 2]) - p[2 * k], static_cast<double>(p[2 * k + 3]) - p[2 * k + 1]);
    total += length[k];
  }
  if (!(total > 0.0) || !std::isfinite(total)) return total > 0.0 ? E_INVALIDARG : S_OK;
  // Samples spaced evenly along the stroke, about a twentieth of the image
  // apart, so every vertex moves by about the same amount.
  // A stroke gets no more vertices than one 25 times the photo's width plus
  // height long: beyond that they lie far outside the photo or pile up, and a
  // huge stroke would otherwise become a mesh that takes seconds to build.
  const double spacing = std::max(m_image_width, m_image_height) / 20.0;
  const double most = spacing > 0.0 ? std::ceil(25.0 * (static_cast<double>(m_image_width) + m_image_height) / spacing) : 1.0;
  const double pieces = std::min(std::max(std::round(total / spacing), 1.0), most);
  const uint32_t segments = static_cast<uint32_t>(pieces);
  const double piece = total / segments;
  std::vector<MeshPoint> samples;
  samples.reserve(segments + 1);
  uint32_t seg = 0;
  double seg_start = 0.0;
  for (uint32_t j = 0; j <= segments; ++j) {
    if (j == segments) {
      samples.push_back({p[2 * (n - 1)], p[2 * (n - 1) + 1]});
      break;
    }
    const double at = piece * j;
    while (seg + 2 < n && seg_start + length[seg] < at) seg_start += length[seg++];
    double t = length[seg] > 0.0 ? (at - seg_start) / length[seg] : 0.0;
    t = std::min(std::max(t, 0.0), 1.0);
    const double x = p[2 * seg] + t * (static_cast<double>(p[2 * seg + 2]) - p[2 * seg]);
    const double y = p[2 * seg + 1] + t * (static_cast<double>(p[2 * seg + 3]) - p[2 * seg + 1]);
    samples.push_back({static_cast<float>(x), static_cast<float>(y)});
  }
  for (uint32_t j = 0; j < segments; ++j) {
    const float dx = samples[j + 1].x - samples[j].x, dy = samples[j + 1].y - samples[j].y;
    if (!Finite(dx, dy)) return E_INVALIDARG;
    mesh_points.push_back(samples[j]);
    flow_dx.push_back(dx);
    flow_dy.push_back(dy);
  }
  return S_OK;
}

int32_t PhotoAnimator::AddCorner(uint32_t height, uint32_t width) {
  const float mx = static_cast<float>(std::min<uint32_t>(std::max<uint32_t>(width / 50, 5), 50));
  const float my = static_cast<float>(std::min<uint32_t>(std::max<uint32_t>(height / 50, 5), 50));
  const float w = static_cast<float>(width), h = static_cast<float>(height);
  const MeshPoint corners[4] = {{-mx, -my}, {w - 1 + mx, -my}, {-mx, h - 1 + my}, {w - 1 + mx, h - 1 + my}};
  for (const MeshPoint& c : corners) {
    mesh_points.push_back(c);
    flow_dx.push_back(0.0f);
    flow_dy.push_back(0.0f);
  }
  return S_OK;
}

void PhotoAnimator::BuildSpans() {
  struct Run {
    int32_t y, x_begin, x_end;
    uint32_t item;
  };
  const int32_t w = static_cast<int32_t>(m_image_width), h = static_cast<int32_t>(m_image_height);
  const uint32_t moving = static_cast<uint32_t>(moving_triangles.size() / 3);
  const uint32_t items = moving + static_cast<uint32_t>(static_triangles.size() / 3);
  const uint32_t uncovered = items;  // rows no triangle reached are copied

  // Every triangle's rows, moving triangles first, each in mesh order.
  std::vector<Run> raw;
  for (uint32_t item = 0; item < items; ++item) {
    const int32_t* t = item < moving ? &moving_triangles[3 * static_cast<size_t>(item)]
                                     : &static_triangles[3 * static_cast<size_t>(item - moving)];
    float v[6];
    for (int k = 0; k < 3; ++k) {
      v[2 * k] = mesh_points[t[k]].x;
      v[2 * k + 1] = mesh_points[t[k]].y;
    }
    RasterizeTriangle(v, w, h, [&](int32_t y, int32_t x0, int32_t x1) { raw.push_back({y, x0, x1, item}); });
  }
  // By row, keeping that order within a row.
  std::vector<uint32_t> row_begin(static_cast<size_t>(h) + 1, 0);
  for (const Run& r : raw) ++row_begin[static_cast<size_t>(r.y) + 1];
  for (int32_t y = 0; y < h; ++y) row_begin[y + 1] += row_begin[y];
  std::vector<uint32_t> by_row(raw.size());
  {
    std::vector<uint32_t> fill(row_begin.begin(), row_begin.end() - 1);
    for (uint32_t i = 0; i < raw.size(); ++i) by_row[fill[raw[i].y]++] = i;
  }
  // Where triangles overlap (their shared edges), the later one in that
  // order owns the pixel, as if they were drawn one after another; pixels
  // between spans go to the span on their left (or right at a row's start).
  std::vector<uint32_t> owner(static_cast<size_t>(w));
  m_spans.clear();
  m_spans.reserve(raw.size() + static_cast<size_t>(h));
  m_row_begin.assign(static_cast<size_t>(h) + 1, 0);
  for (int32_t y = 0; y < h; ++y) {
    m_row_begin[y] = static_cast<uint32_t>(m_spans.size());
    if (row_begin[y] == row_begin[y + 1]) {
      m_spans.push_back({0, w, uncovered});
      continue;
    }
    std::fill(owner.begin(), owner.end(), kNone);
    for (uint32_t i = row_begin[y]; i < row_begin[y + 1]; ++i) {
      const Run& r = raw[by_row[i]];
      std::fill(owner.begin() + r.x_begin, owner.begin() + r.x_end, r.item);
    }
    int32_t first = 0;
    while (owner[first] == kNone) ++first;
    std::fill(owner.begin(), owner.begin() + first, owner[first]);
    for (int32_t x = first + 1; x < w; ++x) {
      if (owner[x] == kNone) owner[x] = owner[x - 1];
    }
    int32_t start = 0;
    for (int32_t x = 1; x <= w; ++x) {
      if (x == w || owner[x] != owner[start]) {
        m_spans.push_back({start, x, owner[start]});
        start = x;
      }
    }
  }
  m_row_begin[h] = static_cast<uint32_t>(m_spans.size());
}

uint32_t PhotoAnimator::NextChunk() {
  std::lock_guard<std::mutex> lock(m_chunk_mutex);
  if (m_next_chunk >= m_chunk_count) return kNone;
  return m_next_chunk++;
}

int32_t PhotoAnimator::PrepareWarp(int32_t alpha) {
  const size_t moving = moving_triangles.size() / 3;
  m_maps.resize(moving * 12);
  m_single.resize(moving);
  for (size_t k = 0; k < moving; ++k) {
    int32_t hr;
    const int32_t* t = &moving_triangles[3 * k];
    float dst_tri[6], past_tri[6], future_tri[6], transform_mat[6];
    for (int i = 0; i < 3; ++i) {
      dst_tri[2 * i] = mesh_points[t[i]].x;
      dst_tri[2 * i + 1] = mesh_points[t[i]].y;
      past_tri[2 * i] = past_points[t[i]].x;
      past_tri[2 * i + 1] = past_points[t[i]].y;
      future_tri[2 * i] = future_points[t[i]].x;
      future_tri[2 * i + 1] = future_points[t[i]].y;
    }
    float* maps = &m_maps[12 * k];
    if (RestDeterminant(dst_tri) == 0.0) {
      // A mesh triangle is never flat, but a sliver next to a vertex far
      // outside the photo can have an area that rounds to zero here. It has
      // no affine map; its few pixels move with its first vertex.
      const float shift[12] = {1, 0, past_tri[0] - dst_tri[0],   0, 1, past_tri[1] - dst_tri[1],
                               1, 0, future_tri[0] - dst_tri[0], 0, 1, future_tri[1] - dst_tri[1]};
      std::memcpy(maps, shift, sizeof(shift));
      m_single[k] = alpha == 0 || std::memcmp(maps, maps + 6, 6 * sizeof(float)) == 0;
      continue;
    }
    const float* src_tri = past_tri;
    if (KORVANE_FAILED(GetAffineMat(transform_mat, dst_tri, src_tri))) return hr;
    std::memcpy(maps, transform_mat, sizeof(transform_mat));
    src_tri = future_tri;
    if (KORVANE_FAILED(GetAffineMat(transform_mat, dst_tri, src_tri))) return hr;
    std::memcpy(maps + 6, transform_mat, sizeof(transform_mat));
    // With no weight on the past image, or both images warped alike, the
    // cross-fade gives the future sample exactly: one warp is enough.
    m_single[k] = alpha == 0 || std::memcmp(maps, maps + 6, sizeof(transform_mat)) == 0;
  }
  return S_OK;
}

namespace {

constexpr int32_t kChunkRows = 8;

// Past and future are both the unmoved pixel in a static triangle, so their
// cross-fade is that pixel, made opaque like every blended one.
void CopyOpaque(const unsigned char* in, int32_t count, unsigned char* out) {
  for (int32_t i = 0; i < count; ++i, in += 4, out += 4) {
    uint32_t v;
    std::memcpy(&v, in, 4);
    v |= 0xFF000000u;
    std::memcpy(out, &v, 4);
  }
}

// Takes the pixels of columns x_begin .. x_end - 1 whose mask byte is set
// from the photo row `in`; out receives column x_begin.
void PasteStill(const unsigned char* mask, const unsigned char* in, int32_t x_begin, int32_t x_end,
                unsigned char* out) {
  int32_t x = x_begin;
  // Still regions are compact: most runs of eight mask bytes are all zero.
  for (; x + 8 <= x_end; x += 8) {
    uint64_t any;
    std::memcpy(&any, mask + x, 8);
    if (any == 0) continue;
    for (int32_t k = x; k < x + 8; ++k) {
      if (mask[k] != 0) std::memcpy(out + static_cast<size_t>(k - x_begin) * 4, in + static_cast<size_t>(k) * 4, 4);
    }
  }
  for (; x < x_end; ++x) {
    if (mask[x] != 0) std::memcpy(out + static_cast<size_t>(x - x_begin) * 4, in + static_cast<size_t>(x) * 4, 4);
  }
}

}  // namespace

int32_t PhotoAnimator::FrameTask(ThreadJob* job, int32_t* result) {
  const FrameParam& fp = *static_cast<const FrameParam*>(job->param);
  PhotoAnimator& self = *fp.self;
  const Rect roi = self.m_output_roi;
  const ImageBuffer& input = *fp.param->input;
  const ImageBuffer& mask = *fp.param->mask;
  const ImageBuffer& output = *fp.param->output;
  const WarpSource src{self.m_background.data.get(), self.m_background.width, self.m_background.height,
                       static_cast<size_t>(self.m_background.stride)};
  const uint32_t moving = static_cast<uint32_t>(self.m_single.size());
  // Whole rows at a time, left to right, so that the source rows a warp
  // reads are streamed rather than revisited triangle by triangle.
  for (uint32_t chunk; (chunk = self.NextChunk()) != kNone;) {
    const int32_t y_begin = roi.top + static_cast<int32_t>(chunk) * kChunkRows;
    const int32_t y_end = std::min(roi.bottom, y_begin + kChunkRows);
    for (int32_t y = y_begin; y < y_end; ++y) {
      unsigned char* out = output.data + static_cast<size_t>(y - roi.top) * static_cast<size_t>(output.stride);
      const unsigned char* bg = src.data + static_cast<size_t>(y) * src.stride;
      for (uint32_t s = self.m_row_begin[y]; s < self.m_row_begin[y + 1]; ++s) {
        const Span& span = self.m_spans[s];
        const int32_t x0 = std::max(span.x_begin, roi.left), x1 = std::min(span.x_end, roi.right);
        if (x0 >= x1) continue;
        unsigned char* o = out + static_cast<size_t>(x0 - roi.left) * 4;
        if (span.item >= moving) {
          CopyOpaque(bg + static_cast<size_t>(x0) * 4, x1 - x0, o);
        } else if (self.m_single[span.item]) {
          fp.warp(src, &self.m_maps[12 * static_cast<size_t>(span.item) + 6], y, x0, x1, o);
        } else {
          const float* maps = &self.m_maps[12 * static_cast<size_t>(span.item)];
          fp.warp_blend(src, maps, maps + 6, fp.alpha, y, x0, x1, o);
        }
      }
      PasteStill(mask.data + static_cast<size_t>(y) * static_cast<size_t>(mask.stride),
                 input.data + static_cast<size_t>(y) * static_cast<size_t>(input.stride), roi.left, roi.right, out);
    }
  }
  return Done(result, S_OK);
}

int32_t PhotoAnimator::RenderFrame(const AnimationParam& param, int32_t alpha) {
  int32_t hr;
  FrameParam frame_param;
  frame_param.self = this;
  frame_param.param = &param;
  frame_param.alpha = alpha;
  frame_param.warp = KORVANE_PICK_AVX2(m_system_info, WarpSpan, WarpSpan_SSE, WarpSpan_AVX2).fn;
  frame_param.warp_blend = KORVANE_PICK_AVX2(m_system_info, WarpBlendSpan, WarpBlendSpan_SSE, WarpBlendSpan_AVX2).fn;
  {
    std::lock_guard<std::mutex> lock(m_chunk_mutex);
    m_next_chunk = 0;
    m_chunk_count = static_cast<uint32_t>((m_output_roi.bottom - m_output_roi.top + kChunkRows - 1) / kChunkRows);
  }
  const Rect process_region{0, 0, static_cast<int32_t>(m_image_width), static_cast<int32_t>(m_image_height)};
  if (KORVANE_FAILED(m_thread_adapter.RunTaskByMultiThread(FrameTask, &frame_param, NULL, process_region))) {
    return hr;
  }
  return S_OK;
}

int32_t PhotoAnimator::Animate(const AnimationParam* p_param, int32_t frame_index) {
  if (!p_param) return E_POINTER;
  const AnimationParam& param = *p_param;
  if (!m_ready) return E_FAIL;
  if (mesh_points.size() < 4) return E_FAIL;
  if (!param.input || !param.mask || !param.output || !param.input->data || !param.mask->data ||
      !param.output->data) {
    return E_POINTER;
  }
  if (param.input->pix_fmt != PIXEL_BGRA32 || param.mask->pix_fmt != PIXEL_GRAY8) return E_NOTIMPL;
  if (param.anime_frame_count != m_frame_count) return E_NOTIMPL;
  if (frame_index < 0 || static_cast<uint32_t>(frame_index) >= m_frame_count) return E_INVALIDARG;
  const int32_t w = static_cast<int32_t>(m_image_width), h = static_cast<int32_t>(m_image_height);
  Rect roi{0, 0, w, h};
  if (param.p_output_roi) {
    roi = *param.p_output_roi;
    if (roi.left < 0 || roi.top < 0 || roi.right > w || roi.bottom > h) return E_INVALIDARG;
  }
  if (!param.p_flow && param.flow_num > 0) return E_POINTER;
  if (CheckFlows(param) < 0) return E_INVALIDARG;
  // Everything read or written must lie inside the caller's images: the
  // photo and mask of the prepared size, an output exactly the region's size.
  if (param.output->pix_fmt != PIXEL_BGRA32) return E_NOTIMPL;
  if (roi.right < roi.left || roi.bottom < roi.top || param.input->width != w || param.input->height != h ||
      param.mask->width != w || param.mask->height != h || !ImageFits(*param.input, 4) ||
      !ImageFits(*param.mask, 1) || param.output->width != roi.right - roi.left ||
      param.output->height != roi.bottom - roi.top ||
      static_cast<int64_t>(param.output->stride) < static_cast<int64_t>(param.output->width) * 4) {
    return E_INVALIDARG;
  }
  try {
    int32_t hr;
    m_output_roi = roi;
    if (mesh_points.size() == 4) {
      if (KORVANE_FAILED(CopyBufferDataWithROI(*(param.input), *(param.output), m_output_roi))) return hr;
      return S_OK;
    }
    const float t = static_cast<float>(frame_index) * m_step;
    const float a = t + m_past_offset, b = t + m_future_offset;
    for (size_t k = 0; k < mesh_points.size(); ++k) {
      past_points[k] = {mesh_points[k].x - a * flow_dx[k], mesh_points[k].y - a * flow_dy[k]};
      future_points[k] = {mesh_points[k].x - b * flow_dx[k], mesh_points[k].y - b * flow_dy[k]};
    }
    // The frame is the cross-fade of the photo warped to the past and to the
    // future positions; the past image's weight grows over the loop.
    const float weight = static_cast<float>(frame_index) * m_blend_step;
    const int32_t alpha = std::min(static_cast<int32_t>(weight * 256.0f), 256);
    if ((hr = PrepareWarp(alpha)) < 0) {
      LogStep("Get Past Image", hr);
      return LogStep("Animating", hr);
    }
    if (KORVANE_FAILED(RenderFrame(param, alpha))) return hr;
    return S_OK;
  } catch (const std::exception& e) {
    DebugLog("Animate - %s caught!", e.what());
    return E_OUTOFMEMORY;
  }
}

}  // namespace Korvane
