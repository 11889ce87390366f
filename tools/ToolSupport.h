// What every subcommand needs: the engine, effect creation with readable
// errors, and the messages and checks shared by all of them.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>

#include "core/ResultCode.h"
#include "engine/KorvaneEngine.h"

namespace KorvaneTool {

// Exit codes: 0 success, 1 a file or a render failed, 2 the command line is wrong.
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// Prints "korvane: <message>" on one line of stderr and returns exit code 1.
int Fail(const std::string& message);

// The same for a wrong command line: returns exit code 2.
int Usage(const std::string& message);

// Prints a line of news ("wrote ...") unless --quiet: to stdout, or to stderr
// while stdout carries an image.
void Note(const char* format, ...) __attribute__((format(printf, 1, 2)));
void SetQuiet(bool quiet);
void SetStdoutIsData(bool data);

// A one-line progress bar on stderr, drawn only when stderr is a terminal
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

// "E_INVALIDARG (0x80070057)".
std::string CodeText(int32_t code);

// Fails with "<what> failed: <code>" when code is negative; returns 0 otherwise.
int CheckCode(int32_t code, const std::string& what);

// Refuses to overwrite the input with the output: the output is replaced only
// when it is not the same file as any of the inputs. Returns 0 or an exit code.
int CheckOutputPath(const std::string& output, std::initializer_list<std::string> inputs);
// The same for each of several outputs; the empty ones (not asked for) are skipped.
int CheckOutputPaths(std::initializer_list<std::string> outputs, std::initializer_list<std::string> inputs);

// An effect that is given back to the engine when its handle goes.
template <class T>
using EffectHandle = std::unique_ptr<T, std::function<void(T*)>>;

// One engine for the process, with typed effect creation.
class Engine {
 public:
  Engine();
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  bool ok() const { return m_engine != nullptr; }
  KorvaneEngine* get() const { return m_engine; }

  // Creates an effect of `type` as interface T; nullptr after printing why.
  template <class T>
  T* Create(int32_t type) {
    void* p = nullptr;
    const int32_t hr = m_engine ? m_engine->CreateEffect(&p, type) : E_FAIL;
    if (hr < 0 || !p) {
      Fail("cannot create effect type " + std::to_string(type) + ": " + CodeText(hr < 0 ? hr : E_NOTIMPL));
      return nullptr;
    }
    return static_cast<T*>(p);
  }

  // The same, owned: the effect is deleted however the caller ends. Empty
  // after printing why when it cannot be created.
  template <class T>
  EffectHandle<T> Own(int32_t type) {
    return EffectHandle<T>(Create<T>(type), [this, type](T* fx) {
      void* p = fx;
      m_engine->DeleteEffect(&p, type);
    });
  }

 private:
  KorvaneEngine* m_engine = nullptr;
};

}  // namespace KorvaneTool
