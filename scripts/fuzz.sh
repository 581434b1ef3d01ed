#!/usr/bin/env bash
# Builds the fuzz targets of fuzz/ (clang, libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer) into build/fuzz, writes their seed corpora, and runs every
# target for SECONDS (default 60), two at a time. Fails when any target finds a crash, a
# leak, an input slower than the time limit or one that needs too much memory.
#
#   scripts/fuzz.sh [SECONDS]
#   VK_FUZZ_JOBS=N         targets run at the same time (default 2)
#   VK_FUZZ_TARGETS="a b"  only these targets (names without "fuzz_")
#
# The corpora grow in build/fuzz/corpus from run to run; what a target found lands in
# build/fuzz/artifacts/NAME, its output in build/fuzz/logs/NAME.log.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
parallel=${VK_FUZZ_JOBS:-2}
dir=build/fuzz
if ! [[ $seconds =~ ^[0-9]+$ ]] || ((seconds < 1)); then
  echo "usage: $0 [SECONDS]" >&2
  exit 2
fi

# Takes the build lock itself and lets it go before fuzzing.
scripts/build.sh fuzz

targets=()
if [[ -n ${VK_FUZZ_TARGETS:-} ]]; then
  read -r -a targets <<<"$VK_FUZZ_TARGETS"
else
  for bin in "$dir"/fuzz/fuzz_*; do
    targets+=("${bin##*/fuzz_}")
  done
fi

# Inputs that write files (the signature file, the update step) run much faster on tmpfs.
scratch_root=/dev/shm
[[ -d $scratch_root && -w $scratch_root ]] || scratch_root=$dir
scratch=$(mktemp -d "$scratch_root/vkfuzz-run.XXXXXX")
trap 'rm -rf "$scratch"' EXIT

rm -rf "$dir/seeds" "$dir/logs"
mkdir -p "$dir/logs" "$dir/corpus" "$dir/artifacts"
TMPDIR=$scratch "$dir/fuzz/vk_make_seeds" "$dir/seeds" >/dev/null

run_target() {
  local name=$1
  local max_len=16384 dict=() malloc_limit=2048
  case $name in
    signature_file) max_len=65536 ;;
    # libarchive's 7z reader sizes its tables from the counts a header claims and callocs
    # them: gigabytes of address space a few bytes can ask for, never touched (a real scan
    # of such a file stays at 30 MiB and reports it corrupt). What is used is still held to
    # the 2 GiB resident limit.
    archive_judge) malloc_limit=8192 ;;
  esac
  case $name in
    plist | keyed_archive | monitor_records | manifest) dict=(-dict=fuzz/plist.dict) ;;
  esac
  mkdir -p "$dir/corpus/$name" "$dir/artifacts/$name" "$scratch/$name"
  # Per input: 10 s and 2 GiB at most (sanitizers included); the bounds of the parsers keep
  # legitimate inputs far below both. What the code prints on standard output (SQLite's
  # complaints about damaged files) is dropped; libFuzzer reports on standard error.
  set +e
  TMPDIR="$scratch/$name" "$dir/fuzz/fuzz_$name" "${dict[@]}" \
    -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -malloc_limit_mb="$malloc_limit" \
    -max_len="$max_len" -print_final_stats=1 -close_fd_mask=1 \
    -artifact_prefix="$dir/artifacts/$name/" \
    "$dir/corpus/$name" "$dir/seeds/$name" >"$dir/logs/$name.log" 2>&1
  echo $? >"$dir/logs/$name.rc"
  set -e
}

echo "fuzzing ${#targets[@]} targets for $seconds s each, $parallel at a time"
for name in "${targets[@]}"; do
  if [[ ! -x $dir/fuzz/fuzz_$name ]]; then
    echo "no fuzz target $name" >&2
    exit 2
  fi
  while (($(jobs -rp | wc -l) >= parallel)); do
    wait -n || true
  done
  run_target "$name" &
done
wait

status=0
printf '%-18s %12s %10s %8s %8s  %s\n' target executions "per s" "rss MB" corpus result
for name in "${targets[@]}"; do
  log=$dir/logs/$name.log
  rc=$(cat "$dir/logs/$name.rc" 2>/dev/null || echo 99)
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  rss=$(sed -n 's/^stat::peak_rss_mb: *//p' "$log" | tail -1)
  corpus=$(find "$dir/corpus/$name" -type f | wc -l)
  result=ok
  if [[ $rc != 0 ]]; then
    result="FAILED (exit $rc, see $log)"
    status=1
  fi
  printf '%-18s %12s %10s %8s %8s  %s\n' "$name" "${execs:-?}" \
    "$(( ${execs:-0} / seconds ))" "${rss:-?}" "$corpus" "$result"
done
if ((status != 0)); then
  for name in "${targets[@]}"; do
    [[ $(cat "$dir/logs/$name.rc" 2>/dev/null) == 0 ]] && continue
    echo "== $name"
    grep -E -A30 '^==[0-9]+==|^SUMMARY|Test unit written' "$dir/logs/$name.log" | head -60 || true
  done
fi
exit $status
