// The filter's dialog: a control for every parameter of the procedure, in
// the same order and with the same ranges, and a live preview of the layer
// rendered by a session that keeps its per-photo work between changes.
#pragma once

#include <libgimp/gimp.h>

#include "Procedures.h"

namespace KorvaneGimp {

// Shows the dialog for `layer`, starting from `request`'s values. True when
// the user chose OK; `request` then holds the values to run with.
bool RunDialog(gint32 image, gint32 layer, Request& request);

}  // namespace KorvaneGimp
