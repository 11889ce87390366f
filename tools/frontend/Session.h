// Rendering a command on a photo held in memory. A session does the
// per-photo work once when it opens (light-point detection, the automatic
// centre of light rays, a dispersion's particles, an animation's mesh) and
// then renders any frame, with the option values of each call: a preview
// slider changes a value and renders again without redoing that work.
//
//   Engine engine;
//   OptionValues v(*FindCommand("bokeh"));
//   v.Set("amount", "1");
//   Inputs in;
//   in.images["guide"] = depth.View();
//   std::unique_ptr<Session> s;
//   Status st = OpenSession(engine, v, photo.View(), in, s);
//   Image frame(s->width(), s->height(), 4);
//   if (st.ok()) st = s->Render(v, 0, 1, frame.View());   // a still
//
// Every option value is turned into the library's records here (automatic
// defaults, units, shapes), so every front end gets the pixels the tool
// writes.
//
// Threads: a session is used from one thread at a time. Sessions of
// different engines may render at once; an engine's effects are created and
// deleted when sessions open and close, which must not overlap with any other
// call into that engine (one engine per thread is the simple way).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <korvane/core/LightPoints.h>
#include <korvane/core/ResultCode.h>
#include <korvane/engine/KorvaneEngine.h>

#include "Flows.h"
#include "Image.h"
#include "OptionValues.h"

namespace KorvaneFrontend {

// How a request ended, the same for every front end.
struct Status {
  enum Kind { kOk = 0, kFailed = 1, kUsage = 2 };  // also the tool's exit codes
  Kind kind = kOk;
  int32_t code = S_OK;  // the library's result code when a call failed
  // One line. "{input}" stands where a front end names the input the message
  // is about, e.g. "guide depth.png" for the tool and "guide" for Python.
  std::string message;
  std::string input;  // the option naming that input, or empty

  bool ok() const { return kind == kOk; }
  // The message with {input} replaced.
  std::string Text(const std::string& input_name) const;

  static Status Failed(std::string message, int32_t code = S_OK, std::string input = "");
  static Status Usage(std::string message);
  // A failed library call: "<what> failed: E_INVALIDARG (0x80070057)", or
  // "out of memory" for E_OUTOFMEMORY whatever the call.
  static Status Call(const std::string& what, int32_t code);
};

// "E_INVALIDARG (0x80070057)".
std::string CodeText(int32_t code);

// The library's engine, with typed effect creation.
class Engine {
 public:
  Engine();
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;
  KorvaneEngine* get() const { return m_engine; }

  // An effect of `type` as interface T, given back when the handle goes.
  template <class T>
  using Handle = std::unique_ptr<T, std::function<void(T*)>>;
  template <class T>
  Status Create(int32_t type, Handle<T>& out) {
    void* p = nullptr;
    const int32_t hr = m_engine ? m_engine->CreateEffect(&p, type) : E_FAIL;
    if (hr < 0 || !p) return Status::Call("creating effect type " + std::to_string(type), hr < 0 ? hr : E_NOTIMPL);
    KorvaneEngine* engine = m_engine;
    out = Handle<T>(static_cast<T*>(p), [engine, type](T* fx) {
      void* q = fx;
      engine->DeleteEffect(&q, type);
    });
    return Status();
  }

 private:
  KorvaneEngine* m_engine = nullptr;
};

// The inputs beside the photo, by option name: gray images ("guide", "mask",
// "still"), shape images where the option names no built-in shape ("shape",
// "manual-shape", BGRA), animate's flows and sparkle's placed glints. Views
// must stay valid while the session lives.
struct Inputs {
  std::map<std::string, ImageView> images;
  std::vector<FlowLine> flows;
  std::vector<PlacedSparkle> sparkles;
};

class Session {
 public:
  virtual ~Session() = default;

  // Size of each frame: the photo's, or the --roi rectangle's.
  int32_t width() const { return m_width; }
  int32_t height() const { return m_height; }

  // Renders frame `index` of a loop of `count` frames (1: a still) into
  // `out`, BGRA of width() x height(). `values` may differ from those the
  // session was opened with; what they change is prepared again. Checks
  // the frame numbers, `out` and the option combination first.
  Status Render(const OptionValues& values, int32_t index, int32_t count, const ImageView& out);

  // A few words on what the last render did ("screen", "radial from 40,12").
  virtual std::string Summary() const { return m_summary; }
  // Whether the frames form a loop, frame `count` leading back into frame 0
  // (dispersion without --loop plays once).
  virtual bool Loops(const OptionValues&) const { return true; }
  // Things worth telling the user before rendering (flows outside the photo...).
  const std::vector<std::string>& Warnings() const { return m_warnings; }
  // The light points bokeh and sparkle detected; false for other commands.
  virtual bool LightPoints(Korvane::LightPointSummary&, std::vector<Korvane::LightPointInfo>&) const { return false; }

 protected:
  // The command's own rendering, called by Render once the checks passed.
  virtual Status Draw(const OptionValues& values, int32_t index, int32_t count, const ImageView& out) = 0;

  int32_t m_width = 0, m_height = 0;
  std::string m_summary;
  std::vector<std::string> m_warnings;
};

// Opens a session of `values.cmd()`'s command on `photo` (BGRA). The
// options are checked against the photo and the inputs first: a bad
// combination is a Usage status, a value this photo cannot take or an input
// of the wrong size a Failed one, as the tool reports them.
Status OpenSession(Engine& engine, const OptionValues& values, const ImageView& photo, const Inputs& inputs,
                   std::unique_ptr<Session>& session);

// The checks OpenSession starts with that need no photo, for a front end
// that wants to refuse a command line before reading any file: a loop switch
// in a render of fewer than two frames, and an option set away from its
// default where it takes no effect (--direction with radial rays, --hue of
// glow without --tint) and a --frame past the last of `frames` are usage
// errors. Render makes them too.
Status CheckCombination(const OptionValues& values, int32_t frames);

// The same for options that take effect only with an input beside the photo
// (--stretch-guide without a guide); OpenSession checks it.
Status CheckInputsUsed(const OptionValues& values, const Inputs& inputs);

// How many frames a render of `values` has when the front end leaves it to
// the table: --frames when given (or with --frame); otherwise its default
// (48) where the picture moves, which is always in animate and disperse and
// with a loop switch on (--twinkle, --spin, --sway, --cycle-hue) elsewhere,
// and 1, a still, where nothing would move. 1 for the still commands.
int32_t FrameCount(const OptionValues& values);

// Whether the picture changes from frame to frame: always in animate and
// disperse, elsewhere with a loop switch on. False for the still commands.
// A front end that passes every value (GIMP) renders a still when false.
bool PictureMoves(const OptionValues& values);

}  // namespace KorvaneFrontend
