// The one runner of every command that renders photos. For each photo of
// the command line ("-" reads standard input) it reads the photo, opens a
// render session of the front-end core and writes what the options ask for:
// a still or a loop (StillOrLoop.h), the light points as JSON, the photo
// with the points ringed. The outputs may hold {name} (the photo's name
// without extension) and {ext} (its extension). Before anything is read it
// checks the command line; before anything is written, every output of the
// photo. A photo that fails is reported and the others still run.
#pragma once

#include <string>

#include "CliOptions.h"
#include "Command.h"

namespace KorvaneTool {

// Returns 0 when every photo was written, 1 when any failed, 2 when the
// command line cannot work.
int RunCommand(const CommandLine& line, const CommandHooks& hooks);

// The output name for `input` under `pattern` ({name}, {ext}).
std::string OutputName(const std::string& pattern, const std::string& input);

}  // namespace KorvaneTool
