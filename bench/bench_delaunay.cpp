// Delaunay triangulation of uniform random points in a 4096-pixel square, with
// CGAL's Delaunay_triangulation_2 and OpenCV's Subdiv2D on the same points.
#include <benchmark/benchmark.h>

#include <cmath>
#include <map>
#include <random>
#include <vector>

#include "BenchSupport.h"
#include "effects/animation/Delaunay.h"

#if KORVANE_BENCH_CGAL
#include <CGAL/Delaunay_triangulation_2.h>
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#endif
#if KORVANE_BENCH_OPENCV
#include <opencv2/imgproc.hpp>
#endif

namespace {

// Interleaved x, y; the same set for every library at a given count.
const std::vector<float>& UniformPoints(size_t n) {
  static std::map<size_t, std::vector<float>> cache;
  std::vector<float>& p = cache[n];
  if (p.empty()) {
    std::mt19937 rng(2024);
    std::uniform_real_distribution<float> u(0.0f, 4096.0f);
    p.resize(2 * n);
    for (float& v : p) v = u(rng);
  }
  return p;
}

// Flow-like sets: `n` points on 40 nearly straight strokes across the
// square, one pixel apart, as long strokes are resampled. Sweep-hull
// insertion meets long stretches of almost collinear hull here.
const std::vector<float>& StrokePoints(size_t n) {
  static std::map<size_t, std::vector<float>> cache;
  std::vector<float>& p = cache[n];
  if (p.empty()) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    const size_t per_stroke = n / 40;
    for (int s = 0; s < 40; ++s) {
      double x = 4096 * u(rng), y = 4096 * u(rng), a = 6.2831853 * u(rng);
      const double bend = (u(rng) - 0.5) * 2e-4;
      for (size_t i = 0; i < per_stroke; ++i) {
        p.push_back(static_cast<float>(x));
        p.push_back(static_cast<float>(y));
        x += std::cos(a);
        y += std::sin(a);
        a += bend;
        if (x < 0 || y < 0 || x > 4096 || y > 4096) a += 3.14159265;  // turn back at the border
      }
    }
  }
  return p;
}

const std::vector<float>& PointsFor(const benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  return state.range(1) ? StrokePoints(n) : UniformPoints(n);
}

void BM_Korvane(benchmark::State& state) {
  const auto& pts = PointsFor(state);
  Korvane::Delaunay mesh;
  for (auto _ : state) {
    if (mesh.Triangulate(pts.data(), static_cast<uint32_t>(pts.size() / 2)) != S_OK) {
      state.SkipWithError("Triangulate failed");
      return;
    }
    benchmark::DoNotOptimize(mesh.GetTriangleCount());
  }
  state.counters["triangles"] = mesh.GetTriangleCount();
}
BENCHMARK(BM_Korvane)->Name("korvane/delaunay_uniform_100k")->Args({100000, 0})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Korvane)->Name("korvane/delaunay_uniform_1m")->Args({1000000, 0})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Korvane)->Name("korvane/delaunay_strokes_160k")->Args({160000, 1})->Unit(benchmark::kMillisecond);

#if KORVANE_BENCH_CGAL
void BM_Cgal(benchmark::State& state) {
  using Kernel = CGAL::Exact_predicates_inexact_constructions_kernel;
  using Triangulation = CGAL::Delaunay_triangulation_2<Kernel>;
  const auto& pts = PointsFor(state);
  std::vector<Kernel::Point_2> input;
  input.reserve(pts.size() / 2);
  for (size_t i = 0; i < pts.size(); i += 2) input.emplace_back(pts[i], pts[i + 1]);
  size_t faces = 0;
  for (auto _ : state) {
    Triangulation t;
    t.insert(input.begin(), input.end());  // the range form sorts spatially first
    faces = t.number_of_faces();
    benchmark::DoNotOptimize(faces);
  }
  state.counters["triangles"] = static_cast<double>(faces);
}
BENCHMARK(BM_Cgal)->Name("cgal/delaunay_uniform_100k")->Args({100000, 0})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Cgal)->Name("cgal/delaunay_uniform_1m")->Args({1000000, 0})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Cgal)->Name("cgal/delaunay_strokes_160k")->Args({160000, 1})->Unit(benchmark::kMillisecond);
#endif

#if KORVANE_BENCH_OPENCV
void BM_Subdiv2D(benchmark::State& state) {
  const auto& pts = UniformPoints(static_cast<size_t>(state.range(0)));
  std::vector<cv::Point2f> input;
  input.reserve(pts.size() / 2);
  for (size_t i = 0; i < pts.size(); i += 2) input.emplace_back(pts[i], pts[i + 1]);
  std::vector<cv::Vec6f> triangles;
  for (auto _ : state) {
    cv::Subdiv2D subdiv(cv::Rect(0, 0, 4096, 4096));
    subdiv.insert(input);
    subdiv.getTriangleList(triangles);
    benchmark::DoNotOptimize(triangles.data());
  }
  state.counters["triangles"] = static_cast<double>(triangles.size());
}
// Only the smaller set: Subdiv2D's point location walk makes the million-point
// run take several minutes.
BENCHMARK(BM_Subdiv2D)->Name("opencv/subdiv2d_uniform_100k")->Arg(100000)->Unit(benchmark::kMillisecond);
#endif

}  // namespace

BENCHMARK_MAIN();
