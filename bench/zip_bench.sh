#!/bin/sh
# Runs the archive benchmark: CZip::Zip beside `zip -9 -r -q` on a generated
# tree of log-like text, in a temporary folder that is removed afterwards.
#
# Usage: bench/zip_bench.sh [build-folder] [work-base] [megabytes] [seed]
# The build folder must have been configured with -DKEEL_BENCH=ON and the
# target bench_zip_bench built.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
build=${1:-$here/../build}
base=${2:-/tmp}
megabytes=${3:-300}
seed=${4:-20240311}

program=$build/bench_zip_bench
if [ ! -x "$program" ]; then
  echo "missing $program: cmake --build $build --target bench_zip_bench" >&2
  exit 1
fi
if ! command -v zip >/dev/null 2>&1; then
  echo "zip(1) is not installed" >&2
  exit 1
fi
# The tree and two archives of at most its size, with some slack.
need=$(( (megabytes * 2 + 100) * 1000 ))
free=$(df -Pk "$base" | awk 'NR == 2 { print $4 }')
if [ "$free" -lt "$need" ]; then
  echo "not enough space in $base: need ${need} KiB, have ${free} KiB" >&2
  exit 1
fi
VTC_LOGGING_OUTPUT=STDOUT exec "$program" "$base" "$megabytes" "$seed"
