// The Korvane GIMP plug-in: every command of the korvane tool as a filter
// under Filters > Korvane. Procedures, parameters and dialog controls are
// made from the front-end core's option table, and the pixels come from the
// same render core the tool uses.
//
// A run: Run() reads the values (from the PDB call, the dialog or the last
// run), ApplyFilter() reads the layer and its inputs into a session of the
// front-end core, renders, and writes through GIMP's shadow buffer.
#include <libgimp/gimp.h>

#include <string>
#include <vector>

#include "Dialog.h"
#include "Filter.h"
#include "LastValues.h"
#include "Procedures.h"

namespace {

using namespace KorvaneGimp;

void Query() {
  for (const KorvaneFrontend::CommandDef& command : KorvaneFrontend::Commands()) {
    const std::vector<Param> params = ProcedureParams(command);
    std::vector<GimpParamDef> defs;
    for (const Param& p : params) {
      defs.push_back({p.type, const_cast<gchar*>(p.name.c_str()), const_cast<gchar*>(p.description.c_str())});
    }
    const std::string name = ProcedureName(command);
    const std::string help = command.summary + ". The parameters after the drawable are the options of `korvane " +
                             command.name + " --help`, in its order, with its ranges and defaults.";
    gimp_install_procedure(name.c_str(), command.summary.c_str(), help.c_str(), "Korvane", "Korvane", "2025",
                           (MenuLabel(command) + "...").c_str(), "RGB*", GIMP_PLUGIN, static_cast<gint>(defs.size()),
                           0, defs.data(), nullptr);
    gimp_plugin_menu_register(name.c_str(), "<Image>/Filters/Korvane");
  }
}

// Fills `request` as the run mode asks. False when the user closed the
// dialog; `problem` is then empty, else it holds why the values cannot be had.
bool ReadRequest(GimpRunMode mode, const GimpParam* params, gint count, gint32 image, gint32 drawable,
                 Request& request, std::string& problem) {
  if (mode == GIMP_RUN_NONINTERACTIVE) {
    problem = ReadParams(params, count, image, request);
    return true;
  }
  LoadLastValues(request);
  ForgetForeignItems(image, request);
  if (mode != GIMP_RUN_INTERACTIVE) return true;
  problem = CheckDrawable(drawable);
  return !problem.empty() || RunDialog(image, drawable, request);
}

void Run(const gchar* name, gint count, const GimpParam* params, gint* return_count, GimpParam** returned) {
  static GimpParam values[2];
  static std::string message;
  *return_count = 1;
  *returned = values;
  values[0].type = GIMP_PDB_STATUS;
  values[0].data.d_status = GIMP_PDB_SUCCESS;

  gegl_init(nullptr, nullptr);
  const KorvaneFrontend::CommandDef* command = CommandOfProcedure(name);
  if (!command || count < 3) {
    values[0].data.d_status = GIMP_PDB_CALLING_ERROR;
    return;
  }
  const GimpRunMode mode = static_cast<GimpRunMode>(params[0].data.d_int32);
  const gint32 image = params[1].data.d_image, drawable = params[2].data.d_drawable;
  Request request(*command);
  message.clear();
  if (!ReadRequest(mode, params, count, image, drawable, request, message)) {
    values[0].data.d_status = GIMP_PDB_CANCEL;
    return;
  }
  const bool calling_error = !message.empty();
  if (message.empty()) message = ApplyFilter(image, drawable, request);
  if (message.empty()) {
    if (mode != GIMP_RUN_NONINTERACTIVE) gimp_displays_flush();
    // Whoever ran the filter last, a script or the dialog, the dialog opens
    // with those values and Filters > Repeat uses them.
    SaveLastValues(request);
    return;
  }
  values[0].data.d_status = calling_error && mode == GIMP_RUN_NONINTERACTIVE ? GIMP_PDB_CALLING_ERROR
                                                                             : GIMP_PDB_EXECUTION_ERROR;
  values[1].type = GIMP_PDB_STRING;
  values[1].data.d_string = const_cast<gchar*>(message.c_str());
  *return_count = 2;
}

}  // namespace

const GimpPlugInInfo PLUG_IN_INFO = {nullptr, nullptr, Query, Run};

MAIN()
