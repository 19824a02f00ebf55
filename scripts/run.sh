#!/usr/bin/env bash
# The main job: sets up what is missing, configures, builds the simulator and runs it. Every
# argument goes to ovinmirel-sim; without one it runs the built-in scenario.
#   bash scripts/run.sh
#   bash scripts/run.sh my-switch.json --json state.json
# Set-up and build messages go to standard error, so standard output is the simulator's alone.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
bash "$root/scripts/setup.sh" >&2
# The same build directory and type as scripts/test.sh, so the two share one build.
cmake -S "$root" -B "$root/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >&2
cmake --build "$root/build" --target ovinmirel-sim -j "$(nproc)" >&2
exec "$root/build/tools/ovinmirel-sim" "$@"
