#!/usr/bin/env bash
# The main job: simulate the bundled example day and show what the application would see.
#
# Installs the dependencies, builds the tools (build/normal, RelWithDebInfo), runs zonaris-sim
# on examples/day.gpx against the embedded reference service and prints the day's timeline:
# every confirmed event and every delivered message with its clock time. The complete output
# (every log line and callback as JSON lines) stays in build/normal/day.jsonl, the score against
# the trace's ground truth in build/normal/day-score.json, and the day drawn as one
# self-contained page (map and timeline, opens offline) in build/normal/day.html.
# Extra arguments go to zonaris-sim, e.g. scripts/demo.sh --silence 0 0 (no silence window).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B build/normal -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZONARIS_SANITIZE= >/dev/null
cmake --build build/normal -j "$jobs" --target zonaris-sim zonaris-timeline zonaris-report \
  >/dev/null

bin=build/normal/tools/zonaris-sim
out=build/normal/day.jsonl
score=build/normal/day-score.json
page=build/normal/day.html
start=2026-03-10T07:30:00

# The silence window: the demo's, or one passed on (zonaris-sim takes it once); the page shades
# the same one.
silence=(17 19)
rest=()
args=("$@")
for ((i = 0; i < ${#args[@]}; i++)); do
  if [ "${args[i]}" = --silence ]; then
    silence=("${args[@]:i+1:2}")
    i=$((i + 2))
  else
    rest+=("${args[i]}")
  fi
done

# The gym visit (18:05 to 18:55) falls in the silence window 17..19 (the hour 18): its events
# arrive, its messages are dropped.
"$bin/zonaris-sim" \
  --trace examples/day.gpx \
  --fences examples/fences.json \
  --beacons examples/beacons.csv \
  --uuid 5A4BCFCE-174E-4BAC-A814-092E77F6B7E5 \
  --tags '{"plan":"demo","lang":"en"}' \
  --silence "${silence[@]}" \
  --start "$start" \
  --dev-mode \
  --score "$score" \
  "${rest[@]}" >"$out"

echo "==== the example day, $start (events and messages)"
"$bin/zonaris-timeline" --start "$start" <"$out"
echo "==== every log line and callback: $out ($(wc -l <"$out") JSON lines)"
build/normal/tools/zonaris-report/zonaris-report "$out" \
  --trace examples/day.gpx \
  --fences examples/fences.json \
  --beacons examples/beacons.csv \
  --score "$score" \
  --silence "${silence[@]}" \
  --start "$start" \
  -o "$page"
echo "==== the day as a picture, map and timeline (opens offline in a browser): $page"
