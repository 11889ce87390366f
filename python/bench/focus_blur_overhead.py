"""The binding's overhead: a focus blur of a 12-megapixel photo (with a
guide, level 100) through korvane.focus_blur against the same call of the
front-end core in C++ (korvane_python_bench). Each round runs the C++ call
once and then each Python form once, so a pair sees the same load on a
shared machine; the overhead is the median of the rounds' ratios, in wall
time and in the CPU time of all the process's threads (which a loaded
machine disturbs less).

    cmake --build build/release --target korvane_python_bench
    PYTHONPATH=build/release/python python3 python/bench/focus_blur_overhead.py \
        build/release/python/korvane_python_bench [rounds=11]
"""

import statistics
import subprocess
import sys
import time

import numpy as np

import korvane


def main():
    bench = sys.argv[1]
    rounds = int(sys.argv[2]) if len(sys.argv) > 2 else 11
    height, width = 3000, 4000
    y, x = np.mgrid[0:height, 0:width]
    bgra = np.dstack([(x * 7 + y) % 256, (x + y * 3) % 256, (x ^ y) % 256, np.full_like(x, 255)]).astype(np.uint8)
    rgb = np.ascontiguousarray(bgra[..., 2::-1])
    guide = (x * 255 // width).astype(np.uint8)
    del x, y
    fx = korvane.FocusBlur(bgra, order="bgra", guide=guide, level=100)
    forms = {
        "function, bgra": lambda: korvane.focus_blur(bgra, order="bgra", guide=guide, level=100),
        "function, rgb": lambda: korvane.focus_blur(rgb, guide=guide, level=100),
        "object render, bgra": fx.render,
    }
    rows = []
    for _ in range(rounds):
        line = subprocess.run([bench, "1"], capture_output=True, text=True, check=True).stdout.split()
        row = {"C++ call": (float(line[0]), float(line[2])), "C++ render": (float(line[1]), None)}
        for name, call in forms.items():
            start, cpu = time.perf_counter(), time.process_time()
            call()
            row[name] = ((time.perf_counter() - start) * 1000, (time.process_time() - cpu) * 1000)
        rows.append(row)
    for name in rows[0]:
        wall = statistics.median(r[name][0] for r in rows)
        cpu = "" if rows[0][name][1] is None else f", CPU {statistics.median(r[name][1] for r in rows):7.1f} ms"
        print(f"{name:20} median wall {wall:7.1f} ms{cpu}  ({rounds} runs)")
    for name in forms:
        base = "C++ render" if name.startswith("object") else "C++ call"
        wall = statistics.median(r[name][0] / r[base][0] for r in rows)
        line = f"{name} against {base}: wall {100 * (wall - 1):+.1f} %"
        if rows[0][base][1] is not None:
            line += f", CPU {100 * (statistics.median(r[name][1] / r[base][1] for r in rows) - 1):+.1f} %"
        print(line)


if __name__ == "__main__":
    main()
