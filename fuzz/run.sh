#!/usr/bin/env bash
# Builds the fuzz targets with clang (ASan + UBSan) and runs each for a bounded
# time from the seed corpus. Any crash, leak, timeout or sanitizer report
# stops with non-zero status; the input that caused it is left in build/fuzz.
#   fuzz/run.sh [seconds per target, default 30] [target ...]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(flow_file delaunay_points effect_records image_read)

if ! command -v clang++ > /dev/null; then
  echo "fuzz: clang++ not found, targets not built"
  exit 0
fi
cmake -S fuzz -B build/fuzz -DCMAKE_CXX_COMPILER=clang++ > /dev/null
cmake --build build/fuzz -j"$(nproc)"
for t in "${targets[@]}"; do
  if [ ! -x "build/fuzz/fuzz_$t" ]; then
    echo "fuzz: fuzz_$t not built (its libraries are missing), skipped"
    continue
  fi
  echo "== fuzz_$t, ${seconds} s"
  mkdir -p "build/fuzz/corpus/$t" "build/fuzz/findings/$t"
  # New inputs go to build/fuzz/corpus; the seeds in the tree stay as they are.
  (cd "build/fuzz/findings/$t" && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
    "../../fuzz_$t" "../../corpus/$t" "../../../../fuzz/corpus/$t" \
    -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=16384 -print_final_stats=1 2>&1 |
    grep -E "^(stat::number_of_executed_units|==|SUMMARY|INFO: Seed)|ERROR|Test unit written|runtime error" || true)
  if ls "build/fuzz/findings/$t" | grep -qE "^(crash|leak|timeout|oom)-"; then
    echo "fuzz_$t found a failing input: build/fuzz/findings/$t"
    exit 1
  fi
done
