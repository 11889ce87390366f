#include "Flows.h"

#include <cmath>
#include <cstdio>

#include <nlohmann/json.hpp>

namespace KorvaneFrontend {

namespace {

using nlohmann::json;

// Text from the input shown in a message: control and non-ASCII bytes as '?',
// so a binary file cannot put raw bytes on a terminal.
std::string Printable(const std::string& text, size_t most = 40) {
  std::string s;
  for (unsigned char c : text.substr(0, most)) s += (c >= 0x20 && c < 0x7f) ? static_cast<char>(c) : '?';
  return text.size() > most ? s + "..." : s;
}

bool Bad(const std::string& message, std::string& error) {
  error = message;
  return false;
}

// The array under `key` of a JSON object.
bool ReadList(const std::string& text, const std::string& name, const char* key, json& list, std::string& error) {
  json doc;
  try {
    doc = json::parse(text);
  } catch (const json::parse_error& e) {
    return Bad(name + ": not valid JSON (error at byte " + std::to_string(e.byte) + ")", error);
  } catch (const json::exception& e) {
    // Numbers too large for a double (1e400) are refused here.
    return Bad(name + ": not valid JSON (" + Printable(e.what(), 120) + ")", error);
  }
  if (!doc.is_object() || !doc.contains(key) || !doc[key].is_array()) {
    return Bad(name + ": expected an object with a \"" + key + "\" array", error);
  }
  list = std::move(doc[key]);
  return true;
}

}  // namespace

bool FlowTypeOf(const std::string& name, uint32_t& type) {
  if (name == "path") type = Korvane::FLOW_PATH;
  else if (name == "stroke") type = Korvane::FLOW_STROKE;
  else if (name == "anchor") type = Korvane::FLOW_ANCHOR;
  else return false;
  return true;
}

const char* FlowTypeName(uint32_t type) {
  return type == Korvane::FLOW_PATH ? "path" : type == Korvane::FLOW_STROKE ? "stroke" : "anchor";
}

bool ParseFlowsJson(const std::string& text, const std::string& name, std::vector<FlowLine>& flows,
                    std::string& error) {
  json list;
  if (!ReadList(text, name, "flows", list, error)) return false;
  flows.clear();
  for (size_t i = 0; i < list.size(); ++i) {
    const std::string where = name + ": flows[" + std::to_string(i) + "]";
    const json& f = list[i];
    if (!f.is_object() || !f.contains("type") || !f["type"].is_string()) {
      return Bad(where + " needs a \"type\": \"path\", \"anchor\" or \"stroke\"", error);
    }
    const std::string type = f["type"].get<std::string>();
    FlowLine line;
    if (!FlowTypeOf(type, line.type)) {
      return Bad(where + ".type is \"" + Printable(type) + "\"; use \"path\", \"anchor\" or \"stroke\"", error);
    }
    if (!f.contains("points") || !f["points"].is_array()) return Bad(where + " needs \"points\": [[x, y], ...]", error);
    const json& pts = f["points"];
    for (size_t k = 0; k < pts.size(); ++k) {
      const json& p = pts[k];
      if (!p.is_array() || p.size() != 2 || !p[0].is_number() || !p[1].is_number() ||
          !std::isfinite(p[0].get<double>()) || !std::isfinite(p[1].get<double>())) {
        return Bad(where + ".points[" + std::to_string(k) + "] must be [x, y] with two numbers", error);
      }
      line.points.push_back(p[0].get<float>());
      line.points.push_back(p[1].get<float>());
    }
    const size_t needed = line.type == Korvane::FLOW_ANCHOR ? 1 : 2;
    if (pts.size() < needed) {
      return Bad(where + ": a " + type + " needs at least " + std::to_string(needed) + " point" +
                     (needed > 1 ? "s" : ""),
                 error);
    }
    flows.push_back(std::move(line));
  }
  return true;
}

bool ParsePlacedSparklesJson(const std::string& text, const std::string& name, std::vector<PlacedSparkle>& sparkles,
                             std::string& error) {
  json list;
  if (!ReadList(text, name, "sparkles", list, error)) return false;
  sparkles.clear();
  for (size_t i = 0; i < list.size(); ++i) {
    const json& s = list[i];
    const std::string where = name + ": sparkles[" + std::to_string(i) + "]";
    // A number under `key` (or `fallback` when there is none); false when
    // it is not a finite number.
    auto number = [&](const char* key, double fallback, double& out) {
      if (!s.contains(key)) {
        out = fallback;
        return !std::isnan(fallback);
      }
      if (!s[key].is_number()) return false;
      out = s[key].get<double>();
      return std::isfinite(out);
    };
    PlacedSparkle p;
    if (!s.is_object() || !number("x", NAN, p.x) || !number("y", NAN, p.y)) {
      return Bad(where + " needs \"x\" and \"y\" (numbers, photo pixels)", error);
    }
    if (!number("scale", 1.0, p.scale)) return Bad(where + ".scale must be a number", error);
    sparkles.push_back(p);
  }
  return true;
}

std::string FlowsJson(const std::vector<FlowLine>& flows) {
  json doc;
  doc["flows"] = json::array();
  for (const FlowLine& l : flows) {
    json pts = json::array();
    for (size_t i = 0; i + 1 < l.points.size(); i += 2) pts.push_back({l.points[i], l.points[i + 1]});
    doc["flows"].push_back({{"type", FlowTypeName(l.type)}, {"points", pts}});
  }
  return doc.dump(1) + "\n";
}

std::string LightPointsJson(const Korvane::LightPointSummary& summary,
                            const std::vector<Korvane::LightPointInfo>& points) {
  std::string text = "{\"width\": " + std::to_string(summary.norm_width) +
                     ", \"height\": " + std::to_string(summary.norm_height) + ", \"points\": [";
  char buf[160];
  for (size_t i = 0; i < points.size(); ++i) {
    const Korvane::LightPointInfo& p = points[i];
    std::snprintf(buf, sizeof buf, "%s\n  {\"x\": %d, \"y\": %d, \"phase\": %d, \"random\": %.9g, \"color\": %d}",
                  i ? "," : "", p.x, p.y, p.phase, static_cast<double>(p.random), p.color_index);
    text += buf;
  }
  text += points.empty() ? "]}\n" : "\n]}\n";
  return text;
}

}  // namespace KorvaneFrontend
