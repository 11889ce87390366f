// The plug-in's PDB procedures, made from the front-end option table: one
// per command, named plug-in-korvane-<command>, taking (run-mode, image,
// drawable) and then the command's rendering, input and loop options in the
// order `korvane <command> --help` lists them. How the tool writes files
// (output, formats, quality, frame rate) is not a parameter.
//
// Each option travels as:
//   number                FLOAT (a whole number INT32, or FLOAT beyond 32 bits);
//                         -1 where the option may be left automatic
//   choice                INT32, its place in the table's list
//   switch                INT32, 0 or 1
//   point, rectangle,     INT32 count (0: not given) and a FLOATARRAY,
//   list of numbers       named num-<option> and <option>
//   gray input            DRAWABLE: a layer, a channel or the selection (-1: none)
//   flow lines, glints    VECTORS: a path (-1: none)
#pragma once

#include <libgimp/gimp.h>

#include <map>
#include <string>
#include <vector>

#include "frontend/OptionValues.h"

namespace KorvaneGimp {

// What one run of a filter takes: the option values and, for each input
// option, the item (drawable or path) chosen for it.
struct Request {
  explicit Request(const KorvaneFrontend::CommandDef& cmd) : values(cmd) {}

  KorvaneFrontend::OptionValues values;
  std::map<std::string, gint32> items;  // by option name; missing or -1: none

  gint32 Item(const std::string& name) const {
    const auto it = items.find(name);
    return it == items.end() ? -1 : it->second;
  }
};

// One PDB parameter; `option` is null for run-mode, image and drawable.
struct Param {
  const KorvaneFrontend::OptionDef* option = nullptr;
  GimpPDBArgType type = GIMP_PDB_INT32;
  std::string name;
  std::string description;
};

// Whether an option is a parameter of the procedures (and a dialog control).
bool InProcedure(const KorvaneFrontend::OptionDef& option);

// Whether the option is a drawable or a path rather than a value.
bool IsItem(const KorvaneFrontend::OptionDef& option);

// Whether the option is a number that may be left automatic (no default:
// "1.5 % of the longer side"), and the number a call passes for that; every
// such option is non-negative.
bool MayBeAutomatic(const KorvaneFrontend::OptionDef& option);
constexpr double kAutomatic = -1;

// "plug-in-korvane-light-rays"; the command of such a name, or nullptr.
std::string ProcedureName(const KorvaneFrontend::CommandDef& command);
const KorvaneFrontend::CommandDef* CommandOfProcedure(const std::string& name);

// "Light Rays": a command's name as GIMP's menus write it.
std::string MenuLabel(const KorvaneFrontend::CommandDef& command);

// The parameters of the command's procedure, in order.
std::vector<Param> ProcedureParams(const KorvaneFrontend::CommandDef& command);

// Fills `request` from the parameters of a call on `image`. Returns "" or
// the message, in the tool's words where the tool has them.
std::string ReadParams(const GimpParam* params, int count, gint32 image, Request& request);

// "" when every required input has its item, else the message naming it.
std::string MissingInput(const Request& request);

}  // namespace KorvaneGimp
