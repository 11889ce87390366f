// korvane: the command-line face of the library. The commands that render
// photos are made from the front-end core's option table and run by one
// runner (CommandRunner.h); info and demo register themselves (Command.h).
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <new>

#include <korvane/core/Version.h>

#include "CommandRunner.h"
#include "ToolSupport.h"

namespace {

using namespace KorvaneTool;

const char kExitCodes[] =
    "Exit status: 0 success, 1 a file or a render failed, 2 a usage error (unknown command or option, value out "
    "of range).";

// Edit distance, for "did you mean".
size_t Distance(const std::string& a, const std::string& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diag = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t up = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diag + (a[i - 1] != b[j - 1])});
      diag = up;
    }
  }
  return row[b.size()];
}

// The names within a third of their length of `word` (or sharing its start).
std::vector<std::string> CloseTo(const std::string& word, const std::vector<std::string>& names) {
  std::vector<std::string> close;
  for (const std::string& n : names) {
    const size_t limit = std::max<size_t>(2, n.size() / 3);
    if (Distance(word, n) <= limit || (word.size() >= 3 && n.compare(0, word.size(), word) == 0)) close.push_back(n);
  }
  return close;
}

std::string Join(const std::vector<std::string>& names) {
  std::string s;
  for (size_t i = 0; i < names.size(); ++i) s += (i ? (i + 1 == names.size() ? " or " : ", ") : "") + names[i];
  return s;
}

// Options renamed when every command came to use one vocabulary: an old
// command line is told the new name.
struct Renamed {
  const char* command;
  const char* old_name;
  const char* new_name;
};
const Renamed kRenamed[] = {
    {"light-rays", "--angle", "--direction"},      {"light-rays", "--level", "--brightness"},
    {"light-rays", "--color", "--saturation"},     {"light-rays", "--hue", "--hue-shift (in turns)"},
    {"light-rays", "--animate-rays", "--sway"},    {"light-rays", "--animate-hue", "--cycle-hue"},
    {"bokeh", "--blur-level", "--level"},          {"bokeh", "--hue-offset", "--hue-shift (in turns)"},
    {"bokeh", "--hue-shift", "--cycle-hue"},       {"sparkle", "--rotate", "--spin"},
    {"glitch", "--angle", "--rotation (in degrees)"}, {"glow", "--mode", "--blend"},
    {"glow", "--mode-sheet", "--blend-sheet"},     {"glow", "--color-strength", "--tint"},
};

// Every command by name: the table's and the tool's own.
std::vector<std::pair<std::string, std::string>> CommandList() {
  std::vector<std::pair<std::string, std::string>> list;
  for (const KorvaneFrontend::CommandDef& c : KorvaneFrontend::Commands()) list.emplace_back(c.name, c.summary);
  for (const ToolCommand& c : ToolCommands()) list.emplace_back(c.name, c.summary);
  std::sort(list.begin(), list.end());
  return list;
}

int ListCommands(FILE* to) {
  std::fprintf(to, "korvane %s - image effects for still photographs\n\nUsage: korvane <command> [options]\n\nCommands:\n",
               KORVANE_VERSION_STRING);
  for (const auto& [name, summary] : CommandList()) std::fprintf(to, "  %-12s %s\n", name.c_str(), summary.c_str());
  std::fprintf(to,
               "\n'korvane <command> --help' shows a command's options; 'korvane demo' renders every effect on a "
               "generated scene.\n%s\n",
               kExitCodes);
  return 0;
}

// The options a subcommand knows, as typed on the command line.
std::vector<std::string> OptionNames(CLI::App* sub) {
  std::vector<std::string> names;
  for (const CLI::Option* opt : sub->get_options()) {
    for (const std::string& n : opt->get_lnames()) names.push_back("--" + n);
    for (const std::string& n : opt->get_snames()) names.push_back("-" + n);
  }
  return names;
}

int Run(int argc, char** argv) {
  std::vector<std::string> names;
  for (const auto& c : CommandList()) names.push_back(c.first);

  if (argc < 2 || std::strcmp(argv[1], "help") == 0 || std::strcmp(argv[1], "--help") == 0 ||
      std::strcmp(argv[1], "-h") == 0) {
    return ListCommands(stdout);
  }
  if (argv[1][0] != '-' && std::find(names.begin(), names.end(), argv[1]) == names.end()) {
    const auto close = CloseTo(argv[1], names);
    return Usage(std::string("unknown command '") + argv[1] + "'" +
                 (close.empty() ? "; 'korvane help' lists the commands" : "; did you mean " + Join(close) + "?"));
  }

  CLI::App app{"korvane " KORVANE_VERSION_STRING " - image effects for still photographs", "korvane"};
  app.require_subcommand(1);
  app.set_version_flag("--version", KORVANE_VERSION_STRING);
  app.footer(kExitCodes);
  std::vector<std::pair<CLI::App*, std::function<int()>>> runners;
  // Command lines of the table commands; a deque keeps their addresses.
  std::deque<CommandLine> lines;
  for (const KorvaneFrontend::CommandDef& c : KorvaneFrontend::Commands()) {
    CLI::App* sub = app.add_subcommand(c.name, c.summary);
    sub->footer(kExitCodes);
    lines.emplace_back();
    AddOptions(*sub, c, lines.back());
    const CommandLine* line = &lines.back();
    runners.emplace_back(sub, [line] { return RunCommand(*line, Hooks()[line->cmd->name]); });
  }
  for (ToolCommand& c : ToolCommands()) {
    CLI::App* sub = app.add_subcommand(c.name, c.summary);
    sub->footer(kExitCodes);
    runners.emplace_back(sub, c.setup(*sub));
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ExtrasError& e) {
    // A misspelt option: name the close ones of the command it was given to.
    for (auto& [sub, run] : runners) {
      if (!sub->parsed()) continue;
      for (const std::string& extra : sub->remaining()) {
        if (extra.size() < 2 || extra[0] != '-') continue;
        const std::string typed = extra.substr(0, extra.find('='));
        for (const Renamed& r : kRenamed) {
          if (sub->get_name() == r.command && typed == r.old_name) {
            return Usage(sub->get_name() + ": " + typed + " is now " + r.new_name);
          }
        }
        const auto close = CloseTo(typed, OptionNames(sub));
        return Usage(sub->get_name() + ": unknown option " + typed +
                     (close.empty() ? "; see 'korvane " + sub->get_name() + " --help'"
                                    : "; did you mean " + Join(close) + "?"));
      }
    }
    return Usage(e.what());
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    // One line naming the problem; --help shows the rest.
    return Usage(e.what());
  }
  for (auto& [sub, run] : runners) {
    if (sub->parsed()) return run();
  }
  return ListCommands(stderr) + kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::bad_alloc&) {
    return OutOfMemory();
  } catch (const std::exception& e) {
    return Fail(std::string("unexpected error: ") + e.what());
  }
}
