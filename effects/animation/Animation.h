// Public header: part of the installed API.
// Photo animation: a still photo, a few flow lines and a still-region mask
// become a seamlessly looping animation, rendered one frame per call.
//
// The flow points and four anchors just outside the image corners are meshed
// into triangles. Every frame pushes the mesh vertices along their flow
// vectors by two amounts (a "past" and a "future" position), warps the photo
// triangle by triangle into both, cross-fades them by the frame's position in
// the loop and pastes the still region back from the photo.
#pragma once

#include <cstdint>

#include "core/ImageBuffer.h"
#include "core/ResultCode.h"

namespace Korvane {

// Kinds of flow line (FlowData::flow_type).
enum FlowType : uint32_t {
  // A freehand stroke. It is resampled at an arc-length spacing of about
  // max(image width, image height) / 20: the samples become mesh vertices,
  // each with a flow vector pointing along the stroke to the next sample, so
  // a stroke animates as smoothly as a path drawn through those samples. A
  // stroke shorter than half the spacing gives a single vertex that moves
  // to the stroke's end; a stroke of one point, or of zero length, adds nothing.
  FLOW_STROKE = 0,
  // A path: every point but the last becomes a vertex whose flow vector is
  // the step to the next point. A path of fewer than 2 points adds nothing.
  FLOW_PATH = 1,
  // An anchor: its first point becomes a vertex that does not move.
  FLOW_ANCHOR = 2,
};

// One flow line. Other flow_type values are ignored.
struct FlowData {
  const float* p_points = nullptr;  // point_num (x, y) pairs, image pixels
  uint32_t point_num = 0;
  uint32_t flow_type = FLOW_PATH;
};

struct AnimationParam {
  const ImageBuffer* input = nullptr;  // the photo, PIXEL_BGRA32
  // Still region, PIXEL_GRAY8, the photo's size: non-zero pixels never move.
  const ImageBuffer* mask = nullptr;
  // Receives the frame, PIXEL_BGRA32, the size of the region rendered.
  ImageBuffer* output = nullptr;
  // The part of the frame to render (inside the photo), or NULL for all of it.
  const Rect* p_output_roi = nullptr;
  // Displacement schedule: 0 past and future images identical, 1 half a flow
  // vector apart, 2 a full flow vector apart (the seamless loop).
  int32_t loop_mode = 2;
  uint32_t anime_frame_count = 48;  // frames in one loop, at least 2
  const FlowData* p_flow = nullptr;
  uint32_t flow_num = 0;
};

// Result codes: E_POINTER for missing records, images or pixels;
// E_INVALIDARG for bad counts, modes, flows, sizes (a side over 65536
// included), frame indices or regions; E_NOTIMPL for a wrong pixel format or
// frame count in Animate; E_FAIL when called before a successful Init;
// E_OUTOFMEMORY when memory runs out.
//
// The animator's own contract fixes the order of its checks, which is not
// the usual pixels-formats-sizes one:
// - Init: flows missing while flow_num > 0 (E_POINTER); frame count below 2
//   or loop_mode above 2 (E_INVALIDARG); input, then mask, or their pixels
//   missing (E_POINTER); wrong formats, here E_INVALIDARG; a flow without
//   points; then sizes and strides (E_INVALIDARG).
// - Animate: not ready, or no mesh (E_FAIL); images or pixels missing
//   (E_POINTER); input or mask format, then a frame count other than the
//   prepared one (E_NOTIMPL); frame index out of range, region outside the
//   photo (E_INVALIDARG); flows as in Init; output format (E_NOTIMPL); then
//   sizes and strides (E_INVALIDARG).
// - UpdateFlowPoints: not ready (E_FAIL); flows missing (E_POINTER);
//   loop_mode (E_INVALIDARG); input missing (E_POINTER); flows without
//   points, or a photo of another size than Init's (E_INVALIDARG).
class Animation {
 public:
  virtual ~Animation() = default;
  // Prepares buffers, the still-region fill, the schedule and the mesh.
  // input and mask (the same size) and the flows are needed; output is not.
  virtual int32_t Init(const AnimationParam* param) = 0;
  // Renders frame frame_index (0 .. anime_frame_count - 1) of the region into
  // output. input and mask must be the size given to Init, and
  // anime_frame_count the count of the last Init or SetFrameCount.
  virtual int32_t Animate(const AnimationParam* param, int32_t frame_index) = 0;
  // Changes the number of frames in a loop; recomputes the schedule.
  virtual int32_t SetFrameCount(uint32_t frame_count) = 0;
  // Rebuilds the mesh from new flow lines, keeping buffers and the fill.
  // A new loop_mode takes effect at the next SetFrameCount or Init.
  virtual int32_t UpdateFlowPoints(const AnimationParam* param) = 0;
  // Releases everything Init prepared.
  virtual int32_t Uninit() = 0;
};

}  // namespace Korvane
