// Reading the JSON files commands take as input (placed glints, flow lines).
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace KorvaneTool {

// Reads `path` ("-": standard input) as a JSON object holding an array under
// `key`, as {"flows": [...]}, and sets `list` to that array. False with a
// reason naming the file in `error`: unreadable, not JSON (numbers too large
// for a double, such as 1e400, included), or no such array.
bool ReadJsonList(const std::string& path, const std::string& key, nlohmann::json& list, std::string& error);

}  // namespace KorvaneTool
