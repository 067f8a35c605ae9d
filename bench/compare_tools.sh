#!/usr/bin/env bash
# Conversions side by side with the outside tools that do the same work, in one run: the median of
# RUNS alternated runs of each, the ratio (their time / ours: 1.0 or more means we are as fast or
# faster) and the peak resident memory of each (/usr/bin/time -f %M). Inputs are generated into a
# scratch folder; BENCH_LARGE=1 adds the 1 GB WAV rows. Compressed inputs are decoded to 16-bit PCM,
# as the outside decoders do (left to itself a WAV keeps a compressed wave's own coding).
#   bash bench/compare_tools.sh [build-dir]     (make bench runs it with build-bench)
set -uo pipefail
build_dir=${1:-build-bench}
orlin=$(cd "$build_dir" && pwd)/orlin
runs=${RUNS:-5}
work=$(mktemp -d "${TMPDIR:-/tmp}/orlin-compare-XXXXXX")
trap 'rm -rf "$work"' EXIT
have() { command -v "$1" >/dev/null 2>&1; }
[ -x "$orlin" ] || { echo "compare: no $orlin"; exit 1; }
have sox || { echo "compare: sox is needed to make the inputs"; exit 0; }

# One timed run: prints "seconds peakKiB"; the output folder is emptied first.
timed() {
  rm -rf "$work/out" && mkdir -p "$work/out"
  /usr/bin/time -f '%e %M' -o "$work/time.txt" "$@" >/dev/null 2>&1 || echo "compare: failed: $*" >&2
  tail -n 1 "$work/time.txt"
}
median() { sort -n | awk '{a[NR]=$1} END {print (NR % 2) ? a[(NR + 1) / 2] : (a[NR / 2] + a[NR / 2 + 1]) / 2}'; }

# row LABEL TOOL -- OUR COMMAND... -- THEIR COMMAND...
row() {
  local label=$1 tool=$2; shift 2
  local ours=() theirs=() side=ours
  shift  # --
  for arg in "$@"; do
    if [ "$arg" = "--" ]; then side=theirs; continue; fi
    if [ $side = ours ]; then ours+=("$arg"); else theirs+=("$arg"); fi
  done
  : > "$work/ours.txt"; : > "$work/theirs.txt"
  for _ in $(seq "$runs"); do
    timed "${ours[@]}" >> "$work/ours.txt"
    timed "${theirs[@]}" >> "$work/theirs.txt"
  done
  local ot tt om tm
  ot=$(cut -d' ' -f1 "$work/ours.txt" | median); tt=$(cut -d' ' -f1 "$work/theirs.txt" | median)
  om=$(cut -d' ' -f2 "$work/ours.txt" | sort -n | tail -n 1); tm=$(cut -d' ' -f2 "$work/theirs.txt" | sort -n | tail -n 1)
  awk -v l="$label" -v t="$tool" -v ot="$ot" -v tt="$tt" -v om="$om" -v tm="$tm" 'BEGIN {
    printf "| %-34s | %7.2f s | %-8s %7.2f s | %5.2f | %6.1f / %6.1f MiB |\n", l, ot, t, tt, (ot > 0 ? tt / ot : 0), om / 1024, tm / 1024 }'
}

echo "making inputs in $work ..."
# 100 MB of 16-bit stereo noise at 44.1 kHz is about 594 s.
sox -n -r 44100 -b 16 -c 2 "$work/w100.wav" synth 594 whitenoise vol 0.5
if have flac; then flac -s -5 -f -o "$work/in.flac" "$work/w100.wav"; else ffmpeg -v error -y -i "$work/w100.wav" "$work/in.flac"; fi
sox "$work/w100.wav" -C 192 "$work/in.mp3" 2>/dev/null || ffmpeg -v error -y -i "$work/w100.wav" -b:a 192k "$work/in.mp3"
ffmpeg -v error -y -i "$work/w100.wav" -c:a libvorbis -q:a 5 "$work/in.ogg"
if [ "${BENCH_LARGE:-0}" = 1 ]; then sox -n -r 44100 -b 16 -c 2 "$work/w1g.wav" synth 6087 whitenoise vol 0.5; fi

echo "| work                               | ours      | best outside tool  | ratio | peak memory ours / theirs |"
echo "|---|---|---|---|---|"
row "WAV 100 MB -> raw float" sox -- "$orlin" convert "$work/w100.wav" --to f32 -o "$work/out/a.f32" --yes \
  -- sox "$work/w100.wav" -t f32 "$work/out/a.f32"
row "WAV 100 MB -> 24-bit WAV" sox -- "$orlin" convert "$work/w100.wav" --to wav --data-format "PCM 24-bit" -o "$work/out/a.wav" --yes \
  -- sox "$work/w100.wav" -b 24 "$work/out/a.wav"
if [ -f "$work/w1g.wav" ]; then
  row "WAV 1 GB -> raw float" sox -- "$orlin" convert "$work/w1g.wav" --to f32 -o "$work/out/a.f32" --yes \
    -- sox "$work/w1g.wav" -t f32 "$work/out/a.f32"
  row "WAV 1 GB -> 24-bit WAV" sox -- "$orlin" convert "$work/w1g.wav" --to wav --data-format "PCM 24-bit" -o "$work/out/a.wav" --yes \
    -- sox "$work/w1g.wav" -b 24 "$work/out/a.wav"
fi
row "FLAC -> WAV" ffmpeg -- "$orlin" convert "$work/in.flac" --to wav -o "$work/out/a.wav" --yes \
  -- ffmpeg -v error -y -i "$work/in.flac" "$work/out/a.wav"
if have flac; then
  row "WAV -> FLAC level 5" flac -- "$orlin" convert "$work/w100.wav" --to flac -o "$work/out/a.flac" --yes \
    -- flac -s -5 -f -o "$work/out/a.flac" "$work/w100.wav"
fi
if have mpg123; then
  row "MP3 -> WAV" mpg123 -- "$orlin" convert "$work/in.mp3" --to wav --data-format "PCM 16-bit" -o "$work/out/a.wav" --yes \
    -- mpg123 -q -w "$work/out/a.wav" "$work/in.mp3"
else
  row "MP3 -> WAV" ffmpeg -- "$orlin" convert "$work/in.mp3" --to wav --data-format "PCM 16-bit" -o "$work/out/a.wav" --yes \
    -- ffmpeg -v error -y -i "$work/in.mp3" "$work/out/a.wav"
fi
row "Ogg -> WAV" ffmpeg -- "$orlin" convert "$work/in.ogg" --to wav --data-format "PCM 16-bit" -o "$work/out/a.wav" --yes \
  -- ffmpeg -v error -y -i "$work/in.ogg" "$work/out/a.wav"
bank=/usr/share/sounds/sf2/FluidR3_GM.sf2
if [ -f "$bank" ] && have polyphone; then
  export QT_QPA_PLATFORM=offscreen
  row "FluidR3_GM.sf2 -> SFZ" polyphone -- "$orlin" convert "$bank" --to sfz -o "$work/out/b.sfz" --yes \
    -- polyphone -3 -i "$bank" -d "$work/out" -o b
  row "FluidR3_GM.sf2 re-saved as SF2" polyphone -- "$orlin" convert "$bank" --to sf2 -o "$work/out/b.sf2" --yes \
    -- polyphone -1 -i "$bank" -d "$work/out" -o b
fi
