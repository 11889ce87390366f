#include "Options.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace KorvaneTool {

std::string NumberText(double v) {
  if (v == std::floor(v) && std::fabs(v) < 1e15) return std::to_string(static_cast<long long>(v));
  char buf[32];
  for (int digits = 1; digits <= 17; ++digits) {
    std::snprintf(buf, sizeof(buf), "%.*g", digits, v);
    if (std::strtod(buf, nullptr) == v || static_cast<float>(std::strtod(buf, nullptr)) == static_cast<float>(v)) break;
  }
  return buf;
}

namespace {

std::string RangeText(double lo, double hi, const std::string& unit) {
  return NumberText(lo) + ".." + NumberText(hi) + (unit.empty() ? "" : " " + unit);
}

std::string Lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return s;
}

}  // namespace

CLI::Validator NumberRange(double lo, double hi, bool whole, const std::string& unit) {
  const std::string range = RangeText(lo, hi, unit);
  return CLI::Validator(
      [lo, hi, whole, range](std::string& text) -> std::string {
        const char* begin = text.c_str();
        char* end = nullptr;
        const double v = std::strtod(begin, &end);
        if (end == begin || *end != '\0' || std::isspace(static_cast<unsigned char>(text[0]))) {
          return "'" + text + "' is not a number";
        }
        if (!std::isfinite(v)) return "'" + text + "' is not a finite number";
        if (whole && v != std::floor(v)) return "'" + text + "' is not a whole number";
        if (v < lo || v > hi) return text + " is outside " + range;
        return std::string();
      },
      "");
}

void OptionTable::AddNumber(CLI::Option* opt, double lo, double hi, bool whole, const std::string& unit,
                            const std::string& help, const std::string& default_text) {
  opt->check(NumberRange(lo, hi, whole, unit));
  opt->type_name(whole ? "INT" : "NUMBER");
  opt->description(help + " [" + RangeText(lo, hi, unit) + ", " + default_text + "]");
}

OptionTable& OptionTable::Choice(const std::string& flags, std::string& value, const std::vector<std::string>& choices,
                                 const std::string& help) {
  std::string list;
  for (const std::string& c : choices) list += (list.empty() ? "" : ", ") + c;
  CLI::Validator one_of(
      [choices, list](std::string& text) -> std::string {
        for (const std::string& c : choices) {
          if (Lower(text) == Lower(c)) {
            text = c;
            return std::string();
          }
        }
        return "'" + text + "' is not one of " + list;
      },
      "");
  m_sub.add_option(flags, value)->check(one_of)->type_name("CHOICE")->description(help + " [" + list + "; default " + value + "]");
  return *this;
}

OptionTable& OptionTable::Text(const std::string& flags, std::string& value, const std::string& help, bool required) {
  CLI::Option* opt = m_sub.add_option(flags, value, value.empty() ? help : help + " [default " + value + "]");
  if (required) opt->required();
  return *this;
}

OptionTable& OptionTable::List(const std::string& flags, std::vector<std::string>& values, const std::string& help,
                               bool required) {
  CLI::Option* opt = m_sub.add_option(flags, values, help);
  if (required) opt->required();
  return *this;
}

OptionTable& OptionTable::Flag(const std::string& flags, bool& value, const std::string& help) {
  m_sub.add_flag(flags, value, help);
  return *this;
}

}  // namespace KorvaneTool
