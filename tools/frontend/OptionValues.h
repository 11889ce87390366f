// The values of one command's options: filled from the table's defaults, set
// by name, and checked against the table with the messages the tool prints,
// so every front end refuses a bad value with the same words:
//
//   OptionValues v(*FindCommand("glow"));
//   std::string error = v.Set("radius", "-3");       // from text, as typed
//   // error == "--radius: -3 is outside 0..8192 pixels"
//   error = v.SetNumber("intensity", 0.6);           // from a number (Python)
//   float r = v.Has("radius") ? v.Number("radius") : automatic;
//
// Every number is checked (finite, in range, whole where the option wants
// whole numbers) before anything converts it to an integer, so the getters
// below never meet a value they cannot represent.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <korvane/core/ImageBuffer.h>

#include "OptionDef.h"

namespace KorvaneFrontend {

class OptionValues {
 public:
  explicit OptionValues(const CommandDef& cmd);

  const CommandDef& cmd() const { return *m_cmd; }

  // Each returns "" on success, otherwise the message ("--name: why") and
  // leaves the value as it was.
  std::string Set(const std::string& name, const std::string& text);
  std::string SetNumber(const std::string& name, double value);   // kNumber, kWhole, kChoice by number
  std::string SetFlag(const std::string& name, bool on);
  std::string SetNumbers(const std::string& name, const std::vector<double>& values);  // kPoint, kRect, kNumbers
  // Back to the table's default (or to automatic where it has none).
  void Reset(const std::string& name);

  // Whether the option has a value: given, or a default of the table.
  bool Has(const std::string& name) const;
  // Whether it was set (not left at the table's default).
  bool Given(const std::string& name) const;
  // Whether its value differs from the table's default (a switch that is on,
  // a value given where the table has none). A front end that passes every
  // value (GIMP's procedures) gives defaults that count as not set here.
  bool Changed(const std::string& name) const;

  double Number(const std::string& name) const;
  int64_t Whole(const std::string& name) const;
  bool Flag(const std::string& name) const;
  // A choice by its table name ("screen"), or the text of a kText option or
  // of a kChoice that names an image.
  const std::string& Text(const std::string& name) const;
  // A choice's number (its place in the table), -1 for an image.
  int32_t ChoiceIndex(const std::string& name) const;
  const std::vector<double>& Numbers(const std::string& name) const;
  Korvane::Rect Rect(const std::string& name) const;

  // Checks `text` for `opt` without storing it: "" or why, without the
  // option's name ("-3 is outside 0..8192 pixels"). The tool's parser uses it
  // to refuse a value while it reads the command line.
  static std::string Check(const OptionDef& opt, const std::string& text);
  // The place of the choice `text` names in a kChoice option (as Set matches
  // names: case, '_' for '-' and "colour" folded), or -1.
  static int32_t ChoiceOf(const OptionDef& opt, const std::string& text);

 private:
  struct Value {
    bool has = false;    // a default or a given value
    bool given = false;
    double number = 0;
    std::string text;
    std::vector<double> numbers;
  };
  size_t IndexOf(const std::string& name) const;
  const Value& Get(const std::string& name) const;
  static std::string Parse(const OptionDef& opt, const std::string& text, Value& out);
  static std::string CheckNumber(const OptionDef& opt, double v, Value& out);

  const CommandDef* m_cmd;
  std::vector<Value> m_values;  // in table order
};

}  // namespace KorvaneFrontend
