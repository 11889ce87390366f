// The glitch effect: each colour channel is shifted into its own 8-bit plane,
// then the planes are merged with the source alpha into the output.
#pragma once

#include <cstdint>

#include "core/EffectCore.h"
#include "core/ImageBuffer.h"
#include "effects/glitch/Glitch.h"

namespace Korvane {

// Operations of RunThreadApply.
enum GlitchOperation : int32_t {
  GLITCH_OP_SHIFT = 0,       // one channel into its plane, plain code
  GLITCH_OP_SHIFT_SIMD = 1,  // the same, SIMD code
  GLITCH_OP_MERGE = 2,       // the three planes and source alpha into the output, plain code
  GLITCH_OP_MERGE_SIMD = 3,  // the same, SIMD code
};

// What one RunThreadApply call works on; rewritten between the four tasks.
struct GlitchThreadParam {
  ImageBuffer src_image;
  SmartBuffer planes[3];  // blue, green, red
  ImageBuffer dst_image;
  int32_t x_offset = 0;
  int32_t y_offset = 0;
  int32_t operation = GLITCH_OP_SHIFT;
  int32_t channel = 0;  // 0 blue, 1 green, 2 red
};

class GlitchEffect final : public Glitch, public EffectCore {
 public:
  explicit GlitchEffect(CThreadPool* pool) : EffectCore(pool) {}
  ~GlitchEffect() override = default;

  int32_t SetImages(const GlitchImages* images) override;
  int32_t Process(const GlitchParam* param) override;
  int32_t Release() override { return 0; }

  // Per-band task: runs m_thread_param's operation over the job's rows.
  static int32_t RunThreadApply(ThreadJob* job, int32_t* result);

  // Pixel offsets (x, y) of the blue, green and red channel for a type, from
  // the shifts X, Y, circle radius R (all pixels) and angle A. False for a
  // type outside 0..7.
  static bool CalChannelOffsets(int32_t glitch_type, int32_t x, int32_t y, int32_t r, int32_t a,
                                int32_t offsets[3][2]);

 private:
  // E_POINTER / E_NOTIMPL / E_INVALIDARG for images the effect cannot render.
  static int32_t CheckImages(const ImageBuffer* input, const ImageBuffer* output);

  // The shifts are given in tenths of a percent; this turns them into a
  // fraction of the width.
  const double m_shift_scale = 0.1;
  bool m_prepared = false;
  GlitchThreadParam m_thread_param;
};

}  // namespace Korvane
