// Times a focus blur of a photo through the front-end core, the way the
// Python package calls it: an engine, a session opened on the photo and its
// guide, one still rendered into a new BGRA frame, all released again. Prints one line per run:
// "<whole call ms> <render ms> <whole call CPU ms>", the CPU time of all the
// process's threads (steadier than the wall clock on a loaded machine).
//
//   korvane_python_bench [runs=5] [width=4000] [height=3000]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "frontend/Session.h"

using namespace KorvaneFrontend;
using Clock = std::chrono::steady_clock;

static double Ms(Clock::time_point a, Clock::time_point b) {
  return std::chrono::duration<double, std::milli>(b - a).count();
}

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::atoi(argv[1]) : 5;
  const int width = argc > 2 ? std::atoi(argv[2]) : 4000, height = argc > 3 ? std::atoi(argv[3]) : 3000;
  Image photo(width, height, 4, 255), guide(width, height, 1);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      uint8_t* p = photo.at(x, y);
      p[0] = static_cast<uint8_t>(x * 7 + y), p[1] = static_cast<uint8_t>(x + y * 3), p[2] = static_cast<uint8_t>(x ^ y);
      *guide.at(x, y) = static_cast<uint8_t>(x * 255 / width);
    }
  OptionValues values(*FindCommand("focus-blur"));
  if (!values.Set("level", "100").empty()) return 2;
  for (int run = 0; run < runs; ++run) {
    const std::clock_t cpu0 = std::clock();
    const Clock::time_point t0 = Clock::now();
    Clock::time_point t1, t2;
    {
      Engine engine;
      Inputs inputs;
      inputs.images["guide"] = guide.View();
      std::unique_ptr<Session> session;
      Status s = OpenSession(engine, values, photo.View(), inputs, session);
      Image frame(session ? session->width() : 0, session ? session->height() : 0, 4);
      t1 = Clock::now();
      if (s.ok()) s = session->Render(values, 0, 1, frame.View());
      t2 = Clock::now();
      if (!s.ok()) {
        std::fprintf(stderr, "%s\n", s.Text("").c_str());
        return 1;
      }
    }
    const Clock::time_point t3 = Clock::now();
    std::printf("%.2f %.2f %.2f\n", Ms(t0, t3), Ms(t1, t2), 1000.0 * (std::clock() - cpu0) / CLOCKS_PER_SEC);
    std::fflush(stdout);
  }
  return 0;
}
