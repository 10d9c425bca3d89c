#!/bin/sh
# Runs the bundle benchmark over six folders of generated log text (three
# gathered by a file pattern, three by a folder copy):
#
# - whole `keelcli -dst` runs beside `cp -r` of the same folders plus
#   `zip -9 -r -q` of the copy, in alternating pairs (keelcli, then by hand,
#   and again), each pair with its wall-time ratio, then the median ratio;
# - the zip stage alone on the same tree: CZip::Zip with one worker thread
#   and with all of them (one per core, as keelcli zips), and the sequential
#   path for reference, with the speed-up of all workers over one;
# - peak resident size of everything measured.
#
# The load average of the machine (from /proc/loadavg) stands beside every
# figure, as a shared machine skews them. The bundle of the last run is
# tested with `unzip -tq`.
#
# Usage: bench/bundle_bench.sh [build-folder] [work-base] [megabytes] [seed] [pairs]
# Defaults: ../build, <build-folder>/bench-work, 300, 20240311, 3. The build
# folder must have been configured with -DKEEL_BENCH=ON and the targets
# keelcli, bench_bundle_bench_data and bench_zip_bench_stage built (and
# bench_bundle_bench_measure where GNU time is missing). The tree, an install
# folder with a copy of keelcli and its instruction files, the copies and
# the archives live in a fresh folder below work-base that is removed at the
# end.
#
# keelcli runs in a private mount namespace whose /tmp is a folder of the
# work area, on the same disk as the copy of cp(1), so that its working
# folder neither meets that of another run nor stays behind; work-base must
# then lie outside /tmp. Where namespaces are refused, keelcli runs directly
# and the working folder it leaves in /tmp is removed. Both sides start from
# a warm page cache after a sync. keelcli flushes its bundle to disk before
# it renames it onto its path (so that a bundle that is there is whole);
# zip(1) does not sync its archive, nor is it synced for it. Times and
# peak sizes come from GNU time (/usr/bin/time, else `time` on the PATH),
# else from bench_bundle_bench_measure, a small wrapper around wait4.
# Exits with 1 when a side or the zip stage fails, or the bundle does not
# test clean or lacks files. The ratios are reported, not enforced.
# shellcheck disable=SC2016,SC2317 # sh -c texts read their own "$1"; cleanup runs from a trap
set -eu
here=$(cd "$(dirname "$0")" && pwd)
build=${1:-$here/../build}
base=${2:-$build/bench-work}
megabytes=${3:-300}
seed=${4:-20240311}
pairs=${5:-3}

for program in keelcli bench_bundle_bench_data bench_zip_bench_stage; do
  if [ ! -x "$build/$program" ]; then
    echo "missing $build/$program: cmake --build $build --target $program" >&2
    exit 1
  fi
done
for tool in zip unzip; do
  if ! command -v "$tool" >/dev/null 2>&1; then
    echo "$tool(1) is not installed" >&2
    exit 1
  fi
done
for number in "megabytes=$megabytes" "pairs=$pairs"; do
  case ${number#*=} in
    '' | *[!0-9]* | 0)
      echo "${number%%=*} must be a whole number above 0, not \"${number#*=}\"" >&2
      exit 1
      ;;
  esac
done

made_base=""
if [ ! -d "$base" ]; then
  mkdir -p "$base"
  made_base=$base
fi
base=$(cd "$base" && pwd -P)

# The tree, keelcli's working copy and bundle, the copy of cp(1) and its
# archive, the stage's archive, with some slack.
need=$(( (megabytes * 5 + 100) * 1000 ))
free=$(df -Pk "$base" | awk 'NR == 2 { print $4 }')
if [ "$free" -lt "$need" ]; then
  echo "not enough space in $base: need ${need} KiB, have ${free} KiB" >&2
  exit 1
fi

# How one command is measured: `measure <result-file> <command...>` leaves
# "wall-seconds user-seconds system-seconds peak-KiB" as the last line of
# <result-file> and returns the command's status.
gnu_time=""
for candidate in /usr/bin/time "$(command -v time 2>/dev/null || true)"; do
  if [ -n "$candidate" ] && [ -x "$candidate" ] &&
    "$candidate" -f '%e' -o /dev/null true 2>/dev/null; then
    gnu_time=$candidate
    break
  fi
done
if [ -n "$gnu_time" ]; then
  timer=$gnu_time
elif [ -x "$build/bench_bundle_bench_measure" ]; then
  timer="$build/bench_bundle_bench_measure (wait4)"
else
  echo "GNU time is not installed (apt-get install time), nor is" \
    "$build/bench_bundle_bench_measure built: no way to measure peak memory" >&2
  exit 1
fi
measure() {
  result=$1
  shift
  if [ -n "$gnu_time" ]; then
    "$gnu_time" -f '%e %U %S %M' -o "$result" "$@"
  else
    "$build/bench_bundle_bench_measure" "$result" "$@"
  fi
}
# Field $1 (1 wall, 2 user, 3 system, 4 peak KiB) of a result file.
field() { tail -n 1 "$2" | awk -v f="$1" '{ print $f }'; }

work=$(mktemp -d "$base/keel-bundle-bench.XXXXXX")
cleanup() {
  rm -rf "$work"
  if [ -n "$made_base" ]; then rmdir "$made_base" 2>/dev/null || true; fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

tree=$work/tree
install=$work/install
bundle=$work/out/bundle.zip
reference=$work/reference.zip
mkdir -p "$install/xml/config" "$work/out" "$work/copy" "$work/home" "$work/tmp"

isolated=""
if unshare -m sh -c 'mount --bind "$1" /tmp' sh "$work/tmp" 2>/dev/null; then
  case "$work/" in
    /tmp/*)
      echo "work-base $base lies in /tmp, which the private mount namespace hides:" \
        "give a folder outside /tmp" >&2
      exit 1
      ;;
  esac
  isolated=yes
fi

echo "Making $megabytes MB of log text below $work (seed $seed)..."
printf 'Tree: '
"$build/bench_bundle_bench_data" "$tree" "$megabytes" "$seed"
files=$(find "$tree" -type f | wc -l)
input=$(find "$tree" -type f -printf '%s\n' | awk '{ total += $1 } END { printf "%d", total }')

# One instruction file a folder, each with a group of its own that keeps the
# folder's name inside the bundle: a flat folder is gathered by its file
# pattern, a folder with sub-folders by a folder copy.
xml_text() { printf '%s' "$1" | sed -e 's/&/\&amp;/g' -e 's/</\&lt;/g' -e 's/>/\&gt;/g'; }
for folder in "$tree"/*/; do
  name=$(basename "$folder")
  location=$(xml_text "${folder%/}")
  if [ -n "$(find "$folder" -mindepth 1 -type d | head -n 1)" ]; then
    action="<directory_copy_action><action><loc>$location</loc><pattern>*.log</pattern></action></directory_copy_action>"
  else
    action="<file_copy_action><action><loc>$location/*.log</loc></action></file_copy_action>"
  fi
  cat >"$install/xml/config/$name.xml" <<EOF
<?xml version="1.0" encoding="UTF-8"?>
<keelConfig>
  <configure><title>Bench $name</title></configure>
  <fileGroup treeRootName="Bench $name" directoryName="$name">
    <title>Bench $name</title>
    <file id="$name">
      <description>$name logs</description>
      <default>true</default>
      <keel>
        <os opsys="linux">
          $action
        </os>
      </keel>
    </file>
  </fileGroup>
</keelConfig>
EOF
done
cp "$build/keelcli" "$install/keelcli"
chmod 755 "$install/keelcli"

warm() {
  sync
  find "$tree" -type f -exec cat {} + >/dev/null
}

load() { cut -d ' ' -f 1 /proc/loadavg; }

# One whole keelcli run into $bundle; its figures go to $1.
run_keel() {
  rm -f "$bundle"
  if [ -n "$isolated" ]; then
    measure "$1" unshare -m sh -c 'mount --bind "$1" /tmp && shift && exec "$@"' \
      sh "$work/tmp" env -u XDG_CONFIG_HOME "HOME=$work/home" VTC_LOGGING_OUTPUT=STDOUT \
      "$install/keelcli" -dst "$bundle" >"$work/keel.out" 2>"$work/keel.err" || return 1
  else
    before=$(ls -d /tmp/KEEL_Temp_Bundle* 2>/dev/null || true)
    status=0
    measure "$1" env -u XDG_CONFIG_HOME "HOME=$work/home" VTC_LOGGING_OUTPUT=STDOUT \
      "$install/keelcli" -dst "$bundle" >"$work/keel.out" 2>"$work/keel.err" || status=1
    # The working folder keeps the sub-folders of the groups; remove the one
    # that this run made, known by a folder of the tree inside it.
    for folder in /tmp/KEEL_Temp_Bundle*; do
      case "
$before
" in
        *"
$folder
"*) continue ;;
      esac
      if [ -d "$folder/kbench-agent" ]; then rm -rf "$folder"; fi
    done
    [ "$status" -eq 0 ] || return 1
  fi
  grep -q 'KEEL has finished\.\.\. ' "$work/keel.out" && [ -f "$bundle" ]
}

# `cp -r` of the tree, then `zip -9 -r -q` of the copy; figures to $1 and $2.
run_by_hand() {
  rm -rf "$work/copy" "$reference"
  mkdir "$work/copy"
  measure "$1" cp -r "$tree"/kbench-* "$work/copy/" || return 1
  sync
  measure "$2" sh -c 'cd "$1" && exec zip -9 -r -q "$2" .' sh "$work/copy" "$reference"
}

# Sum of fields 2 and 3 (user and system seconds) of a result file.
cpu() { awk -v u="$(field 2 "$1")" -v s="$(field 3 "$1")" 'BEGIN { print u + s }'; }

echo "Timer: $timer"
if [ -n "$isolated" ]; then
  echo "keelcli runs in a private mount namespace in which /tmp is $work/tmp"
else
  echo "private mount namespaces are refused: keelcli runs directly, with the real /tmp"
fi
echo "Cores: $(nproc); load average before the runs: $(cat /proc/loadavg)"
echo
keel_ok=yes
copy_ok=yes
printf '%-6s %-22s %8s %8s %13s %6s\n' pair run seconds "CPU s" "peak RSS MiB" load
: >"$work/ratios"
pair=1
while [ "$pair" -le "$pairs" ]; do
  warm
  keel_load=$(load)
  run_keel "$work/keel.time" || keel_ok=""
  warm
  hand_load=$(load)
  run_by_hand "$work/cp.time" "$work/zip.time" || copy_ok=""
  keel_wall=$(field 1 "$work/keel.time")
  hand_wall=$(awk -v a="$(field 1 "$work/cp.time")" -v b="$(field 1 "$work/zip.time")" \
    'BEGIN { print a + b }')
  hand_cpu=$(awk -v a="$(cpu "$work/cp.time")" -v b="$(cpu "$work/zip.time")" 'BEGIN { print a + b }')
  hand_peak=$(awk -v a="$(field 4 "$work/cp.time")" -v b="$(field 4 "$work/zip.time")" \
    'BEGIN { print (a > b ? a : b) }')
  ratio=$(awk -v a="$keel_wall" -v b="$hand_wall" 'BEGIN { printf "%.3f", (b > 0 ? a / b : 0) }')
  echo "$ratio" >>"$work/ratios"
  awk -v p="$pair" -v w="$keel_wall" -v c="$(cpu "$work/keel.time")" \
    -v m="$(field 4 "$work/keel.time")" -v l="$keel_load" \
    'BEGIN { printf "%-6s %-22s %8.2f %8.2f %13.1f %6s\n", p, "keelcli -dst", w, c, m / 1024, l }'
  awk -v w="$hand_wall" -v c="$hand_cpu" -v m="$hand_peak" -v l="$hand_load" -v r="$ratio" \
    'BEGIN { printf "%-6s %-22s %8.2f %8.2f %13.1f %6s   ratio %.2f\n", "", "cp -r + zip -9 -r -q", w, c, m / 1024, l, r }'
  pair=$((pair + 1))
done
median=$(sort -n "$work/ratios" | awk '{ v[NR] = $1 } END { if (NR % 2) print v[(NR + 1) / 2]; else printf "%.3f\n", (v[NR / 2] + v[NR / 2 + 1]) / 2 }')
echo
echo "wall-time ratio keelcli / (cp -r + zip), median of $pairs pairs: $median (goal: at most 0.6)"

# The zip stage alone, on the tree itself (what keelcli zips is a copy of it
# plus summary.txt). Each run is its own process, so its peak is its own.
echo
echo "Zip stage alone (CZip::Zip of the tree):"
printf '%-22s %8s %8s %13s %11s %6s\n' workers seconds "CPU s" "peak RSS MiB" "archive MB" load
stage_ok=yes
for workers in sequential 1 all; do
  warm
  stage_load=$(load)
  VTC_LOGGING_OUTPUT=STDOUT "$build/bench_zip_bench_stage" "$tree" "$work/stage.zip" \
    "$workers" >"$work/stage.out" || stage_ok=""
  rm -f "$work/stage.zip"
  # shellcheck disable=SC2046 # the five figures become $1 to $5
  set -- $(tail -n 1 "$work/stage.out")
  label=$workers
  if [ "$workers" = all ]; then label="all ($1)"; fi
  awk -v n="$label" -v w="$2" -v c="$3" -v m="$4" -v a="$5" -v l="$stage_load" \
    'BEGIN { printf "%-22s %8.2f %8.2f %13.1f %11.1f %6s\n", n, w, c, m / 1024, a / 1e6, l }'
  case $workers in
    1) one_wall=$2 ;;
    all) all_wall=$2 all_count=$1 ;;
  esac
done
awk -v a="$one_wall" -v b="$all_wall" -v n="$all_count" 'BEGIN {
  s = (b > 0 ? a / b : 0)
  printf "speed-up of %d workers over 1: %.2f (%.2f x N; goal: at least 0.85 x N)\n", n, s, s / n
}'

size_of() { if [ -f "$1" ]; then wc -c <"$1"; else echo 0; fi; }
entries_of() { if [ -f "$1" ]; then unzip -Z1 "$1" | grep -cv '/$' || true; else echo 0; fi; }
bundle_size=$(size_of "$bundle")
reference_size=$(size_of "$reference")
bundle_entries=$(entries_of "$bundle")
reference_entries=$(entries_of "$reference")
echo
awk -v a="$bundle_size" -v b="$reference_size" -v i="$input" -v e="$bundle_entries" \
  -v f="$reference_entries" 'BEGIN {
  printf "bundle %.1f MB (%.1f%%, %d files); cp -r + zip archive %.1f MB (%.1f%%, %d files)\n",
    a / 1e6, 100 * a / i, e, b / 1e6, 100 * b / i, f
}'
echo "input: $files files, $input bytes; the bundle should hold $((files + 1)) files (with summary.txt)"
echo "load average after the runs: $(cat /proc/loadavg)"

status=0
if [ -n "$keel_ok" ] && unzip -tq "$bundle" >/dev/null 2>&1; then
  echo "unzip -tq of the bundle: no errors"
else
  echo "unzip -tq of the bundle: FAILED"
  status=1
fi
if [ "$bundle_entries" -ne $((files + 1)) ]; then
  echo "the bundle holds $bundle_entries files instead of $((files + 1))"
  status=1
fi
if [ -z "$keel_ok" ]; then
  echo "keelcli failed; the end of its output:"
  tail -n 20 "$work/keel.out" "$work/keel.err"
  status=1
fi
if [ -z "$copy_ok" ]; then
  echo "cp -r or zip failed"
  status=1
fi
if [ -z "$stage_ok" ]; then
  echo "the zip stage failed"
  status=1
fi
exit $status
