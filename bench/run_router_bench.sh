#!/usr/bin/env bash
# Starts nginx on a free loopback port serving a 1 KB body, runs the router benchmark against it,
# and stops nginx again.
#
#     bench/run_router_bench.sh [build-dir] [benchmark arguments...]
#
# The build directory (default build-bench) must hold a Release build with benchmarks
# (cmake -DCMAKE_BUILD_TYPE=Release -DZUL_BUILD_BENCHMARKS=ON). nginx comes from Debian's nginx
# package and is installed when missing.
set -euo pipefail

build=${1:-build-bench}
shift || true
binary="$build/bench/zul_router_bench"
[[ -x "$binary" ]] || { echo "run_router_bench: $binary is missing; build the zul_router_bench target first" >&2; exit 2; }

if ! command -v nginx >/dev/null && [[ ! -x /usr/sbin/nginx ]]; then
    sudo=; [[ $(id -u) -ne 0 ]] && sudo=sudo
    $sudo apt-get install -y nginx-light >/dev/null
fi
nginx_bin=$(command -v nginx || echo /usr/sbin/nginx)

work=$(mktemp -d)
chmod 755 "$work"   # nginx workers may run as another user
trap 'kill "$(cat "$work/nginx.pid" 2>/dev/null)" 2>/dev/null || true; rm -rf "$work"' EXIT

# A free port: bind port 0 and read what the kernel chose.
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')

mkdir -p "$work/html" "$work/logs"
head -c 1024 /dev/zero | tr '\0' 'z' > "$work/html/1k"
cat > "$work/nginx.conf" <<CONF
worker_processes 1;
pid $work/nginx.pid;
error_log $work/logs/error.log warn;
events { worker_connections 4096; }
http {
    access_log off;
    keepalive_requests 1000000;
    keepalive_timeout 60s;
    client_body_temp_path $work/body;
    proxy_temp_path $work/proxy;
    fastcgi_temp_path $work/fastcgi;
    uwsgi_temp_path $work/uwsgi;
    scgi_temp_path $work/scgi;
    server {
        listen 127.0.0.1:$port;
        root $work/html;
    }
}
CONF
"$nginx_bin" -p "$work" -c "$work/nginx.conf"
for _ in $(seq 50); do
    curl -sf "http://127.0.0.1:$port/1k" -o /dev/null && break
    sleep 0.1
done

ZUL_BENCH_URL="http://127.0.0.1:$port/1k" "$binary" "$@"
