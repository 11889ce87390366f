// A table command's options on the command line: CLI11 options made from
// the front-end table (help lines, value checks and their messages come from
// it), read as text and then set into the command's option values.
#pragma once

#include <CLI/CLI.hpp>

#include <map>
#include <string>
#include <vector>

#include "frontend/OptionValues.h"

namespace KorvaneTool {

struct CommandLine {
  const KorvaneFrontend::CommandDef* cmd = nullptr;
  std::vector<std::string> photos;
  std::map<std::string, std::string> texts;  // by option name
  std::map<std::string, bool> flags;
  std::map<std::string, CLI::Option*> options;

  // Whether the option was on the command line, and its text ("" if not).
  bool Given(const std::string& name) const;
  std::string Text(const std::string& name) const;
  // Sets every option given into `values`; "" or the first message.
  std::string SetInto(KorvaneFrontend::OptionValues& values) const;
};

// Adds every option of `cmd` to `sub`, in table order, reading into `line`.
void AddOptions(CLI::App& sub, const KorvaneFrontend::CommandDef& cmd, CommandLine& line);

}  // namespace KorvaneTool
