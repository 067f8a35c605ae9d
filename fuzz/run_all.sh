#!/usr/bin/env bash
# Runs every built fuzz target for a few seconds each, as many at once as there are cores, each with
# a ceiling on memory (512 MB resident, 256 MB in one allocation) and 10 s per input, so that a reader
# that trusts a forged size or works quadratically fails here rather than at a user's. A target's
# seeds are the files listed, one glob a line, in fuzz/<target>.seeds, relative to the outside test
# corpus (../shared/testdata). The seed of libFuzzer's own randomness is fixed (FUZZ_SEED, 1 unless
# set) so that a run is repeatable where it failed; FUZZ_SEED=0 asks for a fresh one each run, which
# is how longer searches on a developer's machine go.
set -euo pipefail
build_dir=${1:-build-sanitize}
seconds=${2:-30}
here=$(cd "$(dirname "$0")" && pwd)
testdata=${ORLIN_TESTDATA:-$here/../../shared/testdata}
parallel=$(nproc)

run_one() {
  local fuzzer=$1 name corpus n
  name=$(basename "$fuzzer")
  corpus=$(mktemp -d)
  if [ -f "$here/$name.seeds" ] && [ -d "$testdata" ]; then
    while IFS= read -r pattern; do
      [ -z "$pattern" ] && continue
      # Seeds are copied under numbered names: the corpus folder is libFuzzer's to write in.
      n=0
      while IFS= read -r -d '' seed; do
        [ "$(stat -c %s "$seed")" -le 1048576 ] && cp "$seed" "$corpus/seed$((n++))-$(basename "$seed" | tr -c 'A-Za-z0-9._-' _)"
      done < <(find "$testdata" -path "$testdata/$pattern" -type f -print0 2>/dev/null)
    done < "$here/$name.seeds"
  fi
  # Inputs that once found a fault run first, every time.
  if [ -d "$here/../tests/data/fuzz/$name" ]; then
    cp "$here/../tests/data/fuzz/$name"/* "$corpus"/ 2>/dev/null || true
  fi
  echo "fuzz: $name for ${seconds}s with $(ls "$corpus" | wc -l) seeds"
  local status=0
  "$fuzzer" -seed="${FUZZ_SEED:-1}" -artifact_prefix="$build_dir/" -max_total_time="$seconds" -max_len=65536 -rss_limit_mb=512 -malloc_limit_mb=256 -timeout=10 -print_final_stats=0 \
      "$corpus" > "$build_dir/$name.log" 2>&1 || status=$?
  rm -rf "$corpus"
  if [ $status -ne 0 ]; then
    echo "fuzz: $name FOUND A PROBLEM"; tail -n 60 "$build_dir/$name.log"
    return 1
  fi
}

status=0
pids=()
for fuzzer in "$build_dir"/fuzzers/*_fuzz; do
  [ -x "$fuzzer" ] || continue
  run_one "$fuzzer" & pids+=($!)
  if [ ${#pids[@]} -ge "$parallel" ]; then
    wait "${pids[0]}" || status=1
    pids=("${pids[@]:1}")
  fi
done
for pid in "${pids[@]}"; do wait "$pid" || status=1; done
exit $status
