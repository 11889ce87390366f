// One option table per command. Each option is declared once, with its
// range, unit and default; the --help line and the error for a bad value are
// both made from that declaration, so they always agree:
//
//   OptionTable t(sub);
//   t.Number("--radius", o->radius, 0, 500, "pixels", "Blur radius");
//     -> help:  "Blur radius [0..500 pixels, default 12]"
//     -> error: "korvane glow: --radius: -3 is outside 0..500 pixels"
//
// A value outside the range, NaN, infinity, a fraction for a whole number or
// trailing text is a usage error (exit code 2), never a silent fallback.
#pragma once

#include <CLI/CLI.hpp>

#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace KorvaneTool {

// "0.4", "12", "-3" — the shortest form that reads back as the same number.
std::string NumberText(double v);

// The validator behind Number(): accepts a number in lo..hi (whole when
// `whole`), refusing NaN, infinity and trailing text.
CLI::Validator NumberRange(double lo, double hi, bool whole, const std::string& unit);

class OptionTable {
 public:
  explicit OptionTable(CLI::App& sub) : m_sub(sub) {}

  // A number in lo..hi of `unit` ("pixels", "percent of the width", or ""
  // for a plain scale such as 0..1). The variable's value now is the default.
  template <class T>
  OptionTable& Number(const std::string& flags, T& value, double lo, double hi, const std::string& unit,
                      const std::string& help) {
    static_assert(std::is_arithmetic<T>::value, "numbers only");
    AddNumber(m_sub.add_option(flags, value), lo, hi, std::is_integral<T>::value, unit, help,
              "default " + NumberText(static_cast<double>(value)));
    return *this;
  }

  // A number with no fixed default: it stays empty when not given, and
  // `absent` says what is used then ("1.5 % of the longer side").
  template <class T>
  OptionTable& Number(const std::string& flags, std::optional<T>& value, double lo, double hi,
                      const std::string& unit, const std::string& help, const std::string& absent) {
    static_assert(std::is_arithmetic<T>::value, "numbers only");
    AddNumber(m_sub.add_option(flags, value), lo, hi, std::is_integral<T>::value, unit, help, "default: " + absent);
    return *this;
  }

  // One of `choices`; the variable's value now is the default. Matching
  // ignores case.
  OptionTable& Choice(const std::string& flags, std::string& value, const std::vector<std::string>& choices,
                      const std::string& help);

  // Free text such as a file name; `required` makes it mandatory. A value
  // already set is shown as the default.
  OptionTable& Text(const std::string& flags, std::string& value, const std::string& help, bool required = false);

  // Several values (the photos of a batch); at least one when `required`.
  OptionTable& List(const std::string& flags, std::vector<std::string>& values, const std::string& help,
                    bool required = true);

  OptionTable& Flag(const std::string& flags, bool& value, const std::string& help);

  CLI::App& app() { return m_sub; }

 private:
  void AddNumber(CLI::Option* opt, double lo, double hi, bool whole, const std::string& unit,
                 const std::string& help, const std::string& default_text);
  CLI::App& m_sub;
};

}  // namespace KorvaneTool
