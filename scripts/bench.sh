#!/usr/bin/env bash
# Builds the release tree and runs the benchmarks; prints each handler's time
# beside the bare account-library calls it makes, and the ratio.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset default >/dev/null
cmake --build --preset default --target bench >/dev/null
out=$(mktemp)
trap 'rm -f "$out"' EXIT
build/default/handlers_bench --benchmark_format=json --benchmark_min_time=0.5 --benchmark_repetitions=3 \
  --benchmark_report_aggregates_only=true >"$out"
python3 - "$out" <<'PY'
import json, sys
runs = json.load(open(sys.argv[1]))
ctx = runs["context"]
median = {b["run_name"]: b["real_time"] for b in runs["benchmarks"] if b.get("aggregate_name") == "median"}
print(f"{ctx['num_cpus']} CPUs at {ctx['mhz_per_cpu']} MHz, {ctx['date']}")
print(f"{'method':<18}{'handler ns':>12}{'library ns':>12}{'ratio':>8}")
for name, t in median.items():
    if not name.startswith("Handler/"):
        continue
    method = name.split("/", 1)[1]
    lib = median.get("Library/" + method)
    print(f"{method:<18}{t:>12.0f}{lib:>12.0f}{t / lib:>8.2f}")
PY
