// Which options take effect together. An option set away from its default
// where it changes nothing (a direction for radial rays, a twinkle in a
// still) is refused, so a user never wonders why a setting did nothing.
#include <algorithm>

#include "Session.h"

namespace KorvaneFrontend {

namespace {

// `options` of `command` take effect only `where`, which holds when
// `applies` says so.
struct Rule {
  const char* command;
  std::vector<const char*> options;
  const char* where;
  bool (*applies)(const OptionValues&);
};

const std::vector<Rule>& Rules() {
  static const std::vector<Rule> rules = {
      {"light-rays", {"direction"}, "with --mode directional",
       [](const OptionValues& v) { return v.ChoiceIndex("mode") == 1; }},
      {"light-rays", {"radius", "lampshade"}, "with --mode radial",
       [](const OptionValues& v) { return v.ChoiceIndex("mode") == 0; }},
      {"glitch", {"shift-x", "shift-y"}, "with --type 0 to 5 (or --type-sheet)",
       [](const OptionValues& v) { return v.Whole("type") <= 5 || v.Flag("type-sheet"); }},
      {"glitch", {"radius", "rotation"}, "with --type 6 or 7 (or --type-sheet)",
       [](const OptionValues& v) { return v.Whole("type") >= 6 || v.Flag("type-sheet"); }},
      {"glitch", {"tile-width", "columns"}, "with --type-sheet",
       [](const OptionValues& v) { return v.Flag("type-sheet"); }},
      {"glow", {"hue"}, "with --tint above 0", [](const OptionValues& v) { return v.Number("tint") > 0; }},
      {"glow", {"tile-width", "columns"}, "with --blend-sheet",
       [](const OptionValues& v) { return v.Flag("blend-sheet"); }},
  };
  return rules;
}

}  // namespace

Status CheckCombination(const OptionValues& values, int32_t frames) {
  const CommandDef& cmd = values.cmd();
  if (cmd.Find("frame") && values.Has("frame") && values.Whole("frame") >= frames) {
    return Status::Usage("--frame " + std::to_string(values.Whole("frame")) + " is past the last frame of --frames " +
                         std::to_string(frames));
  }
  for (const OptionDef& o : cmd.options) {
    if (o.needs_loop && frames < 2 && values.Flag(o.name)) {
      return Status::Usage("--" + o.name + " needs --frames 2 or more");
    }
  }
  for (const Rule& r : Rules()) {
    if (cmd.name != r.command || r.applies(values)) continue;
    for (const char* name : r.options) {
      if (values.Changed(name)) return Status::Usage("--" + std::string(name) + " applies only " + r.where);
    }
  }
  return Status();
}

Status CheckInputsUsed(const OptionValues& values, const Inputs& inputs) {
  const auto given = [&](const char* name) {
    const auto it = inputs.images.find(name);
    return it != inputs.images.end() && !it->second.empty();
  };
  const CommandDef& cmd = values.cmd();
  if (cmd.Find("stretch-guide") && values.Flag("stretch-guide") && !given("guide")) {
    return Status::Usage("--stretch-guide applies only with a --guide");
  }
  if (cmd.Find("manual-shape") && values.Changed("manual-shape") && inputs.sparkles.empty()) {
    return Status::Usage("--manual-shape applies only with --manual glints");
  }
  return Status();
}

bool PictureMoves(const OptionValues& values) {
  const CommandDef& cmd = values.cmd();
  if (!cmd.Animated()) return false;
  const bool switches = std::any_of(cmd.options.begin(), cmd.options.end(),
                                    [](const OptionDef& o) { return o.needs_loop; });
  const bool moving = std::any_of(cmd.options.begin(), cmd.options.end(),
                                  [&](const OptionDef& o) { return o.needs_loop && values.Flag(o.name); });
  return !switches || moving;
}

int32_t FrameCount(const OptionValues& values) {
  if (!values.cmd().Animated()) return 1;
  const int32_t frames = static_cast<int32_t>(values.Whole("frames"));
  if (values.Given("frames") || values.Has("frame")) return frames;
  return PictureMoves(values) ? frames : 1;
}

}  // namespace KorvaneFrontend
