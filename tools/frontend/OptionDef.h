// The option tables of the korvane commands, as data. Every front end builds
// its surface from them: the command line its options, --help lines and
// errors; the Python module its keyword arguments, docstrings and
// ValueErrors; the GIMP plug-in its procedure parameters and dialog. A
// command's options are listed in the order `korvane <command> --help` shows
// them.
//
//   const CommandDef* glow = FindCommand("glow");
//   for (const OptionDef& o : glow->options)
//     if (o.role == OptionRole::kRender) std::printf("%s: %s\n", o.name.c_str(), HelpLine(o).c_str());
#pragma once

#include <string>
#include <vector>

namespace KorvaneFrontend {

enum class OptionKind {
  kNumber,    // a real number in lo..hi
  kWhole,     // a whole number in lo..hi
  kChoice,    // one of `choices` (some also take an image instead: `or_image`)
  kFlag,      // on or off, off by default
  kPoint,     // X,Y: `parts` give each number's name and range
  kRect,      // L,T,R,B in whole pixels, right and bottom exclusive
  kNumbers,   // a fixed list of numbers such as ANGLE,SPREAD,SOFTNESS
  kText,      // free text: a file name, a format
  kImage,     // an image input: a file for the tool, an array or a drawable elsewhere
  kFlows,     // animate's flow lines (Flows.h)
  kSparkles,  // sparkle's placed glints (Flows.h)
  kPhotos,    // the photos the command is run on (the tool's positional arguments)
};

enum class OptionRole {
  kPhoto,   // the photo itself; each front end has its own way to pass it
  kRender,  // a rendering setting, the same in every front end
  kInput,   // an input beside the photo: guide, mask, still region, flows, placed glints, a custom shape
  kLoop,    // how many frames and which: the same in every front end that renders loops
  kWrite,   // how the tool writes files (output name, format, quality, inspection files, sheets)
};

// One number of a point, rectangle or list.
struct OptionPart {
  std::string name;  // "X", "L", "ANGLE"
  double lo = 0;
  double hi = 0;
};

struct OptionDef {
  std::string name;        // as on the command line without dashes: "shift-x"
  std::string short_name;  // one letter ("o", "q") or empty
  OptionKind kind = OptionKind::kText;
  OptionRole role = OptionRole::kRender;
  double lo = 0, hi = 0;   // kNumber, kWhole
  std::string unit;        // "pixels", "degrees", ... or empty for a plain scale
  // The default as it would be typed ("0.35", "screen", "12,40"); empty when
  // there is none or it depends on the photo, which `absent` then describes
  // ("1.5 % of the longer side").
  std::string default_text;
  std::string absent;
  std::string help;
  std::vector<std::string> choices;  // kChoice, in the order of their numbers
  std::string choice_noun;           // kChoice: "blend mode" makes errors read "unknown blend mode 'x'"
  bool choice_numbers = false;       // kChoice: a choice may also be given by its number
  bool or_image = false;             // kChoice: any other text is an image (a shape file)
  bool gray = false;                 // kImage: read as one gray channel
  bool required = false;             // must be given
  bool needs_loop = false;           // kFlag: only has an effect in a loop of two frames or more
  std::vector<OptionPart> parts;     // kPoint, kRect, kNumbers

  // "--shift-x", or "-o/--output" where there is a short name.
  std::string Flag() const;
};

struct CommandDef {
  std::string name;     // "light-rays"
  std::string summary;  // one line for `korvane help`
  std::vector<OptionDef> options;

  // The option called `name`, or nullptr.
  const OptionDef* Find(const std::string& name) const;
  // Whether the command renders frames of a loop (it has a frame count).
  bool Animated() const { return Find("frames") != nullptr; }
};

// Every command that renders photos, by name. `info` and `demo` are the
// tool's own and not here.
const std::vector<CommandDef>& Commands();
const CommandDef* FindCommand(const std::string& name);

// The help text of an option with its range, unit and default:
// "Blur radius [0..8192 pixels, default: 1.5 % of the longer side]".
std::string HelpLine(const OptionDef& opt);

// The still image formats the tool writes, as extensions without the dot
// ("jpg", "png", ...), for its help texts and its writer.
const std::vector<std::string>& StillFormats();

// "0.4", "12", "-3": the shortest text that reads back as the same number.
std::string NumberText(double v);

}  // namespace KorvaneFrontend
