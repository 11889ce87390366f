#include "Options.h"

#include <vector>

namespace KorvanePython {

using KorvaneFrontend::OptionKind;
using KorvaneFrontend::OptionRole;
using KorvaneFrontend::OptionDef;
using KorvaneFrontend::OptionValues;

namespace {

std::string TypeName(const py::handle& value) { return py::str(value.get_type().attr("__name__")); }

[[noreturn]] void WrongType(const OptionDef& o, const std::string& wanted, const py::handle& value) {
  throw py::type_error(PyName(o.name) + " must be " + wanted + ", not " + TypeName(value));
}

// A real number from a Python number or numpy scalar; bools are refused
// (True where a radius belongs is a mistake, not 1).
double NumberOf(const OptionDef& o, const py::handle& value) {
  if (PyBool_Check(value.ptr()) || !PyNumber_Check(value.ptr()) || PySequence_Check(value.ptr())) {
    WrongType(o, "a number", value);
  }
  const double v = PyFloat_AsDouble(value.ptr());
  if (v == -1.0 && PyErr_Occurred()) throw py::error_already_set();
  return v;
}

// Whether the value is a whole number (int or numpy integer), not a bool.
bool IsWhole(const py::handle& value) { return !PyBool_Check(value.ptr()) && PyIndex_Check(value.ptr()); }

}  // namespace

std::string PyName(const std::string& option) {
  std::string name = option;
  for (char& c : name) c = c == '-' ? '_' : c;
  return name;
}

bool IsKeyword(const OptionDef& o) {
  return o.role == OptionRole::kRender || o.role == OptionRole::kInput || o.role == OptionRole::kLoop;
}

void Check(const std::string& message) {
  if (!message.empty()) throw py::value_error(message);
}

void SetValue(OptionValues& values, const OptionDef& o, const py::handle& value) {
  // Text is read exactly as the tool reads its command line.
  if (py::isinstance<py::str>(value)) {
    const std::string text = value.cast<std::string>();
    Check(values.Set(o.name, text));
    // For the tool any other text names an image file; here images are arrays.
    if (o.or_image && values.ChoiceIndex(o.name) < 0) {
      std::string names;
      for (const std::string& c : o.choices) names += (names.empty() ? "" : ", ") + c;
      throw py::value_error("--" + o.name + ": '" + text + "' is not one of " + names + " (or give an image array)");
    }
    return;
  }
  switch (o.kind) {
    case OptionKind::kNumber:
    case OptionKind::kWhole:
      Check(values.SetNumber(o.name, NumberOf(o, value)));
      return;
    case OptionKind::kChoice:
      // A choice by its number, as in the table's order.
      if (!IsWhole(value)) WrongType(o, o.or_image ? "a shape name or an image" : "a name or a number", value);
      Check(values.SetNumber(o.name, NumberOf(o, value)));
      return;
    case OptionKind::kFlag: {
      const int on = PyObject_IsTrue(value.ptr());
      if (on < 0) throw py::error_already_set();
      Check(values.SetFlag(o.name, on != 0));
      return;
    }
    case OptionKind::kPoint:
    case OptionKind::kRect:
    case OptionKind::kNumbers: {
      if (!PySequence_Check(value.ptr())) WrongType(o, "a sequence of " + std::to_string(o.parts.size()) + " numbers", value);
      std::vector<double> numbers;
      for (const py::handle item : py::reinterpret_borrow<py::sequence>(value)) numbers.push_back(NumberOf(o, item));
      Check(values.SetNumbers(o.name, numbers));
      return;
    }
    default:
      WrongType(o, "set otherwise", value);
  }
}

}  // namespace KorvanePython
