// The values a filter last ran with, kept by GIMP until it quits, so the
// dialog opens with them and RUN-WITH-LAST-VALS repeats the filter. They are
// stored as the tool's option texts ("--radius 12" as radius=12), one option
// a line, and read back through the same checks as any value; the chosen
// layers, channels and paths by their item IDs.
#pragma once

#include <string>

#include "Procedures.h"

namespace KorvaneGimp {

// The text form of the request's given values and chosen items.
std::string LastValuesText(const Request& request);

// Sets what `text` holds on `request`; lines that no longer read are skipped.
void ReadLastValues(const std::string& text, Request& request);

void SaveLastValues(const Request& request);
// False when the filter has not run since GIMP started.
bool LoadLastValues(Request& request);

// Drops chosen items that are gone or belong to another image.
void ForgetForeignItems(gint32 image, Request& request);

}  // namespace KorvaneGimp
