#!/usr/bin/env bash
# Runs the router benchmark against raw libcurl several times in a row and prints each run's
# ratio (router requests per second over raw's, each the median of the run's repetitions), then
# the median ratio. On a shared machine single runs vary by ±15%; the median of ten is steadier,
# and the two benchmarks' repetitions are interleaved so that a slow spell of the machine falls on
# both. (Peak memory is process-wide, so read it from separate runs, not from these.)
#
#     bench/router_ratio.sh [runs] [build-dir]
set -euo pipefail

runs=${1:-10}
build=${2:-build-bench}
here=$(cd "$(dirname "$0")" && pwd)

ratios=()
for _ in $(seq "$runs"); do
    out=$("$here/run_router_bench.sh" "$build" --benchmark_filter='BM_(RawCurlMulti|Router)/' \
        --benchmark_enable_random_interleaving=true 2>/dev/null)
    raw=$(grep 'BM_RawCurlMulti.*_median' <<<"$out" | sed -E 's/.*items_per_second=([0-9.]+)k.*/\1/')
    router=$(grep 'BM_Router/.*_median' <<<"$out" | sed -E 's/.*items_per_second=([0-9.]+)k.*/\1/')
    ratio=$(awk -v a="$router" -v b="$raw" 'BEGIN { printf "%.3f", a / b }')
    ratios+=("$ratio")
    echo "raw ${raw}k/s  router ${router}k/s  ratio $ratio"
done
printf '%s\n' "${ratios[@]}" | sort -n | awk '{ v[NR] = $1 } END { m = (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2; printf "median ratio %.3f over %d runs\n", m, NR }'
