#!/usr/bin/env bash
# The synthesizer against `fluidsynth -F` in the same run: a dense General MIDI song (16 channels,
# about 8000 notes, about 70 s, made with mido) rendered to a file with FluidR3_GM at 44.1 kHz,
# polyphony 256 on both sides, FluidSynth's reverb and chorus off (the engine has no effects yet),
# both with two cores. Prints both wall times, the speed ratio and the engine's voices per second.
# usage: bench/synth_vs_fluidsynth.sh [build-bench]
set -euo pipefail
build_dir=${1:-build-bench}
bank=${ORLIN_BENCH_SF2:-/usr/share/sounds/sf2/FluidR3_GM.sf2}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

/usr/bin/python3 - "$work" <<'PY'
import sys, random, mido
work = sys.argv[1]
random.seed(17)
mid = mido.MidiFile(type=1, ticks_per_beat=480)
events = []  # (seconds, message)
for ch in range(16):
    if ch != 9:
        events.append((0.0, mido.Message('program_change', channel=ch, program=random.randrange(128))))
    events.append((0.0, mido.Message('control_change', channel=ch, control=10, value=random.randrange(128))))
for n in range(8000):
    at = 70.0 * n / 8000
    ch = random.randrange(16)
    key = 35 + random.randrange(47) if ch == 9 else 36 + random.randrange(48)
    events.append((at, mido.Message('note_on', channel=ch, note=key, velocity=40 + random.randrange(88))))
    events.append((at + 0.1 + random.random(), mido.Message('note_off', channel=ch, note=key, velocity=0)))
events.sort(key=lambda e: e[0])
track = mido.MidiTrack(); mid.tracks.append(track)
last = 0
for t, msg in events:  # 120 bpm: 960 ticks a second
    tick = int(round(t * 960)); msg.time = tick - last; last = tick; track.append(msg)
mid.save(f'{work}/song.mid')
with open(f'{work}/events.txt', 'w') as out:
    for t, msg in events:
        b = msg.bytes() + [0]
        out.write(f'{round(t * 960) / 960:.6f} {b[0]} {b[1]} {b[2]}\n')
PY

start=$(date +%s.%N)
fluidsynth -ni -q -g 1 -R 0 -C 0 -r 44100 -o synth.polyphony=256 -o synth.cpu-cores=2 \
  -T raw -O float -F "$work/fluidsynth.raw" "$bank" "$work/song.mid" >/dev/null 2>&1
fluid=$(echo "$(date +%s.%N) - $start" | bc)

ORLIN_BENCH_SF2=$bank ORLIN_BENCH_EVENTS=$work/events.txt "$build_dir/benchmarks/synth_bench" \
  --benchmark_filter='BM_RenderDenseSong/2' --benchmark_out="$work/ours.json" --benchmark_out_format=json >/dev/null
ORLIN_BENCH_SF2=$bank ORLIN_BENCH_EVENTS=$work/events.txt "$build_dir/benchmarks/synth_bench" \
  --benchmark_filter='BM_RenderDenseSong/1' --benchmark_out="$work/one.json" --benchmark_out_format=json >/dev/null
/usr/bin/python3 - "$work" "$fluid" <<'PY'
import json, sys
work, fluid = sys.argv[1], float(sys.argv[2])
two = json.load(open(f'{work}/ours.json'))['benchmarks'][0]
one = json.load(open(f'{work}/one.json'))['benchmarks'][0]
ours = two['real_time'] / 1000.0
print(f"song: {two['audio_seconds']:.1f} s of audio, mean {two['mean_voices']:.0f} voices")
print(f"fluidsynth -F (2 cores): {fluid:.2f} s")
print(f"orlin engine (2 workers): {ours:.2f} s   (1 worker: {one['real_time'] / 1000.0:.2f} s)")
print(f"speed ratio: {fluid / ours:.2f}x")
print(f"voices per second at 44.1 kHz on one core: {one['voices_per_cpu_second']:.0f}")
PY
