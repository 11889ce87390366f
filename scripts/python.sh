#!/usr/bin/env bash
# Sets up the korvane Python package: installs the Debian packages it needs,
# builds it (optimised, in build/python, without the tests and their
# packages) for the first python3 that can import numpy, and installs it into
# that interpreter's user site directory (~/.local/lib/python3.X/site-packages),
# which every Python 3.X of this user reads. Then shows which python3
# imports it.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh python
cmake -S . -B build/python -DCMAKE_BUILD_TYPE=Release -DKORVANE_BUILD_TESTS=OFF -DKORVANE_BUILD_BENCH=OFF > /dev/null
cmake --build build/python -j"$(nproc)" --target korvane_python_package
python=$(sed -n 's/^Python3_EXECUTABLE:[A-Z]*=//p' build/python/CMakeCache.txt)
cmake --install build/python --component python --prefix "$("$python" -m site --user-base)"

path_python=$(command -v python3 || true)
[ "$path_python" = "$python" ] && path_python=""
for candidate in "$python" $path_python; do
  if version=$("$candidate" -c "import korvane; print(korvane.__version__)" 2>/dev/null); then
    echo "$candidate imports korvane $version"
  else
    echo "$candidate cannot import korvane (it is built for $("$python" -c 'import sys; print("Python %d.%d" % sys.version_info[:2])'))"
  fi
done
