#!/usr/bin/env bash
# The scan benchmark: `vksecurity scan` against clamscan and against a find + md5sum floor on
# a generated tree, the time to load and decipher large signature databases, and the peak
# memory of a walk over a million files. A benchmark, not a test: nothing here runs in
# scripts/test.sh or CI. On 2 cores it takes about 6 minutes (most of it clamscan) once no
# build holds the lock, and needs 3 GB of disk and a million inodes under the work folder,
# which it removes at the end.
#
#   bench/run.sh [options]
#     --work DIR          parent of the work folder (default: $TMPDIR or /tmp); a fresh
#                         vkbench.XXXXXX folder is made inside it and removed at the end
#     --keep              keep the work folder (trees, databases, outputs)
#     --files N           files in the scan tree (default 100000)
#     --records N         records in the scan database (default 10000)
#     --planted N         planted matches (default 5)
#     --runs N            timed runs of our scan and of the floor (default 3; clamscan: 1)
#     --load "N M ..."    record counts of the load benchmark (default "100000 1000000")
#     --walk-files N      empty files of the memory walk (default 1000000)
#     --skip-setup --skip-build --skip-clamscan --skip-load --skip-walk
#     --no-lock           do not hold the machine-wide build lock during timed runs
#
# The report (Markdown) goes to standard output and to vkbench-report.md in the work parent.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD

work_parent=${TMPDIR:-/tmp}
keep=0
files=100000
records=10000
planted=5
runs=3
load_counts="100000 1000000"
walk_files=1000000
skip_setup=0 skip_build=0 skip_clamscan=0 skip_load=0 skip_walk=0 use_lock=1
while (($#)); do
  case "$1" in
    --work) work_parent=$2; shift ;;
    --keep) keep=1 ;;
    --files) files=$2; shift ;;
    --records) records=$2; shift ;;
    --planted) planted=$2; shift ;;
    --runs) runs=$2; shift ;;
    --load) load_counts=$2; shift ;;
    --walk-files) walk_files=$2; shift ;;
    --skip-setup) skip_setup=1 ;;
    --skip-build) skip_build=1 ;;
    --skip-clamscan) skip_clamscan=1 ;;
    --skip-load) skip_load=1 ;;
    --skip-walk) skip_walk=1 ;;
    --no-lock) use_lock=0 ;;
    -h|--help) sed -n '2,22p' "$0"; exit 0 ;;
    *) echo "run.sh: unknown option $1 (see --help)" >&2; exit 2 ;;
  esac
  shift
done

say() { echo "== $(date +%T) $*" >&2; }

# ---- Setup and build ----------------------------------------------------------------------
if ((!skip_setup)); then
  say "setup (clamav, time, python3)"
  scripts/setup.sh --bench
fi
lockfile="${TMPDIR:-/tmp}/vksecurity-build.lock"
if ((!skip_build)); then
  say "release build"
  scripts/build.sh release
  say "benchmark programs"
  (
    exec 9>"$lockfile"
    flock 9
    cmake -S . -B build/release -DVK_BUILD_BENCH=ON >/dev/null
    cmake --build build/release --target vkbench_load
  )
fi
vksecurity=$repo/build/release/apps/vksecurity/vksecurity
vksig=$repo/build/release/apps/vksig/vksig
vkbench_load=$repo/build/release/bench/vkbench_load
for tool in "$vksecurity" "$vksig"; do
  [[ -x $tool ]] || { echo "run.sh: $tool is missing (build first)" >&2; exit 2; }
done
gnutime=/usr/bin/time
[[ -x $gnutime ]] || { echo "run.sh: GNU time is missing (scripts/setup.sh --bench)" >&2; exit 2; }

mkdir -p "$work_parent"
work=$(mktemp -d "$work_parent/vkbench.XXXXXX")
report_file="$work_parent/vkbench-report.md"
cleanup() {
  if ((keep)); then
    say "work folder kept: $work"
  else
    say "removing $work"
    rm -rf -- "$work"
  fi
}
trap cleanup EXIT
say "work folder $work"

# ---- Helpers ----------------------------------------------------------------------------
# Timed runs hold the build lock so that no project build starts under them (other
# engineers' builds wait; --no-lock turns this off).
exec 9>"$lockfile"
lock() { if ((use_lock)); then flock 9; fi; }
unlock() { if ((use_lock)); then flock -u 9; fi; }

# timed NAME CMD...: runs CMD under GNU time; leaves "wall maxrss_kib user sys rc load1"
# in $work/t.NAME.
timed() {
  local name=$1; shift
  local rc=0 load
  lock
  load=$(cut -d' ' -f1 /proc/loadavg)
  "$gnutime" -f '%e %M %U %S' -o "$work/raw.$name" "$@" || rc=$?
  unlock
  echo "$(tail -1 "$work/raw.$name") $rc $load" > "$work/t.$name"
}
field() { awk -v f="$2" '{print $f}' "$work/t.$1"; }
# Median, minimum and maximum of the numbers on standard input.
stats() { sort -g | awk '{v[NR]=$1} END {m = NR%2 ? v[(NR+1)/2] : (v[NR/2]+v[NR/2+1])/2;
  printf "%s %s %s\n", m, v[1], v[NR]}'; }
calc() { awk "BEGIN {printf \"$1\n\", $2}"; }
mib() { calc "%.1f" "$1/1024"; }

# ---- Scan tree and database ---------------------------------------------------------------
tree=$work/tree
sigs=$work/sigs.hdb
data=$work/data
say "generating $files files and $records records"
python3 bench/gen_tree.py --out "$tree" --files "$files" --records "$records" \
  --planted "$planted" --list "$sigs" | tee "$work/gen.txt" >&2
mkdir -p "$data"
"$vksig" create "$data/bench.sql" --name Bench --version 1.0 >/dev/null
"$vksig" import-hdb "$data/bench.sql" "$sigs" >&2
cut -d: -f2 "$sigs" | sort -u > "$work/sizes"
tree_bytes=$(du -sb "$tree" | cut -f1)
same_size=$(sed -n 's/^gen_tree: \([0-9]*\) files .* must be hashed$/\1/p' "$work/gen.txt")

say "warming the page cache (one untimed read of every file)"
find "$tree" -type f -print0 | xargs -0 cat | wc -c >/dev/null

floor_cmd="find '$tree' -type f -printf '%s %p\n' \
  | awk 'NR==FNR {s[\$1]; next} (\$1 in s) {print substr(\$0, index(\$0, \" \") + 1)}' \
      '$work/sizes' - \
  | xargs -d '\n' -r md5sum"

for ((i = 1; i <= runs; i++)); do
  say "run $i/$runs: vksecurity scan"
  timed "ours.$i" sh -c "'$vksecurity' --data-dir '$data' scan '$tree' > '$work/ours.out' 2>&1"
  say "run $i/$runs: floor (find + md5sum of the files whose size some record has)"
  timed "floor.$i" sh -c "$floor_cmd > '$work/floor.out'"
done

if ((!skip_clamscan)); then
  say "clamscan -d sigs.hdb -r TREE (one run; minutes)"
  timed clam clamscan -d "$sigs" -r "$tree" --log="$work/clam.log" >/dev/null
  if [[ -d /dev/shm && -w /dev/shm ]]; then
    shm=$(mktemp -d /dev/shm/vkbench-clam.XXXXXX)
    say "clamscan --tempdir on tmpfs (one run)"
    timed clamshm clamscan --tempdir="$shm" -d "$sigs" -r "$tree" --log="$work/clamshm.log" \
      >/dev/null
    rmdir "$shm" 2>/dev/null || rm -rf -- "$shm"
  fi
fi

# Findings of each, checked against the planted files.
ours_found=$(grep -c ' FOUND$' "$work/ours.out" || true)
floor_found=$(awk -F: 'NR==FNR {h[$1]; next} ($1 in h) {n++} END {print n+0}' "$sigs" \
  <(awk '{print $1}' "$work/floor.out"))
floor_hashed=$(wc -l < "$work/floor.out")

# ---- Load benchmark -----------------------------------------------------------------------
load_rows=()
if ((!skip_load)); then
  one=$work/one-file
  echo "one small file" > "$one"
  mkdir -p "$work/empty"
  "$vksig" create "$work/empty/empty.sql" --name Empty --version 1.0 >/dev/null
  cli_seconds() {  # median "seconds" of 3 JSON summaries of a scan of one file
    local dir=$1 i
    for i in 1 2 3; do
      "$vksecurity" --json --data-dir "$dir" scan "$one" | sed -n 's/.*"seconds":\([0-9.e-]*\).*/\1/p'
    done | stats | cut -d' ' -f1
  }
  lock
  empty_s=$(cli_seconds "$work/empty")
  unlock
  for n in $load_counts; do
    say "load benchmark: $n records"
    dir=$work/load$n
    mkdir -p "$dir"
    python3 bench/gen_tree.py --records "$n" --list "$work/load$n.hdb" --seed "$n" >/dev/null
    "$vksig" create "$dir/bench.sql" --name Load --version 1.0 >/dev/null
    "$vksig" import-hdb "$dir/bench.sql" "$work/load$n.hdb" >/dev/null
    rm -f "$work/load$n.hdb"
    repeat=3
    ((n >= 1000000)) && repeat=2
    lock
    line=$("$vkbench_load" "$dir" --repeat "$repeat")
    cli_s=$(cli_seconds "$dir")
    cli_rss=$("$gnutime" -f '%M' "$vksecurity" --data-dir "$dir" scan "$one" 2>&1 >/dev/null \
      | tail -1)
    unlock
    load_rows+=("$line cli_s=$cli_s cli_rss=$cli_rss")
    rm -rf -- "$dir"
  done
fi

# ---- Million-file walk ----------------------------------------------------------------
if ((!skip_walk)); then
  walk=$work/walk
  say "generating $walk_files empty files (a few minutes)"
  python3 bench/gen_tree.py --tiny --out "$walk" --files "$walk_files" --records 0 \
    --list "$work/walk.hdb" >&2
  say "warming: find over the walk tree"
  find "$walk" > /dev/null
  say "walk: vksecurity scan over $walk_files files"
  timed walk sh -c "'$vksecurity' --data-dir '$data' scan '$walk' > '$work/walk.out' 2>&1"
  timed walkfind sh -c "find '$walk' -type f | wc -l > /dev/null"
  walk_judged=$(sed -n 's/^Files judged: *//p' "$work/walk.out")
  say "removing the walk tree"
  rm -rf -- "$walk"
fi

# ---- Report -----------------------------------------------------------------------------
row() {  # name label findings: one table row from the timed runs name.1..N (or name)
  local name=$1 label=$2 found=$3 walls rss n
  if [[ -f $work/t.$name ]]; then
    walls=$(field "$name" 1); rss=$(field "$name" 2); n=1
  else
    walls=$(for ((i = 1; i <= runs; i++)); do field "$name.$i" 1; done | stats)
    rss=$(for ((i = 1; i <= runs; i++)); do field "$name.$i" 2; done | sort -g | tail -1)
    n=$runs
  fi
  local med=${walls%% *} range=""
  if ((n > 1)); then
    range=" (${n} runs: $(echo "$walls" | cut -d' ' -f2)–$(echo "$walls" | cut -d' ' -f3))"
  fi
  printf '| %s | %s%s | %s | %s | %s |\n' "$label" "$med" "$range" \
    "$(calc "%.0f" "$files/$med")" "$(mib "$rss")" "$found"
}
median_wall() {
  if [[ -f $work/t.$1 ]]; then field "$1" 1; else
    for ((i = 1; i <= runs; i++)); do field "$1.$i" 1; done | stats | cut -d' ' -f1; fi
}
loads() { for f in "$work"/t.*; do awk '{print $6}' "$f"; done | sort -g | tr '\n' ' '; }

{
  echo "# vksecurity scan benchmark"
  echo
  echo "- Date: $(date -u '+%Y-%m-%d %H:%M UTC'), commit $(git rev-parse --short HEAD)$(git diff --quiet HEAD -- src apps || echo ' (with local changes)')"
  echo "- Machine: $(nproc) cores ($(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -1)), $(awk '/MemTotal/ {printf "%.0f GiB", $2/1048576}' /proc/meminfo) RAM, Linux $(uname -r), Debian $(cat /etc/debian_version), $(clamscan --version | cut -d/ -f1)"
  echo "- Command: \`bench/run.sh --files $files --records $records --runs $runs --load \"$load_counts\" --walk-files $walk_files\`"
  echo "- Load average (1 min) at the start of each timed run: $(loads)"
  echo
  echo "## Scan of $files files ($(calc "%.0f" "$tree_bytes/1048576") MiB) against $records records"
  echo
  echo "$planted planted matches; $same_size files share a size with some record and are hashed by us and by the floor. The page cache was warmed by one untimed read of every file before the timed runs (dropping caches needs privileges that a shared machine does not give)."
  echo
  echo "| | wall s | files/s | peak RSS MiB | findings |"
  echo "|---|---|---|---|---|"
  row ours "vksecurity scan (unpaced)" "$ours_found"
  if [[ -f $work/t.clam ]]; then
    row clam "clamscan -d sigs.hdb -r TREE" "$(grep -c ' FOUND$' "$work/clam.log" || true)"
  fi
  if [[ -f $work/t.clamshm ]]; then
    row clamshm "clamscan, --tempdir on tmpfs" "$(grep -c ' FOUND$' "$work/clamshm.log" || true)"
  fi
  row floor "floor: find + md5sum of $floor_hashed same-size files" "$floor_found"
  echo
  ours_wall=$(median_wall ours)
  floor_wall=$(median_wall floor)
  if [[ -f $work/t.clam ]]; then
    best_clam=$(field clam 1)
    if [[ -f $work/t.clamshm ]]; then best_clam=$(calc "%s" "($(field clamshm 1) < $best_clam) ? $(field clamshm 1) : $best_clam"); fi
    echo "- ours vs clamscan, files/s: $(calc "%.0f" "$(field clam 1)/$ours_wall")× (default clamscan)$([[ -f $work/t.clamshm ]] && echo ", $(calc "%.0f" "$(field clamshm 1)/$ours_wall")× (clamscan with tmpfs temp dir)") — target ≥ 40× (against the faster clamscan: $(calc "%s" "($best_clam/$ours_wall >= 40) ? \"met\" : \"MISSED\""))"
  fi
  echo "- ours vs floor, wall time: $(calc "%.2f" "$ours_wall/$floor_wall")× — target ≤ 1.5× ($(calc "%s" "($ours_wall/$floor_wall <= 1.5) ? \"met\" : \"MISSED\""))"
  echo "- Peak RSS of the floor is that of its largest process (GNU time over the pipeline)."
  if ((${#load_rows[@]})); then
    echo
    echo "## Loading and deciphering records"
    echo
    echo "vkbench_load: VkTorjanScan::getCurrentTorjanItems() plus the size index, several runs in one process: the first (the heap still growing, as in a scan), the best and the median; then one more run split into its parts. CLI: median \`seconds\` of three \`vksecurity --json scan ONE-FILE\` with the database minus the same with an empty database (empty: ${empty_s} s)."
    echo
    echo "| records | first ms | best ms | median ms | read ms | decipher ms | index ms | peak RSS MiB | CLI extra s | CLI peak RSS MiB |"
    echo "|---|---|---|---|---|---|---|---|---|---|"
    for r in "${load_rows[@]}"; do
      get() { echo "$r" | tr ' ' '\n' | sed -n "s/^$1=//p"; }
      echo "| $(get records) | $(get first_ms) | $(get best_ms) | $(get median_ms) | $(get read_ms) | $(get decipher_ms) | $(get index_ms) | $(mib "$(get peak_rss_kib)") | $(calc "%.3f" "$(get cli_s) - $empty_s") | $(mib "$(get cli_rss)") |"
    done
    first=${load_rows[0]}
    n100=$(echo "$first" | tr ' ' '\n' | sed -n 's/^records=//p')
    first100=$(echo "$first" | tr ' ' '\n' | sed -n 's/^first_ms=//p')
    echo
    echo "- $n100 records loaded in $first100 ms (first load) — target < 1 s ($(calc "%s" "($first100 < 1000) ? \"met\" : \"MISSED\""))"
  fi
  if [[ -f $work/t.walk ]]; then
    echo
    echo "## Walk over $walk_files empty files"
    echo
    echo "\`vksecurity scan\` of a tree of $walk_files empty files in 200-file folders, with the $records-record database; the tree's metadata was warmed by one untimed \`find\`."
    echo
    echo "| | wall s | files/s | peak RSS MiB |"
    echo "|---|---|---|---|"
    echo "| vksecurity scan ($walk_judged files judged) | $(field walk 1) | $(calc "%.0f" "$walk_files/$(field walk 1)") | $(mib "$(field walk 2)") |"
    echo "| find -type f (reference) | $(field walkfind 1) | $(calc "%.0f" "$walk_files/$(field walkfind 1)") | $(mib "$(field walkfind 2)") |"
    echo
    echo "- Peak RSS $(mib "$(field walk 2)") MiB — target < 64 MiB ($(calc "%s" "($(field walk 2) < 65536) ? \"met\" : \"MISSED\""))"
  fi
} | tee "$report_file"
say "report written to $report_file"
