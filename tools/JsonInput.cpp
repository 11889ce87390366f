#include "JsonInput.h"

#include <cstdint>
#include <vector>

#include "ImageIO.h"

namespace KorvaneTool {

bool ReadJsonList(const std::string& path, const std::string& key, nlohmann::json& list, std::string& error) {
  std::vector<uint8_t> bytes;
  if (!ReadWholeFile(path, bytes, error)) return false;
  nlohmann::json doc;
  try {
    doc = nlohmann::json::parse(bytes.begin(), bytes.end());
  } catch (const nlohmann::json::exception& e) {
    error = path + ": not valid JSON (" + e.what() + ")";
    return false;
  }
  if (!doc.is_object() || !doc.contains(key) || !doc[key].is_array()) {
    error = path + ": expected an object with a \"" + key + "\" array";
    return false;
  }
  list = std::move(doc[key]);
  return true;
}

}  // namespace KorvaneTool
