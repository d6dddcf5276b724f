#!/usr/bin/env bash
# Builds the release tree and runs the benchmarks; prints each handler's time
# beside the bare account-library calls it makes, and the ratio; then the
# HTTPS client beside a bare libcurl POST to the same local TLS service, the
# ratio, and the TLS handshake alone; then the development host's `query`
# requests per second from 8 clients, and the latency of a `query` on a new
# connection beside 64 idle ones; last, the host beside a bare server of the
# same HTTP library under wrk (see wrk_figures below); and the whole state of
# 10,000 accounts exported, imported and reset, offline and through the host
# (see state_figures).
#
#   bench.sh          all of it, a few minutes
#   bench.sh --wrk    the host beside the bare server alone, under a minute
#   bench.sh --state  the whole state alone, under a minute
#
# WEBAPI_HOST in the environment measures another build's host.
set -euo pipefail
cd "$(dirname "$0")/.."
case "${1:-}" in
  "" | --wrk | --state) ;;
  *)
    echo "usage: $0 [--wrk | --state]" >&2
    exit 2
    ;;
esac

cmake --preset default >/dev/null
cmake --build --preset default --target bench >/dev/null
work=$(mktemp -d)
started=()
stop_started() {
  for pid in "${started[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in "${started[@]}"; do wait "$pid" 2>/dev/null || true; done
  started=()
}
trap 'stop_started; rm -rf "$work"' EXIT

fail() {
  echo "bench.sh: $*" >&2
  exit 1
}

# The URL a server prints once it listens, or nothing after 20 s.
url_of() {
  for _ in $(seq 200); do
    url=$(grep -so 'http://127\.0\.0\.1:[0-9]*/webapi/entry' "$1" | head -n 1 || true)
    [[ -n "$url" ]] && echo "$url" && return 0
    sleep 0.1
  done
  echo "bench.sh: no server started; what it wrote:" >&2
  cat "$1" "${1%.out}.log" >&2 2>/dev/null
  return 1
}

# Requests per second of one wrk run, 8 connections on 2 threads for 8 s;
# a run with any answer that is not 2xx or 3xx fails.
wrk_rate() {
  local report
  report=$(wrk -t2 -c8 -d8s "$1")
  grep -q 'Non-2xx' <<<"$report" && fail "$1 answered with errors under wrk: $report"
  grep '^Requests/sec:' <<<"$report" | awk '{print $2}'
}

# `webapi-host serve` on a fresh state folder with a signed-in account (a
# version-2 registration signs the device in) beside bare_server answering
# the host's own `query` answer, byte for byte; wrk against each in turn,
# bare, host, bare, host, so that both share whatever else the machine does.
wrk_figures() {
  local query='api=TALV.Core.PellixCenter&version=2&method=query'
  "${WEBAPI_HOST:-build/default/webapi-host}" serve --state "$work/state" --port 0 >"$work/serve.out" 2>"$work/serve.log" &
  started+=($!)
  local host
  host=$(url_of "$work/serve.out")
  curl -sf "$host" -d api=TALV.Core.PellixCenter -d version=2 -d method=register -d account=ada@example.com \
    -d password=secret1 -d fullname='Ada Lovelace' -d critical_release=true | grep -q '"success":true' ||
    fail "the host did not sign the account in"
  curl -sf "$host?$query" >"$work/answer.json" || fail "the host did not answer a query"
  grep -q '"is_logged_in":true' "$work/answer.json" || fail "the query's answer is not signed in: $(cat "$work/answer.json")"
  build/default/bare_server "$work/answer.json" 0 >"$work/bare.out" &
  started+=($!)
  local bare
  bare=$(url_of "$work/bare.out")
  local load_before bare_rates=() host_rates=()
  load_before=$(cut -d' ' -f1 /proc/loadavg)
  for _ in 1 2; do
    bare_rates+=("$(wrk_rate "$bare?$query")")
    host_rates+=("$(wrk_rate "$host?$query")")
  done
  # wrk reads no body: the host's log says whether every query was answered
  # as the signed-in account, and the last answer is still the first.
  awk '/ query: / && !/: 200 success/ { print; bad = 1 } END { exit bad }' "$work/serve.log" >&2 ||
    fail "the host answered some queries otherwise (above)"
  curl -sf "$host?$query" | cmp -s - "$work/answer.json" || fail "the host's answer changed under wrk"
  stop_started
  python3 - "$load_before" "$(cut -d' ' -f1 /proc/loadavg)" "$(wc -c <"$work/answer.json")" \
    "${bare_rates[*]}" "${host_rates[*]}" <<'PY'
import sys
load_before, load_after, size = sys.argv[1], sys.argv[2], sys.argv[3]
bare = [float(r) for r in sys.argv[4].split()]
host = [float(r) for r in sys.argv[5].split()]
print(f"webapi-host serve beside a bare cpp-httplib server, signed-in query ({size} bytes), "
      f"wrk -t2 -c8 -d8s, interleaved; load average {load_before} before, {load_after} after:")
print(f"{'run':<8}{'bare req/s':>12}{'host req/s':>12}")
for i, (b, h) in enumerate(zip(bare, host), 1):
    print(f"{i:<8}{b:>12,.0f}{h:>12,.0f}")
print(f"{'mean':<8}{sum(bare) / len(bare):>12,.0f}{sum(host) / len(host):>12,.0f}"
      f"   host/bare {sum(host) / sum(bare):.2f}x")
PY
}

# The whole state (bench/state_bench.cpp): the median of three runs of each,
# its wall-clock time as a user waits for it, the CPU time and the peak
# resident size of the process that did the work.
state_figures() {
  build/default/state_bench --benchmark_format=json --benchmark_report_aggregates_only=true >"$work/state.json"
  python3 - "$work/state.json" <<'PY'
import json, sys
runs = json.load(open(sys.argv[1]))
load = ", ".join(f"{l:.2f}" for l in runs["context"].get("load_avg", []))
median = {b["run_name"].split("/")[0]: b for b in runs["benchmarks"] if b.get("aggregate_name") == "median"}
print(f"The whole state, 10,000 accounts with 10 purchases and a key each (median of 3; load average {load} at the start):")
print(f"{'':<34}{'wall ms':>10}{'CPU s':>8}{'peak RSS MiB':>14}")
for name, what in [("OfflineImport", "webapi-host state import"), ("OfflineExport", "webapi-host state export"),
                   ("HostPut", "PUT /sim/state"), ("HostGet", "GET /sim/state"),
                   ("HostReset", "POST /sim/reset from that state")]:
    b = median.get(name)
    if b is None:
        print(f"{what:<34}{'failed':>10}")
        continue
    print(f"{what:<34}{b['real_time']:>10.0f}{b['cpu_s']:>8.2f}{b['peak_rss_mib']:>14.0f}")
PY
}

if [[ "${1:-}" == --wrk ]]; then
  wrk_figures
  exit 0
fi
if [[ "${1:-}" == --state ]]; then
  state_figures
  exit 0
fi

out=$work/handlers.json
https=$work/https.json
devhost=$work/devhost.json
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
echo
wrk_figures
echo
state_figures
