// The tool's messages: one "korvane: ..." line per failure, news lines
// unless --quiet, warnings, and a progress bar on a terminal.
#pragma once

#include <string>

#include "frontend/Session.h"

namespace KorvaneTool {

// Exit codes: 0 success, 1 a file or a render failed, 2 the command line is wrong.
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// Prints "korvane: <message>" on one line and returns exit code 1.
int Fail(const std::string& message);
// The same for a wrong command line: returns exit code 2.
int Usage(const std::string& message);
// A status of the render core as a message and its exit code; `input_name`
// replaces {input} ("guide depth.png").
int Report(const KorvaneFrontend::Status& status, const std::string& input_name = "");
// Running out of memory, anywhere in the work on `photo`: "<photo>: out of
// memory" (or "out of memory" when no photo is being worked on).
int OutOfMemory();
// The photo being worked on, for OutOfMemory; empty between photos.
void SetCurrentPhoto(const std::string& photo);

// "korvane: warning: <message>", unless --quiet.
void Warn(const std::string& message);

// Prints a line of news ("wrote ...") unless --quiet: to stdout, or to the
// message stream while stdout carries an image.
void Note(const char* format, ...) __attribute__((format(printf, 1, 2)));
void SetQuiet(bool quiet);
void SetStdoutIsData(bool data);

// A one-line progress bar, drawn only when the messages go to a terminal
// (and not with --quiet); nothing at all when piped.
class Progress {
 public:
  Progress(std::string what, int total);
  ~Progress();
  void Step(int done);

 private:
  std::string m_what;
  int m_total;
  bool m_on;
  bool m_drawn = false;
};

}  // namespace KorvaneTool
