#!/usr/bin/env bash
# Builds the release binary and runs every benchmark; prints a markdown
# report for docs/benchmarks.md.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DTOVEL_TESTS=OFF >/dev/null
cmake --build build-bench -j"$(nproc)" >/dev/null
echo "Machine: $(nproc) cores, $(uname -sr), $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | xargs)"
echo
python3 bench/pty_bench.py build-bench/tovel-ptyd --rounds "${ROUNDS:-3}"
echo
bench/serve_bench.sh build-bench/tovel-ptyd "${ROUNDS:-3}"
