# Runs one program inside the private mount namespace this shell was started
# in (unshare -m): /tmp, /opt and /etc become fresh, empty tmpfs folders, the
# last holding only the given os-release text, so the program neither sees
# nor leaves anything on the host's real folders.
#
# Arguments: scratch cwd trees tmp-options prepare inspect tree-top
#            os-release, then the command line to run. Into `scratch` go the
# program's standard output and error, its exit status, a listing of /tmp
# after it (without `tree-top`, the way to the test trees) and the output of
# the `inspect` shell text. `prepare` is shell text run before the program.
scratch=$1 cwd=$2 trees=$3 tmp_options=$4 prepare=$5 inspect=$6 tree_top=$7 os_release=$8
shift 8

# The folder of the test trees may itself lie below /tmp (a build in a clone
# there): a descriptor held across the mount lets it be bound back at its
# own path inside the fresh /tmp.
exec 9< "$trees" || exit 89
if [ -n "$tmp_options" ]; then
  mount -t tmpfs -o "$tmp_options" tmpfs /tmp || exit 90
else
  mount -t tmpfs tmpfs /tmp || exit 90
fi
case $trees in
  /tmp/*) mkdir -p "$trees" && mount --no-canonicalize --bind /proc/self/fd/9 "$trees" || exit 95 ;;
esac
if [ -d /opt ]; then mount -t tmpfs tmpfs /opt || exit 91; fi
mount -t tmpfs tmpfs /etc || exit 92
printf '%s' "$os_release" > /etc/os-release
eval "$prepare"
cd "$cwd" || exit 93
"$@" > "$scratch/stdout" 2> "$scratch/stderr"
echo $? > "$scratch/status"
ls -A /tmp | grep -v -x -F "$tree_top" > "$scratch/tmp-listing"
{ eval "${inspect:-:}"
} > "$scratch/inspect.txt" 2>&1
