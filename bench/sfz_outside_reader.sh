#!/usr/bin/env bash
# A whole bank through an outside SFZ reader: orlin writes every preset as SFZ, Polyphone 2.2 imports
# each file headless, and bank-fidelity renders each imported preset against the original through
# FluidSynth (--by-name: Polyphone names the preset after the file). Prints the presets that differ and
# the count that match. Too slow for the test suite on big banks (FluidSynth loads the original once
# per preset); the test Conversion.SfzReadByPolyphoneSoundsLikeTheBank runs a sample.
# usage: bench/sfz_outside_reader.sh BANK.sf2 [build-dir]
set -euo pipefail
bank=$1
build=${2:-build}
tool=${BANK_FIDELITY:-$(dirname "$0")/../../shared/tools/bank-fidelity}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/sfz" "$work/imported" "$work/runtime"
chmod 700 "$work/runtime"
"$build/orlin" convert --yes "$bank" --to sfz -o "$work/sfz/bank.sfz" >/dev/null
# Each file is named after the instrument its first line names, as Polyphone takes the preset's name
# from the file.
for file in "$work"/sfz/*.sfz; do
  name=$(head -n 1 "$file" | sed -e 's/^[/ ]*//' -e 's#[/\\:*?"<>|]#_#g')
  [ -n "$name" ] && mv -n "$file" "$work/sfz/$name.sfz.new" || true
done
for file in "$work"/sfz/*.sfz.new; do mv "$file" "${file%.new}"; done
for file in "$work"/sfz/*.sfz; do
  QT_QPA_PLATFORM=offscreen XDG_RUNTIME_DIR="$work/runtime" timeout 120 polyphone -1 -i "$file" -d "$work/imported" \
    >/dev/null 2>&1 || echo "$(basename "$file"): Polyphone failed"
done
good=0
total=0
for file in "$work"/imported/*.sf2; do
  out=$(/usr/bin/python3 "$tool" "$bank" "$file" --by-name || true)
  compared=$(( $(echo "$out" | tail -n 1 | sed 's#^[0-9]*/\([0-9]*\).*#\1#') - $(echo "$out" | grep -c 'missing in converted bank') ))
  [ "$compared" -eq 1 ] || { echo "$(basename "$file"): no preset of that name"; continue; }
  total=$((total + 1))
  differs=$(echo "$out" | grep ' corr ' | grep -v 'presets match' || true)
  if [ -z "$differs" ]; then good=$((good + 1)); else echo "$differs"; fi
done
echo "$good/$total presets match through Polyphone"
