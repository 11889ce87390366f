// Subcommands of the korvane tool register themselves here, each from its own
// file (cmd_<name>.cpp), together with what they add to `korvane demo`.
#pragma once

#include <CLI/CLI.hpp>

#include <functional>
#include <string>
#include <vector>

#include "DemoScene.h"

namespace KorvaneTool {

// Adds a subcommand's options to `sub` and returns the function that runs it
// once the command line is parsed (its value is the process exit code).
using CommandSetup = std::function<std::function<int()>(CLI::App& sub)>;

struct CommandInfo {
  std::string name;
  std::string summary;
  CommandSetup setup;
};

// A step of `korvane demo`: renders one effect of the demo scene into files
// below ctx.out_dir and reports them through ctx.Report. Returns 0 or an exit code.
struct DemoStep {
  int order;  // steps run in ascending order
  std::string name;
  std::function<int(DemoContext& ctx)> run;
};

std::vector<CommandInfo>& Commands();
std::vector<DemoStep>& DemoSteps();

struct RegisterCommand {
  RegisterCommand(std::string name, std::string summary, CommandSetup setup) {
    Commands().push_back({std::move(name), std::move(summary), std::move(setup)});
  }
};

struct RegisterDemoStep {
  RegisterDemoStep(int order, std::string name, std::function<int(DemoContext&)> run) {
    DemoSteps().push_back({order, std::move(name), std::move(run)});
  }
};

}  // namespace KorvaneTool
