#include "CliOptions.h"

#include <filesystem>

#include "ImageIO.h"

namespace KorvaneTool {

using KorvaneFrontend::OptionKind;
using KorvaneFrontend::OptionDef;
using KorvaneFrontend::OptionValues;

bool CommandLine::Given(const std::string& name) const {
  const auto it = options.find(name);
  return it != options.end() && it->second->count() > 0;
}

std::string CommandLine::Text(const std::string& name) const {
  const auto it = texts.find(name);
  return Given(name) && it != texts.end() ? it->second : std::string();
}

std::string CommandLine::SetInto(OptionValues& values) const {
  for (const OptionDef& o : cmd->options) {
    if (o.kind == OptionKind::kPhotos || !Given(o.name)) continue;
    const std::string error =
        o.kind == OptionKind::kFlag ? values.SetFlag(o.name, flags.at(o.name)) : values.Set(o.name, texts.at(o.name));
    if (!error.empty()) return error;
  }
  return "";
}

namespace {

std::string TypeName(const OptionDef& o) {
  switch (o.kind) {
    case OptionKind::kNumber: return "NUMBER";
    case OptionKind::kWhole: return "INT";
    case OptionKind::kChoice: return o.or_image ? "SHAPE" : "CHOICE";
    case OptionKind::kPoint:
    case OptionKind::kRect:
    case OptionKind::kNumbers: {
      std::string parts;
      for (const KorvaneFrontend::OptionPart& p : o.parts) parts += (parts.empty() ? "" : ",") + p.name;
      return parts;
    }
    case OptionKind::kImage: return "IMAGE";
    case OptionKind::kFlows:
    case OptionKind::kSparkles: return "JSON";
    default: return o.name == "format" ? "FORMAT" : "FILE";
  }
}

// --format: the still formats, and webp or gif for a command's loops.
std::string CheckFormat(const std::string& text, bool animated) {
  const std::string f = FormatOf(text);
  if (!f.empty() || (animated && (text == "gif" || text == ".gif"))) return "";
  return "'" + text + "' is not a format the tool writes";
}

// A shape option takes a built-in shape's name or an image file. A text that
// is neither a name nor anything like a file (no extension, no folder, not
// an existing file) is a misspelt name, refused with the names.
std::string CheckShape(const OptionDef& o, const std::string& text) {
  const std::string problem = OptionValues::Check(o, text);
  if (!problem.empty() || OptionValues::ChoiceOf(o, text) >= 0) return problem;
  std::error_code ec;
  if (text == "-" || !Extension(text).empty() || text.find('/') != std::string::npos ||
      std::filesystem::exists(text, ec)) {
    return "";
  }
  std::string names;
  for (const std::string& c : o.choices) names += (names.empty() ? "" : ", ") + c;
  return "unknown shape '" + text + "'; choose one of: " + names + " or an image file";
}

}  // namespace

void AddOptions(CLI::App& sub, const KorvaneFrontend::CommandDef& cmd, CommandLine& line) {
  line.cmd = &cmd;
  const bool animated = cmd.Animated();
  for (const OptionDef& o : cmd.options) {
    const std::string names = o.kind == OptionKind::kPhotos
                                  ? o.name
                                  : (o.short_name.empty() ? "" : "-" + o.short_name + ",") + "--" + o.name;
    CLI::Option* opt = nullptr;
    if (o.kind == OptionKind::kPhotos) {
      opt = sub.add_option(names, line.photos, o.help);
    } else if (o.kind == OptionKind::kFlag) {
      opt = sub.add_flag(names, line.flags[o.name], KorvaneFrontend::HelpLine(o));
    } else {
      opt = sub.add_option(names, line.texts[o.name], KorvaneFrontend::HelpLine(o));
      opt->type_name(TypeName(o));
      if (o.name == "format") {
        opt->check(CLI::Validator([animated](std::string& t) { return CheckFormat(t, animated); }, ""));
      } else if (o.or_image) {
        opt->check(CLI::Validator([o](std::string& t) { return CheckShape(o, t); }, ""));
      } else {
        opt->check(CLI::Validator([o](std::string& t) { return OptionValues::Check(o, t); }, ""));
      }
    }
    // -o is required unless an inspection file is asked for; the runner says so.
    if (o.required && o.name != "output") opt->required();
    line.options[o.name] = opt;
  }
}

}  // namespace KorvaneTool
