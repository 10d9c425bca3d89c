#!/bin/sh
# Runs the archive benchmark: CZip::Zip (sequential, one worker, one worker
# per core) beside `zip -9 -r -q` on a generated tree, in a temporary folder
# that is removed afterwards. The shape is "mixed" (log-like text in a few
# large and a few thousand small files), "small" (100,000 small files) or
# "single" (one sparse file of zeros; give thousands of megabytes for a
# multi-gigabyte file).
#
# Usage: bench/zip_bench.sh [build-folder] [work-base] [megabytes] [seed] [shape]
# The build folder must have been configured with -DKEEL_BENCH=ON and the
# target bench_zip_bench built.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
build=${1:-$here/../build}
base=${2:-/tmp}
megabytes=${3:-300}
seed=${4:-20240311}
shape=${5:-mixed}
# zip(1) runs in the tree, so the archive's path must not be relative.
base=$(cd "$base" && pwd -P)

program=$build/bench_zip_bench
if [ ! -x "$program" ]; then
  echo "missing $program: cmake --build $build --target bench_zip_bench" >&2
  exit 1
fi
if ! command -v zip >/dev/null 2>&1; then
  echo "zip(1) is not installed" >&2
  exit 1
fi
# The tree and four archives of at most its size, with some slack; a sparse
# file and the archives of zeros take next to nothing.
need=$(( (megabytes * 5 + 100) * 1000 ))
if [ "$shape" = single ]; then need=100000; fi
free=$(df -Pk "$base" | awk 'NR == 2 { print $4 }')
if [ "$free" -lt "$need" ]; then
  echo "not enough space in $base: need ${need} KiB, have ${free} KiB" >&2
  exit 1
fi
VTC_LOGGING_OUTPUT=STDOUT exec "$program" "$base" "$megabytes" "$seed" "$shape"
