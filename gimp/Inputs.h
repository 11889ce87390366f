// The inputs beside the photo, taken from the image: gray guides and masks
// from layers, channels or the selection, animate's flow lines from the
// strokes of a path, sparkle's placed glints from a path's anchors.
#pragma once

#include <libgimp/gimp.h>

#include <list>
#include <string>
#include <vector>

#include "Procedures.h"
#include "frontend/Session.h"

namespace KorvaneGimp {

struct LayerInputs {
  KorvaneFrontend::Inputs inputs;           // what the session reads; views into `images`
  std::list<KorvaneFrontend::Image> images;  // a list: views stay valid as it grows
  bool selection = false;                    // the selection is one of the inputs
};

// Reads the inputs `request` names for `layer`, in layer pixels.
void ReadInputs(gint32 image, gint32 layer, const Request& request, LayerInputs& out);

// The flow lines of a path: each stroke one line in its direction with its
// anchors as points (a closed stroke ends back at its first anchor); a
// stroke of one anchor holds that point. Shifted by -dx, -dy.
std::vector<KorvaneFrontend::FlowLine> FlowsOfPath(gint32 vectors, double dx, double dy);

// A glint of scale 1 at every anchor of a path, shifted by -dx, -dy.
std::vector<KorvaneFrontend::PlacedSparkle> GlintsOfPath(gint32 vectors, double dx, double dy);

// How the message of a failed session names an input: "guide 'Depth'".
std::string InputLabel(const Request& request, const std::string& option);

}  // namespace KorvaneGimp
