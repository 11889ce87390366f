// What the render cores of the commands share (not part of the front-end
// interface): their openers, the checks of inputs and regions against the
// photo, and the conversions into library records.
#pragma once

#include <memory>
#include <string>

#include "Session.h"

namespace KorvaneFrontend {

using Opener = Status (*)(Engine& engine, const OptionValues& values, const ImageView& photo, const Inputs& inputs,
                          std::unique_ptr<Session>& session);

Status OpenFocusBlur(Engine&, const OptionValues&, const ImageView&, const Inputs&, std::unique_ptr<Session>&);
Status OpenGlitch(Engine&, const OptionValues&, const ImageView&, const Inputs&, std::unique_ptr<Session>&);
Status OpenGlow(Engine&, const OptionValues&, const ImageView&, const Inputs&, std::unique_ptr<Session>&);
Status OpenLightRays(Engine&, const OptionValues&, const ImageView&, const Inputs&, std::unique_ptr<Session>&);
Status OpenBokeh(Engine&, const OptionValues&, const ImageView&, const Inputs&, std::unique_ptr<Session>&);
Status OpenSparkle(Engine&, const OptionValues&, const ImageView&, const Inputs&, std::unique_ptr<Session>&);
Status OpenAnimate(Engine&, const OptionValues&, const ImageView&, const Inputs&, std::unique_ptr<Session>&);
Status OpenDisperse(Engine&, const OptionValues&, const ImageView&, const Inputs&, std::unique_ptr<Session>&);

// What every command's session starts from: the photo, the size of the
// frames (the region's) and the gray input of the photo's size, if any.
class PhotoSession : public Session {
 protected:
  // Sets the photo and the frame size from --roi, and `gray` to the input
  // `gray_name` when given (checked against the photo).
  Status Begin(const OptionValues& values, const ImageView& photo, const Inputs& inputs, const char* gray_name,
               ImageView* gray);
  // The region of this render: --roi as it is now, which must keep the
  // size the session was opened with.
  Status Region(const OptionValues& values, Korvane::Rect& region) const;
  // `guide` with its values stretched to 0..255 when --stretch-guide is on
  // (made once and kept), else `guide` itself.
  ImageView StretchedGuide(const OptionValues& values, const ImageView& guide);

  ImageView m_photo;
  Image m_gray_resized;  // the gray input resized to the photo, when it had another size
  Image m_stretched;
};

// Opens a session of class S, whose Open takes (engine, values, photo,
// inputs); `session` is set only when it opened.
template <class S>
Status OpenAs(Engine& engine, const OptionValues& values, const ImageView& photo, const Inputs& inputs,
              std::unique_ptr<Session>& session) {
  auto s = std::make_unique<S>();
  Status st = s->Open(engine, values, photo, inputs);
  if (st.ok()) session = std::move(s);
  return st;
}

// The input image `name` when given: a gray image of the photo's size, or
// one of its proportions resized into `resized` (`notice` then says so), or
// a Failed status naming it. `image` stays empty when it was not given.
Status GrayInputOf(const Inputs& inputs, const std::string& name, const ImageView& photo, ImageView& image,
                   Image& resized, std::string& notice);

// The guide focus blur and bokeh use when none is given: 255 in the middle
// of the picture falling to 0 in the corners, so the default focus keeps the
// centre sharp and blurs outwards.
Image RadialGuide(int width, int height);

// The rectangle the render covers: --roi when given (checked to lie inside
// the photo), else the whole photo.
Status RegionOf(const OptionValues& values, const ImageView& photo, Korvane::Rect& region);

// `out` must be the session's frame size, BGRA.
Status CheckFrame(const Session& session, const ImageView& out);

// The table's units as the records' units. Each conversion gives the
// record the same number a value in the record's own unit gave before, so
// pixels stay as they were.
// A hue turn (-1..1 turns) as the records' half turns (-1..1): wrapped to
// within half a turn either way, then doubled.
inline float HalfTurns(double turns) {
  if (turns > 0.5) turns -= 1.0;
  if (turns < -0.5) turns += 1.0;
  return static_cast<float>(turns * 2.0);
}
// A direction of -360..360 degrees as 0..360.
inline float PositiveDegrees(double degrees) { return static_cast<float>(degrees < 0 ? degrees + 360.0 : degrees); }

// The longer side of the photo.
inline int32_t LongerSide(const ImageView& photo) { return photo.width > photo.height ? photo.width : photo.height; }

}  // namespace KorvaneFrontend
