#!/usr/bin/env bash
# Measures the copy engine against `cp -a` and `rsync -a` on the same generated trees, in one
# run, and prints wall-time ratios (qlcopy / peer; below 1.00 means qlcopy is faster) and the
# engine's peak memory.
#
# Trees: "small" (many small files), "large" (a few large files), "mix" (both). For each tree:
#   initial      a copy into an empty destination: qlcopy, cp -a, rsync -a
#   no-change    an update with nothing to do:     qlcopy --delete, cp -au, rsync -a --delete
#   1%-changed   1% of the files rewritten:        the same three commands
# Every figure is the median of --repeats runs, each tool in turn, with `sync` before each run.
# Initial copies go onto a new, empty ext4 filesystem per run (as root; a plain folder elsewhere).
# cp -au is only a reference for updates (it cannot delete); the update target is rsync.
#
# Usage: bench/engine_vs_peers.sh [--work DIR] [--repeats N] [--scale F] [--memory-files N] [--build DIR]
#   --work DIR          where the trees go (default /tmp/qlcopy-bench; needs a few GB)
#   --scale F           multiplies the tree sizes (default 1)
#   --memory-files N    also copy a tree of N tiny files and report qlcopy's peak memory
#   --build DIR         a configured release build directory (default build/release; built if missing)
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
work=/tmp/qlcopy-bench
repeats=3
scale=1
memory_files=0
build="$root/build/release"
while [ $# -gt 0 ]; do
  case "$1" in
    --work) work="$2"; shift 2 ;;
    --repeats) repeats="$2"; shift 2 ;;
    --scale) scale="$2"; shift 2 ;;
    --memory-files) memory_files="$2"; shift 2 ;;
    --build) build="$2"; shift 2 ;;
    -h|--help) sed -n '2,20p' "$0"; exit 0 ;;
    *) echo "engine_vs_peers: unknown argument $1" >&2; exit 2 ;;
  esac
done

for tool in rsync cp python3 /usr/bin/time; do
  command -v "$tool" >/dev/null || { echo "engine_vs_peers: $tool is needed" >&2; exit 1; }
done

qlcopy="$build/qlcopy/qlcopy"
if [ ! -x "$qlcopy" ] || [ "${QLCOPY_BENCH_REBUILD:-1}" = 1 ]; then
  echo "engine_vs_peers: building a release qlcopy in $build" >&2
  if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQL_SANITIZE=OFF >/dev/null
  fi
  cmake --build "$build" --target qlcopy -j 2 >/dev/null
fi

mkdir -p "$work"
log="$work/bench.log"
: > "$log"

# generate KIND DIR SEED: writes a tree deterministically.
generate() {
  python3 - "$1" "$2" "$3" "$scale" <<'PY'
import os, random, sys
kind, top, seed, scale = sys.argv[1], sys.argv[2], int(sys.argv[3]), float(sys.argv[4])
rng = random.Random(seed)
block = os.urandom(1 << 20)
def write(path, size):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        left = size
        while left > 0:
            n = min(left, len(block))
            off = rng.randrange(0, len(block) - n + 1)
            f.write(block[off:off + n])
            left -= n
def small(count, prefix):
    for i in range(count):
        d = os.path.join(top, prefix, "d%03d" % (i % 300), "e%02d" % (i % 7))
        write(os.path.join(d, "f%06d.txt" % i), rng.randint(200, 12000))
if kind == "small":
    small(int(30000 * scale), "small")
elif kind == "large":
    for i in range(4):
        write(os.path.join(top, "large", "big%d.bin" % i), int(160 * scale) << 20)
elif kind == "mix":
    small(int(8000 * scale), "mixsmall")
    for i in range(int(1500 * scale)):
        write(os.path.join(top, "mixmid", "m%03d" % (i % 40), "mid%05d.dat" % i), rng.randint(20000, 1 << 20))
    for i in range(3):
        write(os.path.join(top, "mixbig", "video%d.mov" % i), int(80 * scale) << 20)
PY
}

generate_tiny() {  # generate_tiny DIR COUNT: COUNT files of a few bytes, 1000 per folder
  python3 - "$1" "$2" <<'PY'
import os, sys
top, count = sys.argv[1], int(sys.argv[2])
for i in range(count):
    d = os.path.join(top, "t%04d" % (i // 1000 // 100), "u%03d" % (i // 1000 % 100))
    if i % 1000 == 0:
        os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, "x%04d" % (i % 1000)), "w") as f:
        f.write("%d\n" % i)
PY
}

# change_one_percent DIR ROUND: rewrites 1% of the files (at least one) with new content.
change_one_percent() {
  python3 - "$1" "$2" <<'PY'
import os, sys
top, rnd = sys.argv[1], int(sys.argv[2])
files = []
for d, _, names in os.walk(top):
    files.extend(os.path.join(d, n) for n in names)
files.sort()
count = max(1, len(files) // 100)
step = max(1, len(files) // count)
for path in files[::step][:count]:
    size = os.path.getsize(path)
    with open(path, "r+b") as f:
        f.seek(size // 2)
        f.write(("round %d " % rnd).encode())
PY
}

# run_timed OUTVAR_TIME OUTVAR_MEM COMMAND...: wall seconds and peak RSS (MB) of one run.
run_timed() {
  local -n _t=$1 _m=$2
  shift 2
  sync
  local start=$EPOCHREALTIME
  /usr/bin/time -f '%M' -o "$work/.mem" "$@" >>"$log" 2>&1 3>/dev/null || {
    echo "engine_vs_peers: command failed: $*" >&2; tail -20 "$log" >&2; exit 1; }
  local end=$EPOCHREALTIME
  _t=$(python3 -c "print(f'{$end - $start:.3f}')")
  _m=$(( $(tail -1 "$work/.mem") / 1024 ))
}

# fresh_destination SRC: sets $fresh to the mount point of a new, empty ext4 filesystem big enough
# for SRC (as root, with loop devices); elsewhere to a new folder next to the trees.
fresh=""
fresh_image="$work/fresh.img"
release_destination() {
  if [ -n "$fresh" ] && mountpoint -q "$fresh" 2>/dev/null; then umount "$fresh"; fi
  [ -n "$fresh" ] && rm -rf "$fresh"
  rm -f "$fresh_image"
  fresh=""
}
trap release_destination EXIT
fresh_destination() {
  release_destination
  fresh="$work/fresh"
  mkdir -p "$fresh"
  if [ "$(id -u)" = 0 ] && command -v mkfs.ext4 >/dev/null; then
    local mb=$(( $(du -sm "$1" | cut -f1) * 3 / 2 + 128 ))
    truncate -s "${mb}M" "$fresh_image"
    # Inode tables and journal written now, so no background initialisation competes with the copy.
    if mkfs.ext4 -q -F -E lazy_itable_init=0,lazy_journal_init=0 "$fresh_image" && mount -o loop "$fresh_image" "$fresh" 2>/dev/null; then
      sync
      return
    fi
    echo "engine_vs_peers: no loop filesystem here; copying into a plain folder" >&2
  fi
  sync
}

median() { printf '%s\n' "$@" | sort -g | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
ratio() { python3 -c "print(f'{$1 / $2:.2f}')"; }

declare -A results
peak_overall=0

bench_tree() {
  local kind=$1
  local src="$work/$kind-src"
  rm -rf "$src" "$work/$kind-"{ql,cp,rs}
  echo "engine_vs_peers: generating the $kind tree" >&2
  generate "$kind" "$src" 42
  local files bytes
  files=$(find "$src" -type f | wc -l)
  bytes=$(du -sb "$src" | cut -f1)
  results[$kind,desc]="$files files, $(( bytes / 1048576 )) MB"
  find "$src" -type f -exec cat {} + >/dev/null  # warm the source into the page cache

  # The copies the update phases start from.
  rm -rf "$work/$kind-"{ql,cp,rs}
  "$qlcopy" --progress-fd 3 --clone-families --copy-mode different --delete "$src" "$work/$kind-ql" >>"$log" 2>&1 3>/dev/null
  cp -a "$src" "$work/$kind-cp"
  rsync -a "$src/" "$work/$kind-rs/"

  local phase t m
  for phase in initial no-change 1%-changed; do
    local ql=() cp=() rs=() peak=0
    for round in $(seq 1 "$repeats"); do
      if [ "$phase" = initial ]; then
        # Each tool copies onto an empty filesystem of its own (like a new backup drive), so that
        # none of them pays for inodes another one has just freed.
        fresh_destination "$src"; run_timed t m "$qlcopy" --progress-fd 3 --clone-families --copy-mode different --delete "$src" "$fresh/copy"; ql+=("$t"); (( m > peak )) && peak=$m
        fresh_destination "$src"; run_timed t m cp -a "$src" "$fresh/copy"; cp+=("$t")
        fresh_destination "$src"; run_timed t m rsync -a "$src/" "$fresh/copy/"; rs+=("$t")
        release_destination
      else
        [ "$phase" = 1%-changed ] && change_one_percent "$src" "$round"
        run_timed t m "$qlcopy" --progress-fd 3 --clone-families --copy-mode different --delete "$src" "$work/$kind-ql"; ql+=("$t"); (( m > peak )) && peak=$m
        run_timed t m cp -au "$src/." "$work/$kind-cp/"; cp+=("$t")
        run_timed t m rsync -a --delete "$src/" "$work/$kind-rs/"; rs+=("$t")
      fi
    done
    local mq mc mr
    mq=$(median "${ql[@]}"); mc=$(median "${cp[@]}"); mr=$(median "${rs[@]}")
    results[$kind,$phase]="$mq $mc $mr $(ratio "$mq" "$mc") $(ratio "$mq" "$mr") $peak"
    (( peak > peak_overall )) && peak_overall=$peak
  done
  # The copies must be equal to the source (contents and modes; times where cp/rsync keep them).
  diff -r "$src" "$work/$kind-ql" >/dev/null || { echo "engine_vs_peers: qlcopy's $kind copy differs from the source" >&2; exit 1; }
  rm -rf "$work/$kind-"{cp,rs}
}

for kind in small large mix; do bench_tree "$kind"; done

echo
echo "qlcopy $("$qlcopy" --version | cut -d' ' -f2) vs cp -a and rsync -a — median of $repeats runs, warm cache, $(nproc) cores, $(df -T "$work" | awk 'NR==2{print $2}') at $work"
printf '%-7s %-11s %9s %9s %9s %8s %9s %10s\n' tree case "qlcopy s" "cp s" "rsync s" "ql/cp" "ql/rsync" "ql peak MB"
for kind in small large mix; do
  for phase in initial no-change 1%-changed; do
    read -r q c r rc rr pk <<<"${results[$kind,$phase]}"
    printf '%-7s %-11s %9s %9s %9s %8s %9s %10s\n' "$kind" "$phase" "$q" "$c" "$r" "$rc" "$rr" "$pk"
  done
done
for kind in small large mix; do echo "  $kind: ${results[$kind,desc]}"; done
echo "  updates: the cp column is cp -au (a reference; it cannot delete), the rsync column is rsync -a --delete"

if [ "$memory_files" -gt 0 ]; then
  src="$work/tiny-src"
  rm -rf "$src" "$work/tiny-ql"
  echo "engine_vs_peers: generating $memory_files tiny files" >&2
  generate_tiny "$src" "$memory_files"
  run_timed t m "$qlcopy" --progress-fd 3 --delete "$src" "$work/tiny-ql"
  t1=$t; m1=$m
  run_timed t m "$qlcopy" --progress-fd 3 --delete "$src" "$work/tiny-ql"
  echo "memory: $memory_files files — initial copy ${t1} s, peak ${m1} MB; no-change update ${t} s, peak ${m} MB"
  rm -rf "$src" "$work/tiny-ql"
fi
