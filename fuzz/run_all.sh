#!/usr/bin/env bash
# Runs every built fuzz target for a few seconds each. A target's seeds are the files listed, one
# glob a line, in fuzz/<target>.seeds, relative to the outside test corpus (../shared/testdata).
set -euo pipefail
build_dir=${1:-build-fuzz}
seconds=${2:-60}
here=$(cd "$(dirname "$0")" && pwd)
testdata=${ORLIN_TESTDATA:-$here/../../shared/testdata}
status=0
for fuzzer in "$build_dir"/fuzzers/*_fuzz; do
  [ -x "$fuzzer" ] || continue
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
  echo "fuzz: $name for ${seconds}s with $(ls "$corpus" | wc -l) seeds"
  if ! "$fuzzer" -max_total_time="$seconds" -max_len=65536 -rss_limit_mb=2048 -timeout=10 -print_final_stats=0 \
      "$corpus" > "$build_dir/$name.log" 2>&1; then
    echo "fuzz: $name FOUND A PROBLEM"; tail -n 60 "$build_dir/$name.log"; status=1
  fi
  rm -rf "$corpus"
done
exit $status
