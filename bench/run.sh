#!/usr/bin/env bash
# The scan benchmark: `vksecurity scan` against clamscan and against find + md5sum floors
# (sequential and `xargs -P2`) on a generated tree, in paired runs (medians, machine load),
# warm and, when caches may be dropped, cold; the paths each finds; a second scan with the
# hash cache and the --jobs settings when the scanner has them; the time and memory to load
# large signature databases; the memory of a walk over a million files; and when the
# progress line first moves past the listing stage. A benchmark, not a test: nothing here runs
# in scripts/test.sh or CI. On 2 cores it takes about 10 minutes (most of it clamscan) once
# no build holds the lock, and needs 3 GB of disk and a million inodes under the work folder,
# which it removes at the end.
#
#   bench/run.sh [options]
#     --work DIR          parent of the work folder (default: $TMPDIR or /tmp); a fresh
#                         vkbench.XXXXXX folder is made inside it and removed at the end
#     --keep              keep the work folder (trees, databases, outputs)
#     --files N           files in the scan tree (default 100000)
#     --records N         records in the scan database (default 10000)
#     --planted N         planted matches (default 5)
#     --runs N            paired runs of our scan and the floors (default 3, at least 3 for
#                         a median; clamscan: 1)
#     --load "N M ..."    record counts of the load benchmark (default "100000 1000000")
#     --walk-files N      empty files of the memory walk (default 1000000)
#     --progress-files N  empty files of the progress probe (default 150000)
#     --usr DIR           a real system folder scanned like the tree, warm (default /usr)
#     --skip-setup --skip-build --skip-clamscan --skip-load --skip-walk --skip-cold
#     --skip-progress --skip-usr
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
progress_files=150000
usr=/usr
skip_setup=0 skip_build=0 skip_clamscan=0 skip_load=0 skip_walk=0 skip_cold=0 skip_progress=0
skip_usr=0
use_lock=1
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
    --progress-files) progress_files=$2; shift ;;
    --usr) usr=$2; shift ;;
    --skip-usr) skip_usr=1 ;;
    --skip-setup) skip_setup=1 ;;
    --skip-build) skip_build=1 ;;
    --skip-clamscan) skip_clamscan=1 ;;
    --skip-load) skip_load=1 ;;
    --skip-walk) skip_walk=1 ;;
    --skip-cold) skip_cold=1 ;;
    --skip-progress) skip_progress=1 ;;
    --no-lock) use_lock=0 ;;
    -h|--help) sed -n '2,29p' "$0"; exit 0 ;;
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
# in $work/t.NAME. With COLD=1 the page cache is dropped first (when it may be).
timed() {
  local name=$1; shift
  local rc=0 load
  lock
  if ((${COLD:-0})); then drop_caches; fi
  load=$(cut -d' ' -f1 /proc/loadavg)
  "$gnutime" -f '%e %M %U %S' -o "$work/raw.$name" "$@" || rc=$?
  unlock
  echo "$(tail -1 "$work/raw.$name") $rc $load" > "$work/t.$name"
}
field() { awk -v f="$2" '{print $f}' "$work/t.$1"; }
# Dropping the page cache needs root; without it the cold runs are skipped and said so.
can_drop=0
if ((!skip_cold)) && [[ -w /proc/sys/vm/drop_caches ]]; then can_drop=1; fi
drop_caches() { sync; echo 3 > /proc/sys/vm/drop_caches; }
((runs >= 3)) || echo "run.sh: --runs $runs gives no median of three; use at least 3" >&2
# Median, minimum and maximum of the numbers on standard input.
stats() { sort -g | awk '{v[NR]=$1} END {m = NR%2 ? v[(NR+1)/2] : (v[NR/2]+v[NR/2+1])/2;
  printf "%s %s %s\n", m, v[1], v[NR]}'; }
calc() { awk "BEGIN {printf \"$1\n\", $2}"; }
mib() { calc "%.1f" "$1/1024"; }

# ---- Scan tree and database ---------------------------------------------------------------
tree=$work/tree
sigs=$work/sigs.hdb
big=$work/big.list
data0=$work/data0
say "generating $files files and $records records"
python3 bench/gen_tree.py --out "$tree" --files "$files" --records "$records" \
  --planted "$planted" --list "$sigs" --big-list "$big" --planted-list "$work/planted" \
  | tee "$work/gen.txt" >&2
mkdir -p "$data0"
"$vksig" create "$data0/bench.sql" --name Bench --version 1.0 >/dev/null
"$vksig" import-hdb "$data0/bench.sql" "$sigs" >&2
# Records over 1 MiB carry a head hash, which the .hdb format cannot: added one by one.
while IFS=: read -r code size name head; do
  "$vksig" add "$data0/bench.sql" --size "$size" --code "$code" --head-code "$head" \
    --name "$name" >/dev/null
done < "$big"
big_records=$(wc -l < "$big")
{ cut -d: -f2 "$sigs"; cut -d: -f2 "$big"; } | sort -u > "$work/sizes"
{ cut -d: -f1 "$sigs"; cut -d: -f1 "$big"; } | sort -u > "$work/codes"
tree_bytes=$(du -sb "$tree" | cut -f1)
same_size=$(sed -n 's/^gen_tree: \([0-9]*\) files .* must be hashed$/\1/p' "$work/gen.txt")
sort "$work/planted" > "$work/expected"

# A fresh data folder per run: our scan keeps what it learns there (a hash cache, when it
# has one), and every timed scan but the second-scan ones must start without it.
fresh_data() { rm -rf -- "$work/data.$1"; cp -r "$data0" "$work/data.$1"; echo "$work/data.$1"; }

scan_help=$("$vksecurity" scan --help 2>&1 || true)
has_jobs=0; has_cache=0
grep -q -- '--jobs' <<<"$scan_help" && has_jobs=1
grep -q -- '--no-cache' <<<"$scan_help" && has_cache=1

# The hash cache keeps only files unchanged for longer than the kernel's write-back period
# and a minute: the second-scan rows need a tree at least that old.
if ((has_cache)); then
  settle=$(( ($(cat /proc/sys/vm/dirty_expire_centisecs) +
              $(cat /proc/sys/vm/dirty_writeback_centisecs)) / 100 + 61 ))
  newest=$(find "$tree" -printf '%C@\n' | sort -g | tail -1)
  left=$(calc "%.0f" "$newest + $settle - $(date +%s.%N)")
  if ((left > 0)); then say "waiting ${left} s until the tree is old enough for the hash cache"; sleep "$left"; fi
fi

say "warming the page cache (one untimed read of every file)"
find "$tree" -type f -print0 | xargs -0 cat | wc -c >/dev/null

# The least work any exact size-and-hash scanner must do: list, keep the files whose size
# some record has, hash them whole. Sequential, and over two processes.
select_cmd="find '$tree' -type f -printf '%s %p\n' \
  | awk 'NR==FNR {s[\$1]; next} (\$1 in s) {print substr(\$0, index(\$0, \" \") + 1)}' \
      '$work/sizes' -"
floor_cmd="$select_cmd | xargs -d '\n' -r md5sum"
floor2_cmd="$select_cmd | xargs -d '\n' -r -P2 -n 256 md5sum"

ours_cmd() {  # data-folder extra-options...: our scan of the tree, findings to $work/ours.out
  local dir=$1; shift
  echo "'$vksecurity' --data-dir '$dir' scan $* '$tree' > '$work/ours.out' 2>&1"
}

# Paired runs: each run times ours and both floors back to back, so that a change in the
# machine's load moves all of them; the report gives medians and the median of the ratios.
for ((i = 1; i <= runs; i++)); do
  say "run $i/$runs: vksecurity scan, floor, floor -P2"
  d=$(fresh_data run); timed "ours.$i" sh -c "$(ours_cmd "$d")"
  timed "floor.$i" sh -c "$floor_cmd > '$work/floor.out'"
  timed "floor2.$i" sh -c "$floor2_cmd > '$work/floor2.out'"
  if ((has_jobs)); then
    d=$(fresh_data run); timed "jobs1.$i" sh -c "$(ours_cmd "$d" --jobs 1)"
    d=$(fresh_data run); timed "jobs2.$i" sh -c "$(ours_cmd "$d" --jobs 2)"
  fi
  if ((has_cache)); then
    # The same data folder twice: the first scan fills the cache, the second uses it.
    d=$(fresh_data cache); timed "cache1.$i" sh -c "$(ours_cmd "$d")"
    timed "cache2.$i" sh -c "$(ours_cmd "$d")"
  fi
done
found_paths() {  # the paths a run reported, sorted
  case $1 in
    ours) sed -n 's/^\(.*\): .* FOUND$/\1/p' "$work/ours.out" ;;
    floor*) awk 'NR==FNR {h[$1]; next} ($1 in h) {print substr($0, 35)}' "$work/codes" \
              "$work/$1.out" ;;
    clam*) sed -n 's/^\(.*\): .* FOUND$/\1/p' "$work/$1.log" ;;
  esac | sort
}
# "same" when the paths equal the planted files (for clamscan: those under 1 MiB).
compare_paths() {
  local name=$1 expected=$2 got
  got=$(found_paths "$name")
  if [[ $got == "$(cat "$expected")" ]]; then echo "same $(wc -l < "$expected") paths as planted"
  else
    echo "DIFFERENT: $(comm -13 "$expected" <(echo "$got") | grep -c . || true) unexpected, $(comm -23 "$expected" <(echo "$got") | grep -c . || true) missed"
  fi
}
found_ours=$(compare_paths ours "$work/expected")
found_floor=$(compare_paths floor "$work/expected")
found_floor2=$(compare_paths floor2 "$work/expected")
floor_hashed=$(wc -l < "$work/floor.out")

# Cold: the page cache dropped before each timed run.
if ((can_drop)); then
  for ((i = 1; i <= runs; i++)); do
    say "cold run $i/$runs: vksecurity scan, floor, floor -P2"
    d=$(fresh_data run); COLD=1 timed "cold_ours.$i" sh -c "$(ours_cmd "$d")"
    COLD=1 timed "cold_floor.$i" sh -c "$floor_cmd > '$work/floor.out'"
    COLD=1 timed "cold_floor2.$i" sh -c "$floor2_cmd > '$work/floor2.out'"
  done
fi

# A real system folder, warm: the same database, the same floors.
usr_files=0
usr_noarc=""
grep -q -- '--no-archives' <<<"$scan_help" && usr_noarc=--no-archives
if ((!skip_usr)) && [[ -d $usr ]]; then
  usr_files=$(find "$usr" -type f | wc -l)
  say "warming $usr ($usr_files files)"
  find "$usr" -type f -print0 | xargs -0 cat 2>/dev/null | wc -c >/dev/null
  usr_select="find '$usr' -type f -printf '%s %p\n' \
    | awk 'NR==FNR {s[\$1]; next} (\$1 in s) {print substr(\$0, index(\$0, \" \") + 1)}' \
        '$work/sizes' -"
  for ((i = 1; i <= runs; i++)); do
    say "$usr run $i/$runs: vksecurity scan, --jobs 1, floor, floor -P2"
    # Compared without looking inside archives, which the floors do not do either; one
    # more run with them shows what they cost.
    d=$(fresh_data run)
    timed "usr_ours.$i" sh -c "'$vksecurity' --data-dir '$d' scan $usr_noarc '$usr' > '$work/usr.out' 2>&1"
    if ((has_jobs)); then
      d=$(fresh_data run)
      timed "usr_jobs1.$i" sh -c "'$vksecurity' --data-dir '$d' scan $usr_noarc --jobs 1 '$usr' >/dev/null 2>&1"
    fi
    if [[ -n $usr_noarc ]]; then
      d=$(fresh_data run)
      timed "usr_arc.$i" sh -c "'$vksecurity' --data-dir '$d' scan '$usr' >/dev/null 2>&1"
    fi
    timed "usr_floor.$i" sh -c "$usr_select | xargs -d '\n' -r md5sum > '$work/usr_floor.out' 2>/dev/null"
    timed "usr_floor2.$i" sh -c "$usr_select | xargs -d '\n' -r -P2 -n 256 md5sum >/dev/null 2>&1"
  done
  usr_hashed=$(wc -l < "$work/usr_floor.out")
  usr_judged=$(sed -n 's/^Files judged: *//p' "$work/usr.out")
fi

# clamscan gets the .hdb, which cannot hold the records over 1 MiB: its findings are
# compared with the planted files under 1 MiB only.
# The planted files under 1 MiB: all that clamscan, with the .hdb alone, can find.
small_expected=$work/expected.small
while read -r f; do [[ $(stat -c %s "$f") -le 1048576 ]] && echo "$f"; done < "$work/expected" \
  > "$small_expected" || true
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
    lock
    line=$("$vkbench_load" "$dir" --repeat 3)
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
  d=$(fresh_data run); timed walk sh -c "'$vksecurity' --data-dir '$d' scan '$walk' > '$work/walk.out' 2>&1"
  timed walkfind sh -c "find '$walk' -type f | wc -l > /dev/null"
  walk_judged=$(sed -n 's/^Files judged: *//p' "$work/walk.out")
  say "removing the walk tree"
  rm -rf -- "$walk"
fi

# ---- Progress -------------------------------------------------------------------------
progress_line=""
progress_tree_lines=()
if ((!skip_progress)); then
  # The scan tree, where files are read (no hash cache): warm, and cold when allowed.
  for ((i = 1; i <= runs; i++)); do
    d=$(fresh_data run)
    lock
    progress_tree_lines+=("warm: $(python3 bench/progress_probe.py "$vksecurity" --data-dir "$d" \
      scan --no-cache "$tree")")
    unlock
  done
  if ((can_drop)); then
    d=$(fresh_data run)
    lock
    drop_caches
    progress_tree_lines+=("cold: $(python3 bench/progress_probe.py "$vksecurity" --data-dir "$d" \
      scan --no-cache "$tree")")
    unlock
  fi
  ptree=$work/progress
  say "generating $progress_files empty files for the progress probe"
  python3 bench/gen_tree.py --tiny --out "$ptree" --files "$progress_files" --records 0 \
    --list "$work/progress.hdb" >/dev/null
  find "$ptree" > /dev/null
  d=$(fresh_data run)
  lock
  progress_line=$(python3 bench/progress_probe.py "$vksecurity" --data-dir "$d" scan "$ptree")
  unlock
  rm -rf -- "$ptree"
fi

# ---- Report -----------------------------------------------------------------------------
# Median, fastest and slowest wall time of the runs NAME.1..N (or the single run NAME).
walls() {
  if [[ -f $work/t.$1 ]]; then local w; w=$(field "$1" 1); echo "$w $w $w"; else
    for ((i = 1; i <= runs; i++)); do field "$1.$i" 1; done | stats; fi
}
median_wall() { walls "$1" | cut -d' ' -f1; }
peak_rss() {
  if [[ -f $work/t.$1 ]]; then field "$1" 2; else
    for ((i = 1; i <= runs; i++)); do field "$1.$i" 2; done | sort -g | tail -1; fi
}
# Median over the runs of NAME_i / BASE_i (paired ratios).
paired() { for ((i = 1; i <= runs; i++)); do calc "%.4f" "$(field "$1.$i" 1)/$(field "$2.$i" 1)"; done | stats; }
row() {  # name label findings [files]
  local name=$1 label=$2 found=$3 count=${4:-$files} w range=""
  [[ -f $work/t.$name || -f $work/t.$name.1 ]] || return 0
  w=$(walls "$name")
  [[ -f $work/t.$name ]] || range=" ($runs runs: $(echo "$w" | cut -d' ' -f2)–$(echo "$w" | cut -d' ' -f3))"
  printf '| %s | %s%s | %s | %s | %s |\n' "$label" "${w%% *}" "$range" \
    "$(calc "%.0f" "$count/${w%% *}")" "$(mib "$(peak_rss "$name")")" "$found"
}
ratio_line() {  # name base label target
  local r; r=$(paired "$1" "$2")
  echo "- $3: **$(calc "%.2f" "${r%% *}")×** (median of $runs paired ratios; range $(calc "%.2f" "$(echo "$r" | cut -d' ' -f2)")–$(calc "%.2f" "$(echo "$r" | cut -d' ' -f3)"))$4"
}
loads() { for f in "$work"/t.*; do awk '{print $6}' "$f"; done | sort -g | tr '\n' ' '; }

{
  echo "# vksecurity scan benchmark"
  echo
  echo "- Date: $(date -u '+%Y-%m-%d %H:%M UTC'), commit $(git rev-parse --short HEAD)$(git diff --quiet HEAD -- src apps || echo ' (with local changes)')"
  echo "- Machine: $(nproc) cores ($(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -1)), $(awk '/MemTotal/ {printf "%.0f GiB", $2/1048576}' /proc/meminfo) RAM, Linux $(uname -r), Debian $(cat /etc/debian_version), $(clamscan --version 2>/dev/null | cut -d/ -f1)"
  echo "- Command: \`bench/run.sh --files $files --records $records --runs $runs --load \"$load_counts\" --walk-files $walk_files --progress-files $progress_files\`"
  echo "- Load average (1 min) at the start of each timed run, sorted: $(loads)"
  echo "- Scanner options found in \`vksecurity scan --help\`: --jobs $( ((has_jobs)) && echo yes || echo 'no (those rows skipped)'), --no-cache $( ((has_cache)) && echo 'yes (hash cache)' || echo 'no (no hash cache: second-scan rows skipped)')"
  echo
  echo "## Scan of $files files ($(calc "%.0f" "$tree_bytes/1048576") MiB) against $records records + $big_records over 1 MiB"
  echo
  echo "$(wc -l < "$work/expected") planted matches ($(wc -l < "$small_expected") under 1 MiB, found by the .hdb; the others need a head hash, which only our database holds, so clamscan is compared on the ones under 1 MiB). $same_size files share a size with some record and are hashed by us and by the floors ($floor_hashed by the floor). Warm: every file read once, untimed, before the timed runs. Our scans start with a fresh copy of the data folder each."
  echo
  echo "| | wall s (median) | files/s | peak RSS MiB | paths found |"
  echo "|---|---|---|---|---|"
  row ours "vksecurity scan (unpaced)" "$found_ours"
  row jobs1 "vksecurity scan --jobs 1" ""
  row jobs2 "vksecurity scan --jobs 2" ""
  row cache1 "vksecurity scan, first with a fresh cache" ""
  row cache2 "vksecurity scan, second (cache filled)" ""
  [[ -f $work/t.clam ]] && row clam "clamscan -d sigs.hdb -r TREE" "$(compare_paths clam "$small_expected")"
  [[ -f $work/t.clamshm ]] && row clamshm "clamscan, --tempdir on tmpfs" "$(compare_paths clamshm "$small_expected")"
  row floor "floor: find + md5sum (sequential)" "$found_floor"
  row floor2 "floor: find + xargs -P2 md5sum" "$found_floor2"
  echo
  ratio_line ours floor "ours / sequential floor" ""
  ratio_line ours floor2 "ours / -P2 floor" ""
  if ((has_jobs)); then
    ratio_line jobs1 floor "--jobs 1 / sequential floor" " — target ≤ 1.05×"
    ratio_line jobs2 floor2 "--jobs 2 / -P2 floor" " — target ≤ 1.1×"
  fi
  if ((has_cache)); then
    ratio_line cache2 floor "second scan with the cache / sequential floor" " — target ≤ 0.3×"
  fi
  if [[ -f $work/t.clam ]]; then
    fast=clam
    if [[ -f $work/t.clamshm ]] && awk "BEGIN {exit !($(field clamshm 1) < $(field clam 1))}"; then fast=clamshm; fi
    echo "- ours vs the faster clamscan ($fast), files/s: **$(calc "%.0f" "$(field $fast 1)/$(median_wall ours)")×** — target ≥ 40×"
  fi
  echo "- Peak RSS of a floor is that of its largest process (GNU time over the pipeline)."
  echo
  echo "### Cold cache"
  echo
  if ((can_drop)); then
    echo "The page cache dropped (\`sync; echo 3 > /proc/sys/vm/drop_caches\`) before each run."
    echo
    echo "| | wall s (median) | files/s | peak RSS MiB | |"
    echo "|---|---|---|---|---|"
    row cold_ours "vksecurity scan (unpaced)" ""
    row cold_floor "floor: find + md5sum (sequential)" ""
    row cold_floor2 "floor: find + xargs -P2 md5sum" ""
    echo
    ratio_line cold_ours cold_floor2 "ours / -P2 floor, cold" " — target ≤ 1.1×"
  else
    echo "Skipped: dropping the page cache needs root (or --skip-cold was given)."
  fi
  if [[ -f $work/t.usr_ours.1 ]]; then
    echo
    echo "### $usr, warm"
    echo
    echo "$usr_files regular files (every one read once, untimed, before the timed runs); the same database: $usr_hashed of them share a size with some record and are hashed by the floor; $usr_judged judged by ours (links too). Our scans start with a fresh copy of the data folder each."
    echo
    echo "| | wall s (median) | files/s | peak RSS MiB | |"
    echo "|---|---|---|---|---|"
    row usr_ours "vksecurity scan $usr_noarc" "" "$usr_files"
    row usr_jobs1 "vksecurity scan $usr_noarc --jobs 1" "" "$usr_files"
    row usr_arc "vksecurity scan (archives opened: a .gz, .zip, .pkg... is decompressed)" "" "$usr_files"
    row usr_floor "floor: find + md5sum (sequential)" "" "$usr_files"
    row usr_floor2 "floor: find + xargs -P2 md5sum" "" "$usr_files"
    echo
    ratio_line usr_ours usr_floor2 "ours / -P2 floor" " — target ≤ 1.1×"
    [[ -f $work/t.usr_jobs1.1 ]] && ratio_line usr_jobs1 usr_floor "--jobs 1 / sequential floor" " — target ≤ 1.05×"
  fi
  if ((${#load_rows[@]})); then
    echo
    echo "## Loading records"
    echo
    echo "vkbench_load: VkSqliteManager::loadAllRecords (the scan center's record loader) and the size index, 3 runs in one process: the first (the heap still growing, as in a scan), the best and the median; then one more run split into reading the rows with deciphering their hashes, building the index, and reading every record's name (a listing, which deciphers the names). Peak RSS before that listing. CLI: median \`seconds\` of three \`vksecurity --json scan ONE-FILE\` with the database minus the same with an empty database (empty: ${empty_s} s)."
    echo
    echo "| records | first ms | best ms | median ms | load ms | index ms | list ms | held MiB | peak RSS MiB | CLI extra s | CLI peak RSS MiB |"
    echo "|---|---|---|---|---|---|---|---|---|---|---|"
    for r in "${load_rows[@]}"; do
      get() { echo "$r" | tr ' ' '\n' | sed -n "s/^$1=//p"; }
      echo "| $(get records) | $(get first_ms) | $(get best_ms) | $(get median_ms) | $(get load_ms) | $(get index_ms) | $(get list_ms) | $(get held_mib) | $(mib "$(get peak_rss_kib)") | $(calc "%.3f" "$(get cli_s) - $empty_s") | $(mib "$(get cli_rss)") |"
    done
    echo
    echo "- Targets: 1,000,000 records in under 2 s with peak RSS under 150 MiB; 100,000 in under 0.3 s (median column)."
  fi
  if [[ -f $work/t.walk ]]; then
    echo
    echo "## Walk over $walk_files empty files"
    echo
    echo "| | wall s | files/s | peak RSS MiB |"
    echo "|---|---|---|---|"
    echo "| vksecurity scan ($walk_judged files judged) | $(field walk 1) | $(calc "%.0f" "$walk_files/$(field walk 1)") | $(mib "$(field walk 2)") |"
    echo "| find -type f (reference) | $(field walkfind 1) | $(calc "%.0f" "$walk_files/$(field walkfind 1)") | $(mib "$(field walkfind 2)") |"
    echo
    echo "- Peak RSS $(mib "$(field walk 2)") MiB — target < 64 MiB"
  fi
  if [[ -n $progress_line ]]; then
    echo
    echo "## Progress on $progress_files entries"
    echo
    echo "\`bench/progress_probe.py\` runs the scan on a pseudo-terminal and timestamps its progress line (drawn every 0.1 s, and at once when the count becomes known): \`$progress_line\`. first_percent_share is when the line first showed a percentage (progress past 0.01) as a share of the run — target < 0.1; errors is the largest gap, in points, between the percentage shown and the share of time elapsed."
  fi
  if ((${#progress_tree_lines[@]})); then
    echo
    echo "## Progress on the scan tree ($files files, --no-cache)"
    echo
    for l in "${progress_tree_lines[@]}"; do echo "- \`$l\`"; done
  fi
} | tee "$report_file"
say "report written to $report_file"
