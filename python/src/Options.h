// Python values as a command's option values. Every value goes through the
// front-end core's setters, so a value the tool would refuse is refused
// here with the tool's message (as ValueError); a value of the wrong type
// (a list where a number belongs) is a TypeError.
#pragma once

#include <pybind11/pybind11.h>

#include <string>

#include "frontend/OptionDef.h"
#include "frontend/OptionValues.h"

namespace KorvanePython {

namespace py = pybind11;

// "shift-x" -> "shift_x": the keyword argument of an option.
std::string PyName(const std::string& option);

// Whether the option is a keyword argument in Python: rendering settings,
// inputs beside the photo and the loop's frames. How the tool writes files
// is the tool's own.
bool IsKeyword(const KorvaneFrontend::OptionDef& option);

// Sets a number, choice, switch, point, rectangle or list of numbers from
// its Python value (a string is read as the tool reads its text). Images,
// flows and placed glints are the caller's.
void SetValue(KorvaneFrontend::OptionValues& values, const KorvaneFrontend::OptionDef& option, const py::handle& value);

// Throws ValueError with `message` unless it is empty.
void Check(const std::string& message);

}  // namespace KorvanePython
