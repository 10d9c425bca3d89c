#!/bin/sh
# Runs the copy benchmark: helperUtil::fileCopy beside cp(1) on one large file
# and on many small files, in a temporary folder that is removed afterwards.
#
# Usage: bench/file_copy_bench.sh [build-folder] [work-base] [large-MiB] [small-count] [rounds]
# The build folder must have been configured with -DKEEL_BENCH=ON and the
# target bench_file_copy_bench built.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
build=${1:-$here/../build}
base=${2:-/tmp}
large=${3:-1024}
count=${4:-10000}
rounds=${5:-3}

program=$build/bench_file_copy_bench
if [ ! -x "$program" ]; then
  echo "missing $program: cmake --build $build --target bench_file_copy_bench" >&2
  exit 1
fi
# Space for the source and one copy of the large file, with some slack.
need=$(( (large * 2 + 200) * 1024 ))
free=$(df -Pk "$base" | awk 'NR == 2 { print $4 }')
if [ "$free" -lt "$need" ]; then
  echo "not enough space in $base: need ${need} KiB, have ${free} KiB" >&2
  exit 1
fi
exec "$program" "$base" "$large" "$count" "$rounds"
