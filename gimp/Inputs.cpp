#include "Inputs.h"

#include "Pixels.h"

namespace KorvaneGimp {

using KorvaneFrontend::FlowLine;
using KorvaneFrontend::OptionKind;
using KorvaneFrontend::OptionDef;
using KorvaneFrontend::PlacedSparkle;

namespace {

// GIMP's pixel i spans i..i+1, so its centre is at i + 0.5; the library puts
// pixel i at i. Points move by half a pixel on the way.
constexpr double kPixelCentre = 0.5;

// The anchors of each stroke as x, y pairs. A Bézier stroke lists each
// anchor between its two handles: handle, anchor, handle.
std::vector<std::vector<double>> StrokeAnchors(gint32 vectors, double dx, double dy, bool close) {
  std::vector<std::vector<double>> strokes;
  gint count = 0;
  gint* ids = gimp_vectors_get_strokes(vectors, &count);
  for (gint s = 0; s < count; ++s) {
    gint n = 0;
    gdouble* points = nullptr;
    gboolean closed = FALSE;
    gimp_vectors_stroke_get_points(vectors, ids[s], &n, &points, &closed);
    std::vector<double> anchors;
    for (gint i = 2; i + 1 < n; i += 6) {
      anchors.push_back(points[i] - dx - kPixelCentre);
      anchors.push_back(points[i + 1] - dy - kPixelCentre);
    }
    g_free(points);
    if (close && closed && anchors.size() >= 4) anchors.insert(anchors.end(), anchors.begin(), anchors.begin() + 2);
    if (!anchors.empty()) strokes.push_back(std::move(anchors));
  }
  g_free(ids);
  return strokes;
}

}  // namespace

std::vector<FlowLine> FlowsOfPath(gint32 vectors, double dx, double dy) {
  std::vector<FlowLine> flows;
  for (const std::vector<double>& anchors : StrokeAnchors(vectors, dx, dy, true)) {
    FlowLine line;
    line.type = anchors.size() == 2 ? Korvane::FLOW_ANCHOR : Korvane::FLOW_PATH;
    line.points.assign(anchors.begin(), anchors.end());
    flows.push_back(std::move(line));
  }
  return flows;
}

std::vector<PlacedSparkle> GlintsOfPath(gint32 vectors, double dx, double dy) {
  std::vector<PlacedSparkle> glints;
  for (const std::vector<double>& anchors : StrokeAnchors(vectors, dx, dy, false)) {
    for (size_t i = 0; i + 1 < anchors.size(); i += 2) glints.push_back({anchors[i], anchors[i + 1], 1.0});
  }
  return glints;
}

void ReadInputs(gint32 image, gint32 layer, const Request& request, LayerInputs& out) {
  gint lx = 0, ly = 0;
  gimp_drawable_offsets(layer, &lx, &ly);
  for (const OptionDef& o : request.values.cmd().options) {
    const gint32 id = InProcedure(o) && IsItem(o) ? request.Item(o.name) : -1;
    if (id < 0) continue;
    if (o.kind == OptionKind::kFlows) {
      out.inputs.flows = FlowsOfPath(id, lx, ly);
    } else if (o.kind == OptionKind::kSparkles) {
      out.inputs.sparkles = GlintsOfPath(id, lx, ly);
    } else {
      out.images.push_back(ReadGray(id, layer));
      out.inputs.images[o.name] = out.images.back().View();
      if (id == gimp_image_get_selection(image)) out.selection = true;
    }
  }
}

std::string InputLabel(const Request& request, const std::string& option) {
  const gint32 id = request.Item(option);
  if (id < 0) return option;
  gchar* name = gimp_item_get_name(id);
  const std::string label = option + " '" + (name ? name : "") + "'";
  g_free(name);
  return label;
}

}  // namespace KorvaneGimp
