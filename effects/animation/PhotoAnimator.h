// The photo animator: meshes the flow points, warps the still-region-filled
// photo triangle by triangle to a past and a future position each frame,
// cross-fades the two and pastes the still region back from the photo.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "core/EffectCore.h"
#include "core/ImageBuffer.h"
#include "effects/animation/Animation.h"
#include "effects/animation/AnimationKernels.h"
#include "effects/animation/Delaunay.h"

namespace Korvane {

struct MeshPoint {
  float x;
  float y;
};

class PhotoAnimator final : public Animation, public EffectCore {
 public:
  explicit PhotoAnimator(CThreadPool* pool) : EffectCore(pool) {}
  ~PhotoAnimator() override = default;

  int32_t Init(const AnimationParam* param) override;
  int32_t Animate(const AnimationParam* param, int32_t frame_index) override;
  int32_t SetFrameCount(uint32_t frame_count) override;
  int32_t UpdateFlowPoints(const AnimationParam* param) override;
  int32_t Uninit() override;

  // Read access for tests.
  const std::vector<MeshPoint>& MeshPoints() const { return mesh_points; }
  const std::vector<float>& FlowDx() const { return flow_dx; }
  const std::vector<float>& FlowDy() const { return flow_dy; }
  size_t MovingTriangleCount() const { return moving_triangles.size() / 3; }
  size_t StaticTriangleCount() const { return static_triangles.size() / 3; }

  // The 2x3 matrix M with M·(P_k, 1) = Q_k for the rest triangle dst_tri (P)
  // and the displaced triangle src_tri (Q), both (x0, y0, x1, y1, x2, y2).
  // E_FAIL when the rest triangle is degenerate.
  static int32_t GetAffineMat(float transform_mat[6], const float dst_tri[6], const float src_tri[6]);

 private:
  // One row piece of the frame: columns x_begin .. x_end - 1, drawn by
  // moving triangle `item` or, for item >= the moving count, copied.
  struct Span {
    int32_t x_begin;
    int32_t x_end;
    uint32_t item;
  };
  // What the frame tasks share.
  struct FrameParam {
    PhotoAnimator* self = nullptr;
    const AnimationParam* param = nullptr;
    int32_t alpha = 0;  // weight of the past image, 0..256
    WarpSpanFn warp = nullptr;
    WarpBlendSpanFn warp_blend = nullptr;
  };

  int32_t CheckFlows(const AnimationParam& param) const;
  int32_t PrepareBuffer(int32_t width, int32_t height);
  int32_t PrepareAnimationParm();
  int32_t PrepareDelaunayTri(const AnimationParam& param);
  int32_t SetFlowPoints(const FlowData* p_flow, uint32_t flow_num);
  int32_t AddStroke(const FlowData& flow);
  int32_t AddCorner(uint32_t height, uint32_t width);
  // Rasterises every triangle once and gives each pixel to exactly one span
  // (rows no triangle reached get a copied span), so that workers never
  // write the same pixel.
  void BuildSpans();
  // The past and future affine maps of every moving triangle for this
  // frame's vertex positions.
  int32_t PrepareWarp(int32_t alpha);
  // Renders the frame's region into the output: moving triangles warped to
  // their past and future positions and cross-faded, static ones copied,
  // still pixels taken from the photo.
  int32_t RenderFrame(const AnimationParam& param, int32_t alpha);
  uint32_t NextChunk();

  static int32_t FrameTask(ThreadJob* job, int32_t* result);

  std::unique_ptr<Delaunay> mesh;
  std::vector<MeshPoint> mesh_points;  // flow vertices first, then the four corner anchors
  std::vector<MeshPoint> past_points;
  std::vector<MeshPoint> future_points;
  std::vector<float> flow_dx;
  std::vector<float> flow_dy;
  std::vector<int32_t> moving_triangles;  // three vertex indices each
  std::vector<int32_t> static_triangles;
  std::vector<uint32_t> m_triangles;      // the mesh as the triangulation returned it

  // The frame's pixels in row order: row y is m_spans[m_row_begin[y] ..
  // m_row_begin[y + 1]), left to right, covering the whole row.
  std::vector<Span> m_spans;
  std::vector<uint32_t> m_row_begin;
  // Per moving triangle and frame: past then future map (12 floats), and
  // whether the future map alone gives the cross-fade.
  std::vector<float> m_maps;
  std::vector<uint8_t> m_single;

  SmartBuffer m_background;
  Rect m_output_roi;
  int32_t loop_mode = 0;
  uint32_t m_image_height = 0;
  uint32_t m_image_width = 0;
  uint32_t m_frame_count = 0;
  float m_past_offset = 0.0f;
  float m_future_offset = 0.0f;
  float m_step = 0.0f;
  float m_blend_step = 0.0f;
  bool m_ready = false;

  // Workers take the region's rows a chunk at a time from this counter.
  std::mutex m_chunk_mutex;
  uint32_t m_next_chunk = 0;
  uint32_t m_chunk_count = 0;
};

}  // namespace Korvane
