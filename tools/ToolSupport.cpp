#include "ToolSupport.h"

#include <cstdio>
#include <filesystem>

namespace KorvaneTool {

int Fail(const std::string& message) {
  std::fprintf(stderr, "korvane: %s\n", message.c_str());
  return 1;
}

std::string CodeText(int32_t code) {
  char hex[16];
  std::snprintf(hex, sizeof(hex), "0x%08X", static_cast<unsigned>(code));
  return std::string(Korvane::ResultCodeName(code)) + " (" + hex + ")";
}

int CheckCode(int32_t code, const std::string& what) {
  return code < 0 ? Fail(what + " failed: " + CodeText(code)) : 0;
}

int CheckOutputPath(const std::string& output, std::initializer_list<std::string> inputs) {
  namespace fs = std::filesystem;
  std::error_code ec;
  for (const std::string& in : inputs) {
    if (in.empty()) continue;
    if (fs::exists(output, ec) && fs::equivalent(output, in, ec)) {
      return Fail("output " + output + " is the input file; choose another name");
    }
  }
  return 0;
}

Engine::Engine() { CreateKorvaneEngine(&m_engine); }
Engine::~Engine() { DeleteKorvaneEngine(&m_engine); }

}  // namespace KorvaneTool
