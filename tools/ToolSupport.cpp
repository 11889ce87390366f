#include "ToolSupport.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace KorvaneTool {

namespace {
FILE* g_messages = stderr;   // where the tool's own messages go
bool g_quiet = false;
bool g_stdout_is_data = false;
bool g_bar_visible = false;  // a progress bar is on the terminal's last line
std::string g_photo;         // the photo being worked on

// Clears a progress bar so a message starts on a clean line.
void ClearBar() {
  if (!g_bar_visible) return;
  std::fprintf(g_messages, "\r\033[K");
  g_bar_visible = false;
}

int Message(const std::string& text, int code) {
  ClearBar();
  std::fprintf(g_messages, "korvane: %s\n", text.c_str());
  std::fflush(g_messages);
  return code;
}
}  // namespace

int Fail(const std::string& message) { return Message(message, kExitFailure); }
int Usage(const std::string& message) { return Message(message, kExitUsage); }

int OutOfMemory() { return Fail((g_photo.empty() ? "" : g_photo + ": ") + "out of memory"); }
void SetCurrentPhoto(const std::string& photo) { g_photo = photo == "-" ? "standard input" : photo; }

int Report(const KorvaneFrontend::Status& status, const std::string& input_name) {
  if (status.ok()) return 0;
  if (status.code == E_OUTOFMEMORY) return OutOfMemory();
  return Message(status.Text(input_name), status.kind == KorvaneFrontend::Status::kUsage ? kExitUsage : kExitFailure);
}

void Warn(const std::string& message) {
  if (!g_quiet) Message("warning: " + message, 0);
}

void SetQuiet(bool quiet) { g_quiet = quiet; }
void SetStdoutIsData(bool data) { g_stdout_is_data = data; }

void Note(const char* format, ...) {
  if (g_quiet) return;
  ClearBar();
  FILE* to = g_stdout_is_data ? g_messages : stdout;
  va_list args;
  va_start(args, format);
  std::vfprintf(to, format, args);
  va_end(args);
  std::fflush(to);
}

Progress::Progress(std::string what, int total)
    : m_what(std::move(what)), m_total(total), m_on(!g_quiet && total > 1 && isatty(fileno(g_messages)) != 0) {}

Progress::~Progress() {
  if (m_drawn) ClearBar();
}

void Progress::Step(int done) {
  if (!m_on) return;
  const int width = 30, filled = done * width / m_total;
  std::fprintf(g_messages, "\r%s [%s%s] %d/%d", m_what.c_str(), std::string(filled, '#').c_str(),
               std::string(width - filled, '.').c_str(), done, m_total);
  std::fflush(g_messages);
  m_drawn = g_bar_visible = true;
}

}  // namespace KorvaneTool
