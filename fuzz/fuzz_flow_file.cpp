// The files of flow lines and placed glints the tool reads, through the
// front-end core as every front end uses it: any bytes are parsed as both
// forms, and what a parser accepts is rendered by the command's session on a
// small photo (animate: flows; sparkle: placed glints) into a frame with
// guard bytes around it. A refusal must say why; input the front end
// accepted must not be refused by the library (the front end checks every
// position before it becomes a number of the library's records).
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "frontend/Flows.h"
#include "frontend/Session.h"

namespace {

using namespace KorvaneFrontend;

constexpr size_t kGuard = 64;
constexpr uint8_t kGuardByte = 0xA5;
constexpr int kW = 23, kH = 17;

// A still region or a textured photo of kW x kH.
Image Photo() {
  Image photo(kW, kH, 4, 255);
  for (size_t i = 0; i < photo.pixels.size(); ++i) {
    if (i % 4 != 3) photo.pixels[i] = static_cast<uint8_t>(i * 37 % 251);
  }
  return photo;
}

void Check(bool ok, const char* what, const Status& s) {
  if (ok) return;
  std::fprintf(stderr, "%s: %s\n", what, s.message.c_str());
  std::abort();
}

// Renders frame 1 of a loop of 3 with `command` on the photo.
void Render(const char* command, const Inputs& inputs) {
  static Engine engine;
  static const Image photo = Photo();
  const OptionValues values(*FindCommand(command));
  std::unique_ptr<Session> session;
  const Status opened = OpenSession(engine, values, photo.View(), inputs, session);
  Check(opened.ok() || !opened.message.empty(), "a refusal without a reason", opened);
  // Placed glints the front end accepts are glints the library takes.
  Check(opened.ok() || opened.message.find("AddManualSparkles") == std::string::npos, "the library refused", opened);
  if (!opened.ok()) return;
  std::vector<uint8_t> bytes(kW * kH * 4 + 2 * kGuard, kGuardByte);
  const ImageView frame{bytes.data() + kGuard, kW, kH, kW * 4, 4};
  const Status rendered = session->Render(values, 1, 3, frame);
  Check(rendered.ok() || !rendered.message.empty(), "a refusal without a reason", rendered);
  // The mesh may refuse flows when it is prepared; a prepared loop renders.
  Check(rendered.ok() || rendered.message.find(" frame ") == std::string::npos, "a prepared frame failed", rendered);
  for (size_t i = 0; i < kGuard; ++i) {
    if (bytes[i] != kGuardByte || bytes[bytes.size() - 1 - i] != kGuardByte) Check(false, "guard bytes changed", rendered);
  }
}

// A refusal always says why, and never with raw bytes of the input.
void CheckRefusal(const std::string& error) {
  if (error.empty()) std::abort();
  for (unsigned char c : error) {
    if (c < 0x20 || c >= 0x7f) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  Inputs flows, sparkles;
  std::string error;
  if (ParseFlowsJson(text, "flows.json", flows.flows, error)) {
    Render("animate", flows);
  } else {
    CheckRefusal(error);
  }
  error.clear();
  if (ParsePlacedSparklesJson(text, "sparkles.json", sparkles.sparkles, error)) {
    Render("sparkle", sparkles);
  } else {
    CheckRefusal(error);
  }
  return 0;
}
