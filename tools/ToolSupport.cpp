#include "ToolSupport.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <filesystem>

namespace KorvaneTool {

namespace {
bool g_quiet = false;
bool g_stdout_is_data = false;
bool g_bar_visible = false;  // a progress bar is on the terminal's last line

// Clears a progress bar so a message starts on a clean line.
void ClearBar() {
  if (!g_bar_visible) return;
  std::fprintf(stderr, "\r\033[K");
  g_bar_visible = false;
}
}  // namespace

int Fail(const std::string& message) {
  ClearBar();
  std::fprintf(stderr, "korvane: %s\n", message.c_str());
  return kExitFailure;
}

int Usage(const std::string& message) {
  ClearBar();
  std::fprintf(stderr, "korvane: %s\n", message.c_str());
  return kExitUsage;
}

void SetQuiet(bool quiet) { g_quiet = quiet; }
void SetStdoutIsData(bool data) { g_stdout_is_data = data; }

void Note(const char* format, ...) {
  if (g_quiet) return;
  ClearBar();
  FILE* to = g_stdout_is_data ? stderr : stdout;
  va_list args;
  va_start(args, format);
  std::vfprintf(to, format, args);
  va_end(args);
  std::fflush(to);
}

Progress::Progress(std::string what, int total)
    : m_what(std::move(what)), m_total(total), m_on(!g_quiet && total > 1 && isatty(fileno(stderr)) != 0) {}

Progress::~Progress() {
  if (m_drawn) ClearBar();
}

void Progress::Step(int done) {
  if (!m_on) return;
  const int width = 30, filled = done * width / m_total;
  std::fprintf(stderr, "\r%s [%s%s] %d/%d", m_what.c_str(), std::string(filled, '#').c_str(),
               std::string(width - filled, '.').c_str(), done, m_total);
  std::fflush(stderr);
  m_drawn = g_bar_visible = true;
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

int CheckOutputPaths(std::initializer_list<std::string> outputs, std::initializer_list<std::string> inputs) {
  for (const std::string& out : outputs) {
    if (out.empty()) continue;
    if (int rc = CheckOutputPath(out, inputs)) return rc;
  }
  return 0;
}

Engine::Engine() { CreateKorvaneEngine(&m_engine); }
Engine::~Engine() { DeleteKorvaneEngine(&m_engine); }

}  // namespace KorvaneTool
