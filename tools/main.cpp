// korvane: the command-line face of the library. Each subcommand lives in its
// own cmd_<name>.cpp and registers itself (Command.h).
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <functional>

#include "Command.h"
#include "core/Version.h"

int main(int argc, char** argv) {
  using namespace KorvaneTool;
  CLI::App app{"korvane " KORVANE_VERSION_STRING
               " - image effects for still photographs.\n"
               "Run 'korvane demo' to render every effect on a generated scene, or\n"
               "'korvane <command> --help' for one effect's options.",
               "korvane"};
  app.require_subcommand(1);
  app.set_version_flag("--version", KORVANE_VERSION_STRING);

  auto& commands = Commands();
  std::sort(commands.begin(), commands.end(),
            [](const CommandInfo& a, const CommandInfo& b) { return a.name < b.name; });
  std::vector<std::pair<CLI::App*, std::function<int()>>> runners;
  for (auto& c : commands) {
    CLI::App* sub = app.add_subcommand(c.name, c.summary);
    runners.emplace_back(sub, c.setup(*sub));
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() != 0) {
      // One line naming the problem; --help shows the rest.
      std::fprintf(stderr, "korvane: %s\n", e.what());
      return e.get_exit_code();
    }
    return app.exit(e);
  }
  for (auto& [sub, run] : runners) {
    if (sub->parsed()) return run();
  }
  return 1;
}
