#!/usr/bin/env bash
# Compares the router-to-raw-libcurl ratio of two builds, run by run in alternation, and prints
# both medians and the paired difference. On a shared machine single runs vary by ±15% and slow
# spells last minutes, so only a paired comparison over many runs tells a few percent apart: each
# run of B is compared with the run of A just before it.
#
#     bench/router_ab.sh CHECKOUT_A CHECKOUT_B [runs]
#
# Each checkout needs a Release build with benchmarks in its build-bench directory (see
# run_router_bench.sh). Runs default to 30, about five minutes.
set -euo pipefail

a=$(cd "$1" && pwd)
b=$(cd "$2" && pwd)
runs=${3:-30}

ratio() {
    local out raw router
    out=$(cd "$1" && bench/run_router_bench.sh build-bench --benchmark_filter='BM_(RawCurlMulti|Router)/' \
        --benchmark_enable_random_interleaving=true 2>/dev/null)
    raw=$(grep 'BM_RawCurlMulti.*_median' <<<"$out" | sed -E 's/.*items_per_second=([0-9.]+)k.*/\1/')
    router=$(grep 'BM_Router/.*_median' <<<"$out" | sed -E 's/.*items_per_second=([0-9.]+)k.*/\1/')
    awk -v a="$router" -v b="$raw" 'BEGIN { printf "%.3f", a / b }'
}

pairs=()
for i in $(seq "$runs"); do
    ra=$(ratio "$a")
    rb=$(ratio "$b")
    echo "run $i: A $ra  B $rb"
    pairs+=("$ra $rb")
done
printf '%s\n' "${pairs[@]}" | awk '
    function median(v, n,   i, j, t) {
        for (i = 2; i <= n; i++) for (j = i; j > 1 && v[j - 1] > v[j]; j--) { t = v[j]; v[j] = v[j - 1]; v[j - 1] = t }
        return (n % 2) ? v[(n + 1) / 2] : (v[n / 2] + v[n / 2 + 1]) / 2
    }
    { a[NR] = $1; b[NR] = $2; d[NR] = $2 - $1; if ($2 > $1) better++ }
    END {
        printf "A median %.3f, B median %.3f; B - A per pair: median %+.3f, B ahead in %d of %d runs\n",
            median(a, NR), median(b, NR), median(d, NR), better, NR
    }'
