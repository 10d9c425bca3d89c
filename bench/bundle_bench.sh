#!/bin/sh
# Runs the bundle benchmark: one whole `keelcli -dst` run over six folders of
# generated log text (three gathered by a file pattern, three by a folder
# copy), beside `cp -r` of the same folders plus `zip -9 -r -q` of the copy.
# Prints wall time, processor time and peak resident size of each side, the
# ratio of the wall times and the sizes of both archives, and tests the
# bundle with `unzip -tq`.
#
# Usage: bench/bundle_bench.sh [build-folder] [work-base] [megabytes] [seed]
# Defaults: ../build, <build-folder>/bench-work, 300, 20240311. The build
# folder must have been configured with -DKEEL_BENCH=ON and the targets
# keelcli and bench_bundle_bench_data built (and bench_bundle_bench_measure
# where GNU time is missing). The tree, an install folder with a copy of
# keelcli and its instruction files, the copies and both archives live in a
# fresh folder below work-base that is removed at the end.
#
# keelcli runs in a private mount namespace whose /tmp is a folder of the
# work area, on the same disk as the copy of cp(1), so that its working
# folder neither meets that of another run nor stays behind; work-base must
# then lie outside /tmp. Where namespaces are refused, keelcli runs directly
# and the working folder it leaves in /tmp is removed. Both sides start from
# a warm page cache after a sync, and neither syncs its output. Times and
# peak sizes come from GNU time (/usr/bin/time, else `time` on the PATH),
# else from bench_bundle_bench_measure, a small wrapper around wait4.
# Exits with 1 when a side fails, or the bundle does not test clean or lacks
# files.
# shellcheck disable=SC2016,SC2317 # sh -c texts read their own "$1"; cleanup runs from a trap
set -eu
here=$(cd "$(dirname "$0")" && pwd)
build=${1:-$here/../build}
base=${2:-$build/bench-work}
megabytes=${3:-300}
seed=${4:-20240311}

for program in keelcli bench_bundle_bench_data; do
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
case $megabytes in
  '' | *[!0-9]* | 0)
    echo "megabytes must be a whole number above 0, not \"$megabytes\"" >&2
    exit 1
    ;;
esac

made_base=""
if [ ! -d "$base" ]; then
  mkdir -p "$base"
  made_base=$base
fi
base=$(cd "$base" && pwd -P)

# The tree, keelcli's working copy and bundle, the copy of cp(1) and its
# archive, with some slack.
need=$(( (megabytes * 4 + 100) * 1000 ))
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
leftovers=""
cleanup() {
  rm -rf "$work"
  for folder in $leftovers; do rm -rf "$folder"; done
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

echo "Timer: $timer"
keel_ok=yes
warm
if [ -n "$isolated" ]; then
  echo "keelcli runs in a private mount namespace in which /tmp is $work/tmp"
  measure "$work/keel.time" unshare -m sh -c 'mount --bind "$1" /tmp && shift && exec "$@"' \
    sh "$work/tmp" env -u XDG_CONFIG_HOME "HOME=$work/home" VTC_LOGGING_OUTPUT=STDOUT \
    "$install/keelcli" -dst "$bundle" >"$work/keel.out" 2>"$work/keel.err" || keel_ok=""
else
  echo "private mount namespaces are refused: keelcli runs directly, with the real /tmp"
  before=$(ls -d /tmp/KEEL_Temp_Bundle* 2>/dev/null || true)
  measure "$work/keel.time" env -u XDG_CONFIG_HOME "HOME=$work/home" VTC_LOGGING_OUTPUT=STDOUT \
    "$install/keelcli" -dst "$bundle" >"$work/keel.out" 2>"$work/keel.err" || keel_ok=""
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
    if [ -d "$folder/kbench-agent" ]; then leftovers="$leftovers $folder"; fi
  done
fi
if ! grep -q 'KEEL has finished\.\.\. ' "$work/keel.out" || [ ! -f "$bundle" ]; then
  keel_ok=""
fi

copy_ok=yes
warm
measure "$work/cp.time" cp -r "$tree"/kbench-* "$work/copy/" || copy_ok=""
sync
measure "$work/zip.time" sh -c 'cd "$1" && exec zip -9 -r -q "$2" .' sh "$work/copy" "$reference" ||
  copy_ok=""

size_of() { if [ -f "$1" ]; then wc -c <"$1"; else echo 0; fi; }
entries_of() { if [ -f "$1" ]; then unzip -Z1 "$1" | grep -cv '/$' || true; else echo 0; fi; }
bundle_size=$(size_of "$bundle")
reference_size=$(size_of "$reference")
bundle_entries=$(entries_of "$bundle")
reference_entries=$(entries_of "$reference")

echo
printf '%-22s %8s %8s %13s %11s %7s %8s\n' run seconds "CPU s" "peak RSS MiB" "archive MB" ratio files
row() {
  # name wall cpu peak-KiB [archive-bytes entries] [FAILED]
  if [ -n "${5:-}" ]; then
    awk -v n="$1" -v w="$2" -v c="$3" -v p="$4" -v a="$5" -v i="$input" -v e="$6" -v f="${7:-}" \
      'BEGIN { printf "%-22s %8.2f %8.2f %13.1f %11.1f %6.1f%% %8d%s\n", n, w, c, p / 1024, a / 1e6, 100 * a / i, e, f }'
  else
    awk -v n="$1" -v w="$2" -v c="$3" -v p="$4" \
      'BEGIN { printf "%-22s %8.2f %8.2f %13.1f\n", n, w, c, p / 1024 }'
  fi
}
keel_wall=$(field 1 "$work/keel.time")
keel_cpu=$(awk -v u="$(field 2 "$work/keel.time")" -v s="$(field 3 "$work/keel.time")" 'BEGIN { print u + s }')
cp_wall=$(field 1 "$work/cp.time")
zip_wall=$(field 1 "$work/zip.time")
cp_cpu=$(awk -v u="$(field 2 "$work/cp.time")" -v s="$(field 3 "$work/cp.time")" 'BEGIN { print u + s }')
zip_cpu=$(awk -v u="$(field 2 "$work/zip.time")" -v s="$(field 3 "$work/zip.time")" 'BEGIN { print u + s }')
cp_peak=$(field 4 "$work/cp.time")
zip_peak=$(field 4 "$work/zip.time")
both_wall=$(awk -v a="$cp_wall" -v b="$zip_wall" 'BEGIN { print a + b }')
both_cpu=$(awk -v a="$cp_cpu" -v b="$zip_cpu" 'BEGIN { print a + b }')
both_peak=$(awk -v a="$cp_peak" -v b="$zip_peak" 'BEGIN { print (a > b ? a : b) }')
row "keelcli -dst" "$keel_wall" "$keel_cpu" "$(field 4 "$work/keel.time")" \
  "$bundle_size" "$bundle_entries" "$([ -n "$keel_ok" ] || echo '  FAILED')"
row "cp -r + zip -9 -r -q" "$both_wall" "$both_cpu" "$both_peak" \
  "$reference_size" "$reference_entries" "$([ -n "$copy_ok" ] || echo '  FAILED')"
row "  cp -r" "$cp_wall" "$cp_cpu" "$cp_peak"
row "  zip -9 -r -q" "$zip_wall" "$zip_cpu" "$zip_peak"
echo
awk -v a="$keel_wall" -v b="$both_wall" \
  'BEGIN { printf "wall-time ratio keelcli / (cp -r + zip): %.2f\n", (b > 0 ? a / b : 0) }'
# Processor time varies less than wall time on a loaded machine.
awk -v a="$keel_cpu" -v b="$both_cpu" \
  'BEGIN { printf "processor-time ratio keelcli / (cp -r + zip): %.2f\n", (b > 0 ? a / b : 0) }'
echo "input: $files files, $input bytes; the bundle should hold $((files + 1)) files (with summary.txt)"

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
exit $status
