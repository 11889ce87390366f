#include "Procedures.h"

#include <cctype>
#include <cstdint>

#include "frontend/OptionDef.h"

namespace KorvaneGimp {

using KorvaneFrontend::CommandDef;
using KorvaneFrontend::OptionKind;
using KorvaneFrontend::OptionRole;
using KorvaneFrontend::OptionDef;

namespace {

const char kPrefix[] = "plug-in-korvane-";

bool IsList(const OptionDef& o) {
  return o.kind == OptionKind::kPoint || o.kind == OptionKind::kRect || o.kind == OptionKind::kNumbers;
}

// A whole number travels as INT32 when its range fits, else as FLOAT (a
// seed up to 2^32 - 1), which holds every whole number of the range exactly.
GimpPDBArgType NumberType(const OptionDef& o) {
  if (o.kind == OptionKind::kWhole && o.lo >= INT32_MIN && o.hi <= INT32_MAX) return GIMP_PDB_INT32;
  return GIMP_PDB_FLOAT;
}

std::string ChoiceDescription(const OptionDef& o) {
  std::string list;
  size_t def = 0;
  for (size_t i = 0; i < o.choices.size(); ++i) {
    list += (i ? ", " : "") + std::to_string(i) + " " + o.choices[i];
    if (o.choices[i] == o.default_text) def = i;
  }
  return o.help + " { " + list + " } [default " + std::to_string(def) + "]";
}

std::string Description(const OptionDef& o) {
  switch (o.kind) {
    case OptionKind::kChoice:
      return ChoiceDescription(o);
    case OptionKind::kFlag:
      return o.help + " [0 off, 1 on; default 0]";
    case OptionKind::kImage:
      return o.help + ". A layer, a channel or the selection of the image, read at the layer's place" +
             (o.required ? "" : "; -1: none");
    case OptionKind::kFlows:
      return "A path: each stroke is a flow line running in the stroke's direction, its anchors the flow "
             "points; a stroke of one anchor holds that point still";
    case OptionKind::kSparkles:
      return "A path: a glint (scale 1) at each anchor; -1: none";
    default:
      return KorvaneFrontend::HelpLine(o) +
             (MayBeAutomatic(o) ? "; " + KorvaneFrontend::NumberText(kAutomatic) + ": automatic" : "");
  }
}

// A non-negative item ID of `image` of the kind the option wants.
std::string CheckItem(const OptionDef& o, gint32 id, gint32 image) {
  const bool drawable = o.kind == OptionKind::kImage;
  const char* what = drawable ? "a layer or channel" : "a path";
  if (!gimp_item_is_valid(id) || gimp_item_get_image(id) != image ||
      !(drawable ? gimp_item_is_drawable(id) : gimp_item_is_vectors(id))) {
    return "--" + o.name + ": item " + std::to_string(id) + " is not " + what + " of this image";
  }
  return "";
}

}  // namespace

bool InProcedure(const OptionDef& o) {
  return o.role == OptionRole::kRender || o.role == OptionRole::kInput || o.role == OptionRole::kLoop;
}

bool IsItem(const OptionDef& o) {
  return o.kind == OptionKind::kImage || o.kind == OptionKind::kFlows || o.kind == OptionKind::kSparkles;
}

bool MayBeAutomatic(const OptionDef& o) {
  const bool number = o.kind == OptionKind::kNumber || o.kind == OptionKind::kWhole;
  return number && o.default_text.empty() && o.lo > kAutomatic;
}

std::string ProcedureName(const CommandDef& command) { return kPrefix + command.name; }

const CommandDef* CommandOfProcedure(const std::string& name) {
  if (name.compare(0, sizeof(kPrefix) - 1, kPrefix) != 0) return nullptr;
  return KorvaneFrontend::FindCommand(name.substr(sizeof(kPrefix) - 1));
}

std::string MenuLabel(const CommandDef& command) {
  std::string label;
  bool start = true;
  for (char c : command.name) {
    label += c == '-' ? ' ' : start ? static_cast<char>(std::toupper(static_cast<unsigned char>(c))) : c;
    start = c == '-';
  }
  return label;
}

std::vector<Param> ProcedureParams(const CommandDef& command) {
  std::vector<Param> params = {
      {nullptr, GIMP_PDB_INT32, "run-mode", "The run mode { RUN-INTERACTIVE (0), RUN-NONINTERACTIVE (1) }"},
      {nullptr, GIMP_PDB_IMAGE, "image", "Input image"},
      {nullptr, GIMP_PDB_DRAWABLE, "drawable", "Input drawable: an RGB layer"},
  };
  for (const OptionDef& o : command.options) {
    if (!InProcedure(o)) continue;
    if (IsList(o)) {
      params.push_back({&o, GIMP_PDB_INT32, "num-" + o.name,
                        "Numbers in " + o.name + ": 0 (not given) or " + std::to_string(o.parts.size())});
      params.push_back({&o, GIMP_PDB_FLOATARRAY, o.name, Description(o)});
      continue;
    }
    GimpPDBArgType type = GIMP_PDB_INT32;
    if (o.kind == OptionKind::kNumber || o.kind == OptionKind::kWhole) type = NumberType(o);
    if (o.kind == OptionKind::kImage) type = GIMP_PDB_DRAWABLE;
    if (o.kind == OptionKind::kFlows || o.kind == OptionKind::kSparkles) type = GIMP_PDB_VECTORS;
    params.push_back({&o, type, o.name, Description(o)});
  }
  return params;
}

std::string ReadParams(const GimpParam* params, int count, gint32 image, Request& request) {
  const std::vector<Param> wanted = ProcedureParams(request.values.cmd());
  if (count != static_cast<int>(wanted.size())) {
    return "wrong number of arguments: " + std::to_string(count) + " given, " + std::to_string(wanted.size()) +
           " wanted";
  }
  KorvaneFrontend::OptionValues& v = request.values;
  for (size_t i = 0; i < wanted.size(); ++i) {
    const OptionDef* o = wanted[i].option;
    if (!o) continue;
    const GimpParamData& d = params[i].data;
    std::string problem;
    if (IsList(*o)) {
      const int32_t n = d.d_int32;
      const gdouble* numbers = params[++i].data.d_floatarray;
      if (n == 0) {
        v.Reset(o->name);
      } else if (n < 0 || !numbers) {
        problem = "--" + o->name + ": " + std::to_string(n) + " numbers";
      } else {
        problem = v.SetNumbers(o->name, std::vector<double>(numbers, numbers + n));
      }
    } else if (IsItem(*o)) {
      const gint32 id = o->kind == OptionKind::kImage ? d.d_drawable : d.d_vectors;
      request.items[o->name] = id < 0 ? -1 : id;
      if (id >= 0) problem = CheckItem(*o, id, image);
    } else if (o->kind == OptionKind::kFlag) {
      problem = v.Set(o->name, std::to_string(d.d_int32));
    } else {
      const double number = wanted[i].type == GIMP_PDB_FLOAT ? d.d_float : d.d_int32;
      if (MayBeAutomatic(*o) && number == kAutomatic) v.Reset(o->name);
      else problem = v.SetNumber(o->name, number);
    }
    if (!problem.empty()) return problem;
  }
  return "";
}

std::string MissingInput(const Request& request) {
  for (const OptionDef& o : request.values.cmd().options) {
    if (InProcedure(o) && IsItem(o) && o.required && request.Item(o.name) < 0) {
      return "--" + o.name + " is required. " + Description(o);
    }
  }
  return "";
}

}  // namespace KorvaneGimp
