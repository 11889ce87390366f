#include "Filter.h"

#include <cmath>
#include <cstdlib>

#include "Pixels.h"

namespace KorvaneGimp {

using KorvaneFrontend::Image;
using KorvaneFrontend::OptionValues;
using KorvaneFrontend::Status;

namespace {

std::string MessageOf(const Status& status, const Request& request) {
  return status.Text(status.input.empty() ? "" : InputLabel(request, status.input));
}

// The frame rate of the layer names: the tool's default, as nothing else
// here plays the loop.
int32_t FrameRate(const KorvaneFrontend::CommandDef& cmd) {
  const KorvaneFrontend::OptionDef* fps = cmd.Find("fps");
  return fps ? std::atoi(fps->default_text.c_str()) : 24;
}

// Keeps the writes of a run to one undo step.
class UndoGroup {
 public:
  explicit UndoGroup(gint32 image) : m_image(image) { gimp_image_undo_group_start(image); }
  ~UndoGroup() { gimp_image_undo_group_end(m_image); }

 private:
  gint32 m_image;
};

// While the selection serves as an input (a still region, a mask) it must not
// also limit where the result goes: it is set aside while the result is
// written and put back after, inside the same undo step.
class SelectionAside {
 public:
  SelectionAside(gint32 image, bool aside) : m_image(image) {
    if (!aside || gimp_selection_is_empty(image)) return;
    m_saved = gimp_selection_save(image);
    gimp_selection_none(image);
  }
  ~SelectionAside() {
    if (m_saved < 0) return;
    gimp_image_select_item(m_image, GIMP_CHANNEL_OP_REPLACE, m_saved);
    gimp_image_remove_channel(m_image, m_saved);
  }

 private:
  gint32 m_image;
  gint32 m_saved = -1;
};

// Every frame of the loop into a copy of the layer, stacked above it in
// order so the first frame is lowest, as GIMP plays and exports layers.
std::string RenderFrameLayers(LayerSession& session, gint32 image, gint32 layer, const Request& request,
                              const FrameChoice& choice) {
  const gint32 parent = gimp_item_get_parent(layer);
  const gint position = gimp_image_get_item_position(image, layer);
  const int32_t fps = FrameRate(request.values.cmd());
  gint32 x = 0, y = 0;
  FrameCorner(request.values, x, y);
  Image frame;
  for (int32_t k = 0; k < choice.frames; ++k) {
    const std::string problem = session.Render(request, k, choice.frames, frame);
    if (!problem.empty()) return problem;
    const gint32 copy = gimp_layer_copy(layer);
    gimp_item_set_name(copy, FrameLayerName(k + 1, fps).c_str());
    gimp_item_set_visible(copy, TRUE);
    gimp_image_insert_layer(image, copy, parent, position);
    // A new layer's pixels need no undo of their own: undoing removes it.
    WriteLayer(copy, frame, x, y, false);
    gimp_progress_update(static_cast<double>(k + 2) / (choice.frames + 1));
  }
  return "";
}

}  // namespace

std::string CheckDrawable(gint32 drawable) {
  if (!gimp_item_is_layer(drawable) || !gimp_drawable_is_rgb(drawable)) {
    return "Korvane filters work on RGB layers: convert the image with Image > Mode > RGB, or choose a layer";
  }
  return "";
}

FrameChoice FramesOf(const OptionValues& values) {
  FrameChoice c;
  if (!values.cmd().Animated()) return c;
  c.frame = values.Has("frame") ? static_cast<int32_t>(values.Whole("frame")) : -1;
  // GIMP passes every parameter, so --frames always looks given: without a
  // loop switch on, the picture does not move and the filter renders a still
  // rather than identical frame layers.
  c.frames = PictureMoves(values) || c.frame >= 0 ? static_cast<int32_t>(values.Whole("frames")) : 1;
  return c;
}

std::string FrameProblem(const FrameChoice& choice) {
  if (choice.frame < choice.frames) return "";
  return "--frame " + std::to_string(choice.frame) + " is past the last frame of --frames " +
         std::to_string(choice.frames);
}

void FrameCorner(const OptionValues& values, gint32& x, gint32& y) {
  x = y = 0;
  if (values.cmd().Find("roi") && values.Has("roi")) {
    const Korvane::Rect r = values.Rect("roi");
    x = r.left, y = r.top;
  }
}

std::string FrameLayerName(int32_t number, int32_t fps) {
  const long ms = std::lround(1000.0 / fps);
  return "Frame " + std::to_string(number) + " (" + std::to_string(ms) + "ms) (replace)";
}

LayerSession::LayerSession(gint32 image, gint32 layer) : m_image(image), m_layer(layer), m_photo(ReadLayer(layer)) {}

std::string LayerSession::Open(const Request& request) {
  m_session.reset();
  m_inputs = LayerInputs();
  ReadInputs(m_image, m_layer, request, m_inputs);
  const Status st = KorvaneFrontend::OpenSession(m_engine, request.values, m_photo.View(), m_inputs.inputs, m_session);
  return st.ok() ? "" : MessageOf(st, request);
}

std::string LayerSession::Render(const Request& request, int32_t index, int32_t count, Image& out) {
  if (!m_session) return "the filter could not start";
  if (out.width != m_session->width() || out.height != m_session->height()) {
    out = Image(m_session->width(), m_session->height(), 4);
  }
  const Status st = m_session->Render(request.values, index, count, out.View());
  return st.ok() ? "" : MessageOf(st, request);
}

std::string ApplyFilter(gint32 image, gint32 layer, const Request& request) {
  std::string problem = CheckDrawable(layer);
  if (problem.empty()) problem = MissingInput(request);
  if (!problem.empty()) return problem;
  const FrameChoice choice = FramesOf(request.values);
  problem = FrameProblem(choice);
  if (!problem.empty()) return problem;
  gimp_progress_init(("Korvane " + request.values.cmd().name).c_str());
  LayerSession session(image, layer);
  problem = session.Open(request);
  if (!problem.empty()) return problem;
  gimp_progress_update(1.0 / (choice.frames + 1));
  UndoGroup undo(image);
  SelectionAside aside(image, session.SelectionIsInput());
  if (choice.Layers()) return RenderFrameLayers(session, image, layer, request, choice);
  Image result;
  problem = session.Render(request, choice.frame < 0 ? 0 : choice.frame, choice.frames, result);
  if (!problem.empty()) return problem;
  gint32 x = 0, y = 0;
  FrameCorner(request.values, x, y);
  WriteLayer(layer, result, x, y, true);
  gimp_progress_update(1.0);
  return "";
}

}  // namespace KorvaneGimp
