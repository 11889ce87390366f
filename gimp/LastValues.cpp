#include "LastValues.h"

#include <cstdlib>
#include <sstream>

namespace KorvaneGimp {

using KorvaneFrontend::NumberText;
using KorvaneFrontend::OptionKind;
using KorvaneFrontend::OptionDef;
using KorvaneFrontend::OptionValues;

namespace {

// The value as the tool would be given it.
std::string ValueText(const OptionValues& v, const OptionDef& o) {
  switch (o.kind) {
    case OptionKind::kFlag:
      return v.Flag(o.name) ? "1" : "0";
    case OptionKind::kChoice:
      return v.Text(o.name);
    case OptionKind::kPoint:
    case OptionKind::kRect:
    case OptionKind::kNumbers: {
      std::string text;
      for (double n : v.Numbers(o.name)) text += (text.empty() ? "" : ",") + NumberText(n);
      return text;
    }
    default:
      return NumberText(v.Number(o.name));
  }
}

}  // namespace

std::string LastValuesText(const Request& request) {
  std::string text;
  for (const OptionDef& o : request.values.cmd().options) {
    if (!InProcedure(o)) continue;
    if (IsItem(o)) {
      text += o.name + "=#" + std::to_string(request.Item(o.name)) + "\n";
    } else if (request.values.Given(o.name)) {
      text += o.name + "=" + ValueText(request.values, o) + "\n";
    }
  }
  return text;
}

void ReadLastValues(const std::string& text, Request& request) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    const std::string name = line.substr(0, eq), value = line.substr(eq + 1);
    const OptionDef* o = request.values.cmd().Find(name);
    if (!o || !InProcedure(*o)) continue;
    if (IsItem(*o)) {
      if (!value.empty() && value[0] == '#') request.items[name] = std::atoi(value.c_str() + 1);
    } else {
      request.values.Set(name, value);  // a value the table no longer takes stays at its default
    }
  }
}

void SaveLastValues(const Request& request) {
  const std::string text = LastValuesText(request);
  gimp_set_data(ProcedureName(request.values.cmd()).c_str(), text.c_str(), text.size() + 1);
}

bool LoadLastValues(Request& request) {
  const std::string name = ProcedureName(request.values.cmd());
  const gint size = gimp_get_data_size(name.c_str());
  if (size <= 0) return false;
  std::string text(static_cast<size_t>(size), '\0');
  gimp_get_data(name.c_str(), &text[0]);
  ReadLastValues(text.c_str(), request);
  return true;
}

void ForgetForeignItems(gint32 image, Request& request) {
  for (auto& [name, id] : request.items) {
    if (id >= 0 && (!gimp_item_is_valid(id) || gimp_item_get_image(id) != image)) id = -1;
  }
}

}  // namespace KorvaneGimp
