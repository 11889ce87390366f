#include "OptionDef.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace KorvaneFrontend {

std::string NumberText(double v) {
  if (v == std::floor(v) && std::fabs(v) < 1e15) return std::to_string(static_cast<long long>(v));
  char buf[32];
  for (int digits = 1; digits <= 17; ++digits) {
    std::snprintf(buf, sizeof(buf), "%.*g", digits, v);
    const double back = std::strtod(buf, nullptr);
    if (back == v || static_cast<float>(back) == static_cast<float>(v)) break;
  }
  return buf;
}

std::string OptionDef::Flag() const {
  if (kind == OptionKind::kPhotos) return name;
  return (short_name.empty() ? "" : "-" + short_name + "/") + "--" + name;
}

const OptionDef* CommandDef::Find(const std::string& option) const {
  for (const OptionDef& o : options) {
    if (o.name == option) return &o;
  }
  return nullptr;
}

const CommandDef* FindCommand(const std::string& name) {
  for (const CommandDef& c : Commands()) {
    if (c.name == name) return &c;
  }
  return nullptr;
}

std::string HelpLine(const OptionDef& o) {
  auto with_default = [&](std::string range) {
    if (!o.default_text.empty()) return o.help + " [" + range + (range.empty() ? "" : ", ") + "default " + o.default_text + "]";
    if (!o.absent.empty()) return o.help + " [" + range + (range.empty() ? "" : ", ") + "default: " + o.absent + "]";
    return range.empty() ? o.help : o.help + " [" + range + "]";
  };
  const std::string unit = o.unit.empty() ? "" : " " + o.unit;
  switch (o.kind) {
    case OptionKind::kNumber:
    case OptionKind::kWhole:
      return with_default(NumberText(o.lo) + ".." + NumberText(o.hi) + unit);
    case OptionKind::kChoice: {
      std::string list;
      for (size_t i = 0; i < o.choices.size(); ++i) {
        list += (i ? ", " : "") + (o.choice_numbers ? std::to_string(i) + " " : std::string()) + o.choices[i];
      }
      if (o.or_image) list += " or an image file";
      return o.help + " [" + list + "; default " + o.default_text + "]";
    }
    case OptionKind::kPoint:
    case OptionKind::kRect:
    case OptionKind::kNumbers: {
      std::string parts;
      for (const OptionPart& p : o.parts) parts += (parts.empty() ? "" : ",") + p.name;
      return with_default(parts + unit);
    }
    default:
      return with_default("");
  }
}

}  // namespace KorvaneFrontend
