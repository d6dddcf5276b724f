#!/usr/bin/env bash
# Builds the release tree and runs the benchmarks; prints each handler's time
# beside the bare account-library calls it makes, and the ratio; then the
# HTTPS client beside a bare libcurl POST to the same local TLS service, the
# ratio, and the TLS handshake alone; then the development host's `query`
# requests per second from 8 clients, and the latency of a `query` on a new
# connection beside 64 idle ones.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset default >/dev/null
cmake --build --preset default --target bench >/dev/null
out=$(mktemp)
https=$(mktemp)
devhost=$(mktemp)
trap 'rm -f "$out" "$https" "$devhost"' EXIT
build/default/handlers_bench --benchmark_format=json --benchmark_min_time=0.5 --benchmark_repetitions=3 \
  --benchmark_report_aggregates_only=true >"$out"
# Repetitions interleaved at random: the module and bare libcurl share
# whatever else the machine is doing.
build/default/https_bench --benchmark_format=json --benchmark_min_time=0.5 --benchmark_repetitions=10 \
  --benchmark_enable_random_interleaving=true --benchmark_report_aggregates_only=true >"$https"
build/default/devhost_bench --benchmark_format=json --benchmark_min_time=5 --benchmark_repetitions=3 \
  --benchmark_report_aggregates_only=true >"$devhost"
python3 - "$out" "$https" "$devhost" <<'PY'
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

https = json.load(open(sys.argv[2]))
median = {b["run_name"].split("/")[0]: b["real_time"] for b in https["benchmarks"]
          if b.get("aggregate_name") == "median"}
module, bare, floor = median["HttpsRequestSend"], median["BareCurlPost"], median["TlsHandshake"]
print()
print("HTTPS post to a local TLS service, fresh handle each (median of 10, wall clock):")
print(f"{'HttpsRequestSend':<22}{module:>10.0f} us{module / bare:>8.2f}x")
print(f"{'bare libcurl POST':<22}{bare:>10.0f} us")
print(f"{'TLS handshake alone':<22}{floor:>10.0f} us")

devhost = json.load(open(sys.argv[3]))
median = {b["run_name"].split("/")[0]: b for b in devhost["benchmarks"] if b.get("aggregate_name") == "median"}
print()
print(f"webapi-host serve, query from 8 kept-alive clients (median of 3): {median['Query']['items_per_second']:,.0f} requests/s")
idle = median["QueryBesideIdleConnections"]
print(f"webapi-host serve, query on a new connection beside 64 idle ones (median of 3): "
      f"{idle['p50_ms']:.2f} ms median, {idle['p99_ms']:.2f} ms 99th percentile")
PY
