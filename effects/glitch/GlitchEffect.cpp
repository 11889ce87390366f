#include "effects/glitch/GlitchEffect.h"

#include <cmath>
#include <cstddef>
#include <exception>

#include "core/DebugLog.h"
#include "core/ImageChecks.h"
#include "core/Simd.h"
#include "core/SmartBuffer.h"
#include "effects/glitch/GlitchKernels.h"

namespace Korvane {

namespace {

// Single-precision angle steps of the circular types.
constexpr float kPi = 3.1415927f;
constexpr float kThirdTurn = 2.0943952f;

// Offset of a channel placed on the circle of radius r at angle theta.
void Polar(float r, float theta, int32_t out[2]) {
  out[0] = static_cast<int32_t>(-r * std::cos(theta));
  out[1] = static_cast<int32_t>(-r * std::sin(theta));
}

GlitchSource SourceOf(const ImageBuffer& img) {
  return GlitchSource{img.data, img.width, img.height, img.stride};
}

}  // namespace

int32_t GlitchEffect::CheckImages(const ImageBuffer* input, const ImageBuffer* output) {
  if (!input || !output || !HasPixels(*input) || !HasPixels(*output)) return E_POINTER;
  if (input->pix_fmt != PIXEL_BGRA32 || output->pix_fmt != PIXEL_BGRA32) return E_NOTIMPL;
  if (input->width <= 0 || input->height <= 0 || input->width > kMaxImageSide || input->height > kMaxImageSide) {
    return E_INVALIDARG;
  }
  if (output->width != input->width || output->height != input->height) return E_INVALIDARG;
  // Rows may be padded, never short: the kernels walk width x 4 bytes of each.
  if (!RowsFit(*input, 4) || !RowsFit(*output, 4)) return E_INVALIDARG;
  return S_OK;
}

int32_t GlitchEffect::SetImages(const GlitchImages* images) {
  if (!images) return E_POINTER;
  const int32_t hr = CheckImages(images->input, images->output);
  if (hr < 0) return hr;
  const ImageBuffer& in = *images->input;
  try {
    for (SmartBuffer& plane : m_thread_param.planes) {
      if (plane.width != in.width || plane.height != in.height || !plane.data) {
        plane = SmartBuffer();  // drop the old plane before allocating the new one
        CreateSmartBufferData(plane, in.width, in.height, PIXEL_GRAY8);
      }
    }
  } catch (const std::exception& e) {
    DebugLog("CreateBuffer - %s caught!", e.what());
    for (SmartBuffer& plane : m_thread_param.planes) plane = SmartBuffer();
    m_prepared = false;
    return E_OUTOFMEMORY;
  }
  m_thread_param.src_image = in;
  m_thread_param.dst_image = *images->output;
  m_prepared = true;
  return S_OK;
}

bool GlitchEffect::CalChannelOffsets(int32_t glitch_type, int32_t x, int32_t y, int32_t r, int32_t a,
                                     int32_t offsets[3][2]) {
  // Rows of the table: blue, green, red as multiples of (X, Y): +1, -1 or 0.
  static const int8_t kLinear[6][3] = {
      {-1, +1, 0}, {-1, +1, +1}, {0, -1, +1}, {+1, -1, +1}, {+1, +1, -1}, {+1, 0, -1},
  };
  if (glitch_type >= 0 && glitch_type <= 5) {
    for (int c = 0; c < 3; ++c) {
      offsets[c][0] = kLinear[glitch_type][c] * x;
      offsets[c][1] = kLinear[glitch_type][c] * y;
    }
    return true;
  }
  const float radius = static_cast<float>(r);
  const float turn = static_cast<float>(a) * kPi / 100.0f;
  if (glitch_type == 6) {
    // A third of a turn between the channels, each angle stepping from the last.
    float theta = turn - kThirdTurn;
    for (int c = 0; c < 3; ++c) {
      Polar(radius, theta, offsets[c]);
      theta += -kThirdTurn;
    }
    return true;
  }
  if (glitch_type == 7) {
    const float theta = turn + kPi;
    Polar(radius, theta, offsets[0]);
    offsets[1][0] = offsets[1][1] = 0;
    Polar(radius, theta + kPi, offsets[2]);
    return true;
  }
  return false;
}

int32_t GlitchEffect::Process(const GlitchParam* param) {
  if (!param) return E_POINTER;
  if (param->shift_x < -100 || param->shift_x > 100 || param->shift_y < -100 || param->shift_y > 100 ||
      param->radius < 0 || param->radius > 100 || param->angle < -100 || param->angle > 100) {
    return E_INVALIDARG;
  }
  if (!m_prepared) return E_FAIL;
  int32_t hr = CheckImages(param->input, param->output);
  if (hr < 0) return hr;
  // The planes were sized by SetImages; other images would run the kernels
  // past their ends.
  if (param->input->width != m_thread_param.planes[0].width ||
      param->input->height != m_thread_param.planes[0].height) {
    return E_INVALIDARG;
  }

  const int32_t width = param->input->width;
  const int32_t x = static_cast<int32_t>(param->shift_x * m_shift_scale / 100 * width);
  const int32_t y = static_cast<int32_t>(param->shift_y * m_shift_scale / 100 * width);  // by width, as x
  const int32_t r = static_cast<int32_t>(param->radius * m_shift_scale / 100 * width);
  const int32_t a = param->angle;
  int32_t offsets[3][2];
  if (!CalChannelOffsets(param->glitch_type, x, y, r, a, offsets)) return S_OK;  // unknown type: nothing to do

  m_thread_param.src_image = *param->input;
  m_thread_param.dst_image = *param->output;
  const Rect process_region{0, 0, width, param->input->height};
  // The SIMD forms need SSE2 (built into every x86-64 library), which every
  // level from SSE3 up implies. The choice travels as the operation code.
  const auto shift = KORVANE_PICK_AT(m_system_info, SIMD_SSE3, ShiftChannel, ShiftChannel_SSE);
  const auto merge = KORVANE_PICK_AT(m_system_info, SIMD_SSE3, MergePlanes, MergePlanes_SSE);

  for (int32_t c = 0; c < 3; ++c) {
    m_thread_param.operation = shift.simd ? GLITCH_OP_SHIFT_SIMD : GLITCH_OP_SHIFT;
    m_thread_param.channel = c;
    m_thread_param.x_offset = offsets[c][0];
    m_thread_param.y_offset = offsets[c][1];
    if (KORVANE_FAILED(m_thread_adapter.RunTaskByMultiThread(RunThreadApply, &m_thread_param, NULL, process_region))) {
      return hr;
    }
  }
  m_thread_param.operation = merge.simd ? GLITCH_OP_MERGE_SIMD : GLITCH_OP_MERGE;
  if (KORVANE_FAILED(m_thread_adapter.RunTaskByMultiThread(RunThreadApply, &m_thread_param, NULL, process_region))) {
    return hr;
  }
  return S_OK;
}

int32_t GlitchEffect::RunThreadApply(ThreadJob* job, int32_t* result) {
  int32_t hr = S_OK;
  if (!job || !job->param) {
    hr = E_POINTER;
  } else if (static_cast<const GlitchThreadParam*>(job->param)->channel < 0 ||
             static_cast<const GlitchThreadParam*>(job->param)->channel > 2) {
    hr = E_INVALIDARG;
  } else {
    const GlitchThreadParam& p = *static_cast<const GlitchThreadParam*>(job->param);
    const GlitchSource src = SourceOf(p.src_image);
    const int32_t y0 = job->rect.top;
    const int32_t y1 = job->rect.bottom;
    switch (p.operation) {
      case GLITCH_OP_SHIFT:
        ShiftChannel(src, p.channel, p.x_offset, p.y_offset, p.planes[p.channel].data.get(), y0, y1);
        break;
      case GLITCH_OP_SHIFT_SIMD:
        ShiftChannel_SSE(src, p.channel, p.x_offset, p.y_offset, p.planes[p.channel].data.get(), y0, y1);
        break;
      case GLITCH_OP_MERGE:
        MergePlanes(src, p.planes[0].data.get(), p.planes[1].data.get(), p.planes[2].data.get(), p.dst_image.data,
                    p.dst_image.stride, y0, y1);
        break;
      case GLITCH_OP_MERGE_SIMD:
        MergePlanes_SSE(src, p.planes[0].data.get(), p.planes[1].data.get(), p.planes[2].data.get(),
                        p.dst_image.data, p.dst_image.stride, y0, y1);
        break;
      default:
        break;  // not an operation of this task: nothing to do
    }
  }
  return Done(result, hr);
}

}  // namespace Korvane
