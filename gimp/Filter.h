// Running a command on a layer: one session of the front-end core over the
// layer's pixels and the inputs the request names, rendering stills into the
// layer and loops into new frame layers above it.
#pragma once

#include <libgimp/gimp.h>

#include <memory>
#include <string>

#include "Inputs.h"
#include "Procedures.h"
#include "frontend/Session.h"

namespace KorvaneGimp {

// "" when `drawable` is a layer the filters work on, else why not.
std::string CheckDrawable(gint32 drawable);

// The frames a request asks for: a loop of `frames`, and the one frame to
// render into the layer (-1: every frame, each into a layer of its own).
struct FrameChoice {
  int32_t frames = 1;
  int32_t frame = -1;
  bool Layers() const { return frames > 1 && frame < 0; }
};
FrameChoice FramesOf(const KorvaneFrontend::OptionValues& values);
// "" when the chosen frame is in the loop, else the tool's message.
std::string FrameProblem(const FrameChoice& choice);

// Where a render goes in the layer: the corner of --roi, or the origin.
void FrameCorner(const KorvaneFrontend::OptionValues& values, gint32& x, gint32& y);

// "Frame 3 (42ms) (replace)": GIMP's animation exporters take each frame's
// delay and disposal from its layer's name.
std::string FrameLayerName(int32_t number, int32_t fps);

// The layer's photo with a session of one command, reopened when the
// request's inputs change and rendering any frame with any values.
class LayerSession {
 public:
  LayerSession(gint32 image, gint32 layer);

  // Reads the request's inputs and opens the session: "" or the message.
  std::string Open(const Request& request);
  bool IsOpen() const { return m_session != nullptr; }
  // Renders one frame into `out` (sized here): "" or the message.
  std::string Render(const Request& request, int32_t index, int32_t count, KorvaneFrontend::Image& out);

  const KorvaneFrontend::Image& photo() const { return m_photo; }
  bool SelectionIsInput() const { return m_inputs.selection; }

 private:
  gint32 m_image;
  gint32 m_layer;
  KorvaneFrontend::Image m_photo;
  LayerInputs m_inputs;
  KorvaneFrontend::Engine m_engine;  // outlives the session, whose effects it made
  std::unique_ptr<KorvaneFrontend::Session> m_session;
};

// Renders `request` on `layer` as one undo step with progress in the status
// bar: a still (or the chosen frame of a loop) replaces the layer's pixels
// inside the selection; a loop adds one layer per frame above the layer.
// Returns "" or the message for the user.
std::string ApplyFilter(gint32 image, gint32 layer, const Request& request);

}  // namespace KorvaneGimp
