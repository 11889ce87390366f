#include "OptionValues.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <stdexcept>

namespace KorvaneFrontend {

namespace {

// Choices match ignoring case, '_' or ' ' for '-', and "colour" for "color".
std::string Folded(const std::string& text) {
  std::string s;
  for (char c : text) s += (c == '_' || c == ' ') ? '-' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (size_t at; (at = s.find("colour")) != std::string::npos;) s.replace(at, 6, "color");
  return s;
}

std::string ChoiceList(const OptionDef& opt) {
  std::string list;
  for (size_t i = 0; i < opt.choices.size(); ++i) {
    list += (i ? ", " : "") + (opt.choice_numbers ? std::to_string(i) + " " : std::string()) + opt.choices[i];
  }
  return list;
}

// The whole text as a number: no leading space, nothing after it.
bool ReadNumber(const std::string& text, double& v) {
  if (text.empty() || std::isspace(static_cast<unsigned char>(text[0]))) return false;
  char* end = nullptr;
  v = std::strtod(text.c_str(), &end);
  return end != text.c_str() && *end == '\0';
}

std::string RangeText(double lo, double hi, const std::string& unit) {
  return NumberText(lo) + ".." + NumberText(hi) + (unit.empty() ? "" : " " + unit);
}

// "" when v is finite, in lo..hi and whole where asked; `shown` is the
// value as the user gave it.
std::string NumberProblem(double v, double lo, double hi, bool whole, const std::string& unit,
                          const std::string& shown) {
  if (!std::isfinite(v)) return "'" + shown + "' is not a finite number";
  if (whole && v != std::floor(v)) return "'" + shown + "' is not a whole number";
  if (v < lo || v > hi) return shown + " is outside " + RangeText(lo, hi, unit);
  return "";
}

std::vector<std::string> Split(const std::string& text, char by) {
  std::vector<std::string> parts(1);
  for (char c : text) {
    if (c == by) {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  return parts;
}

std::string PartNames(const OptionDef& opt) {
  std::string names;
  for (const OptionPart& p : opt.parts) names += (names.empty() ? "" : ",") + p.name;
  return names;
}

}  // namespace

OptionValues::OptionValues(const CommandDef& cmd) : m_cmd(&cmd), m_values(cmd.options.size()) {
  for (const OptionDef& o : cmd.options) Reset(o.name);
}

size_t OptionValues::IndexOf(const std::string& name) const {
  for (size_t i = 0; i < m_cmd->options.size(); ++i) {
    if (m_cmd->options[i].name == name) return i;
  }
  // Asking for an option the command does not have is a mistake in the caller.
  throw std::invalid_argument(m_cmd->name + " has no option --" + name);
}

const OptionValues::Value& OptionValues::Get(const std::string& name) const { return m_values[IndexOf(name)]; }

void OptionValues::Reset(const std::string& name) {
  const size_t i = IndexOf(name);
  const OptionDef& opt = m_cmd->options[i];
  m_values[i] = Value();
  if (!opt.default_text.empty() && !Parse(opt, opt.default_text, m_values[i]).empty()) {
    throw std::logic_error("the default of --" + name + " is not one of its values");
  }
  m_values[i].has = !opt.default_text.empty() || opt.kind == OptionKind::kFlag;
}

std::string OptionValues::CheckNumber(const OptionDef& opt, double v, Value& out) {
  if (opt.kind == OptionKind::kChoice) {
    // A choice by its place in the table (the GIMP plug-in passes them so).
    if (v != std::floor(v) || v < 0 || v >= static_cast<double>(opt.choices.size())) {
      return "'" + NumberText(v) + "' is not one of " + ChoiceList(opt);
    }
    out.number = v;
    out.text = opt.choices[static_cast<size_t>(v)];
    return "";
  }
  if (opt.kind != OptionKind::kNumber && opt.kind != OptionKind::kWhole) return "takes no number";
  const std::string problem = NumberProblem(v, opt.lo, opt.hi, opt.kind == OptionKind::kWhole, opt.unit,
                                            NumberText(v));
  if (problem.empty()) out.number = v;
  return problem;
}

std::string OptionValues::Parse(const OptionDef& opt, const std::string& text, Value& out) {
  double v = 0;
  switch (opt.kind) {
    case OptionKind::kNumber:
    case OptionKind::kWhole: {
      if (!ReadNumber(text, v)) return "'" + text + "' is not a number";
      const std::string problem =
          NumberProblem(v, opt.lo, opt.hi, opt.kind == OptionKind::kWhole, opt.unit, text);
      if (problem.empty()) out.number = v;
      return problem;
    }
    case OptionKind::kChoice: {
      const int32_t named = ChoiceOf(opt, text);
      if (named >= 0) return CheckNumber(opt, named, out);
      if (opt.choice_numbers && !text.empty() &&
          std::all_of(text.begin(), text.end(), [](char c) { return std::isdigit(static_cast<unsigned char>(c)); })) {
        if (text.size() <= 3 && CheckNumber(opt, std::atof(text.c_str()), out).empty()) return "";
      }
      if (opt.or_image && !text.empty()) {
        out.number = -1;
        out.text = text;
        return "";
      }
      if (!opt.choice_noun.empty()) return "unknown " + opt.choice_noun + " '" + text + "'; choose one of: " + ChoiceList(opt);
      return "'" + text + "' is not one of " + ChoiceList(opt);
    }
    case OptionKind::kFlag: {
      const std::string f = Folded(text);
      if (f != "1" && f != "0" && f != "true" && f != "false" && f != "on" && f != "off") {
        return "'" + text + "' is not on or off";
      }
      out.number = (f == "1" || f == "true" || f == "on") ? 1 : 0;
      return "";
    }
    case OptionKind::kPoint:
    case OptionKind::kRect:
    case OptionKind::kNumbers: {
      const std::vector<std::string> parts = Split(text, ',');
      if (parts.size() != opt.parts.size()) return "'" + text + "' is not " + PartNames(opt);
      std::vector<double> numbers;
      for (size_t i = 0; i < parts.size(); ++i) {
        const OptionPart& p = opt.parts[i];
        if (!ReadNumber(parts[i], v)) return "'" + text + "' is not " + PartNames(opt);
        const std::string problem =
            NumberProblem(v, p.lo, p.hi, opt.kind == OptionKind::kRect, opt.unit, parts[i]);
        if (!problem.empty()) return p.name + " " + problem;
        numbers.push_back(v);
      }
      out.numbers = std::move(numbers);
      return "";
    }
    case OptionKind::kText:
    case OptionKind::kImage:
    case OptionKind::kFlows:
    case OptionKind::kSparkles:
      if (text.empty()) return "needs a value";
      out.text = text;
      return "";
    case OptionKind::kPhotos:
      break;
  }
  return "is not set by value";
}

int32_t OptionValues::ChoiceOf(const OptionDef& opt, const std::string& text) {
  const std::string folded = Folded(text);
  for (size_t i = 0; i < opt.choices.size(); ++i) {
    if (folded == Folded(opt.choices[i])) return static_cast<int32_t>(i);
  }
  return -1;
}

std::string OptionValues::Check(const OptionDef& opt, const std::string& text) {
  Value scratch;
  return Parse(opt, text, scratch);
}

std::string OptionValues::Set(const std::string& name, const std::string& text) {
  const size_t i = IndexOf(name);
  Value v;
  const std::string problem = Parse(m_cmd->options[i], text, v);
  if (!problem.empty()) return "--" + name + ": " + problem;
  v.has = v.given = true;
  m_values[i] = std::move(v);
  return "";
}

std::string OptionValues::SetNumber(const std::string& name, double value) {
  const size_t i = IndexOf(name);
  Value v;
  const std::string problem = CheckNumber(m_cmd->options[i], value, v);
  if (!problem.empty()) return "--" + name + ": " + problem;
  v.has = v.given = true;
  m_values[i] = std::move(v);
  return "";
}

std::string OptionValues::SetFlag(const std::string& name, bool on) {
  const size_t i = IndexOf(name);
  if (m_cmd->options[i].kind != OptionKind::kFlag) return "--" + name + ": is not a switch";
  m_values[i].number = on ? 1 : 0;
  m_values[i].has = m_values[i].given = true;
  return "";
}

std::string OptionValues::SetNumbers(const std::string& name, const std::vector<double>& values) {
  const size_t i = IndexOf(name);
  const OptionDef& opt = m_cmd->options[i];
  if (opt.parts.empty()) return "--" + name + ": takes no list of numbers";
  if (values.size() != opt.parts.size()) {
    return "--" + name + ": wants " + std::to_string(opt.parts.size()) + " numbers (" + PartNames(opt) + ")";
  }
  for (size_t k = 0; k < values.size(); ++k) {
    const OptionPart& p = opt.parts[k];
    const std::string problem =
        NumberProblem(values[k], p.lo, p.hi, opt.kind == OptionKind::kRect, opt.unit, NumberText(values[k]));
    if (!problem.empty()) return "--" + name + ": " + p.name + " " + problem;
  }
  m_values[i].numbers = values;
  m_values[i].has = m_values[i].given = true;
  return "";
}

bool OptionValues::Has(const std::string& name) const { return Get(name).has; }
bool OptionValues::Given(const std::string& name) const { return Get(name).given; }

bool OptionValues::Changed(const std::string& name) const {
  const size_t i = IndexOf(name);
  const Value& v = m_values[i];
  if (!v.given) return false;
  const OptionDef& opt = m_cmd->options[i];
  if (opt.kind == OptionKind::kFlag) return v.number != 0;
  if (opt.default_text.empty()) return true;
  Value def;
  Parse(opt, opt.default_text, def);
  return v.number != def.number || v.text != def.text || v.numbers != def.numbers;
}
double OptionValues::Number(const std::string& name) const { return Get(name).number; }
int64_t OptionValues::Whole(const std::string& name) const { return static_cast<int64_t>(Get(name).number); }
bool OptionValues::Flag(const std::string& name) const { return Get(name).number != 0; }
const std::string& OptionValues::Text(const std::string& name) const { return Get(name).text; }
int32_t OptionValues::ChoiceIndex(const std::string& name) const { return static_cast<int32_t>(Get(name).number); }
const std::vector<double>& OptionValues::Numbers(const std::string& name) const { return Get(name).numbers; }

Korvane::Rect OptionValues::Rect(const std::string& name) const {
  const std::vector<double>& v = Get(name).numbers;
  if (v.size() != 4) return Korvane::Rect{};
  // Whole numbers within the table's part ranges (checked when set).
  return Korvane::Rect{static_cast<int32_t>(v[0]), static_cast<int32_t>(v[1]), static_cast<int32_t>(v[2]),
                       static_cast<int32_t>(v[3])};
}

}  // namespace KorvaneFrontend
