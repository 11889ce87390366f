// The tool's commands. Those that render photos come from the front-end
// core's table (frontend/OptionDef.h) and share one runner; a command file
// (cmd_<name>.cpp) adds only what the tool does beyond that (a sheet of every
// variant) and its step of `korvane demo`. `info` and `demo` are the tool's
// own and register their options here.
#pragma once

#include <CLI/CLI.hpp>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "DemoScene.h"
#include "frontend/Session.h"

namespace KorvaneTool {

// A command of the tool's own: adds its options to `sub` and returns the
// function that runs it once the command line is parsed (its value is the
// process exit code).
using CommandSetup = std::function<std::function<int()>(CLI::App& sub)>;

struct ToolCommand {
  std::string name;
  std::string summary;
  CommandSetup setup;
};
std::vector<ToolCommand>& ToolCommands();

struct RegisterCommand {
  RegisterCommand(std::string name, std::string summary, CommandSetup setup) {
    ToolCommands().push_back({std::move(name), std::move(summary), std::move(setup)});
  }
};

// Renders a labelled sheet of every variant of `photo` instead of one still;
// 0 or an exit code after saying why.
using SheetRenderer = std::function<int(const KorvaneFrontend::OptionValues& values, const Image& photo,
                                        const KorvaneFrontend::Inputs& inputs, KorvaneFrontend::Engine& engine,
                                        Image& sheet, std::string& summary, double* render_ms)>;

// What a table command does in the tool beyond rendering.
struct CommandHooks {
  std::string sheet_flag;  // the switch that asks for the sheet ("type-sheet")
  SheetRenderer sheet;
};
std::map<std::string, CommandHooks>& Hooks();

struct RegisterHooks {
  RegisterHooks(const std::string& command, CommandHooks hooks) { Hooks()[command] = std::move(hooks); }
};

// A step of `korvane demo`: renders one effect of the demo scene into files
// below ctx.out_dir and reports them through ctx.Report. Returns 0 or an exit code.
struct DemoStep {
  int order;  // steps run in ascending order
  std::string name;
  std::function<int(DemoContext& ctx)> run;
};
std::vector<DemoStep>& DemoSteps();

struct RegisterDemoStep {
  RegisterDemoStep(int order, std::string name, std::function<int(DemoContext&)> run) {
    DemoSteps().push_back({order, std::move(name), std::move(run)});
  }
};

}  // namespace KorvaneTool
