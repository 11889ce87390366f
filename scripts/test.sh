#!/usr/bin/env bash
# Builds and runs every test three ways: an optimised build; an
# AddressSanitizer + UndefinedBehaviorSanitizer build (both with the Python
# package's pytest suite, which ctest runs); and the worker pool and thread
# adapter under ThreadSanitizer. Then runs each fuzz target briefly.
# Any failure stops with non-zero status.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
jobs=$(nproc)
# Sanitizer builds at -O1 with line tables only: reports still name file and
# line, and the build takes about half as long as at -O2 with full debug
# information (the tool's header-only option parser dominates it).
san_flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1")

echo "== optimised build"
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release > /dev/null
cmake --build build/release -j"$jobs"
(cd build/release && ctest -j"$jobs" --output-on-failure)

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
cmake -S . -B build/asan "${san_flags[@]}" -DKORVANE_SANITIZE="address;undefined" \
  -DKORVANE_BUILD_BENCH=OFF -DKORVANE_BUILD_PYTHON=ON > /dev/null
cmake --build build/asan -j"$jobs"
(cd build/asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest -j"$jobs" --output-on-failure)

echo "== ThreadSanitizer: worker pool, thread adapter, one engine shared by host threads"
cmake -S . -B build/tsan "${san_flags[@]}" -DKORVANE_SANITIZE=thread \
  -DKORVANE_BUILD_BENCH=OFF -DKORVANE_BUILD_TOOLS=OFF > /dev/null
cmake --build build/tsan -j"$jobs" --target test_core test_engine
(cd build/tsan && TSAN_OPTIONS=halt_on_error=1 ctest -j"$jobs" --output-on-failure \
  -R '^(ThreadPool|ThreadAdapter|SegmentBlock|EngineThreads)\.')

echo "== Fuzz targets (clang, AddressSanitizer + UndefinedBehaviorSanitizer), 30 s each"
bash fuzz/run.sh 30
