#!/usr/bin/env bash
# File-server benchmarks, side by side in one run: tovel-ptyd serve, nginx
# (sendfile on, keepalive_timeout 0, autoindex on) and python's http.server
# over the same tree; every client sends "Connection: close".
# Usage: bench/serve_bench.sh [path/to/tovel-ptyd] [rounds]
set -euo pipefail
BIN=$(realpath "${1:-build/tovel-ptyd}")
ROUNDS=${2:-3}
for tool in wrk curl nginx python3; do
  command -v "$tool" >/dev/null || { echo "missing $tool (apt install wrk curl nginx-light)"; exit 1; }
done
WORK=$(mktemp -d /tmp/tvs.XXXXXX)
PIDS=()
cleanup() { for p in "${PIDS[@]}"; do kill "$p" 2>/dev/null || true; done; rm -rf "$WORK"; }
trap cleanup EXIT

ROOT=$WORK/root
mkdir -p "$ROOT/dir2000" "$ROOT/tree"
head -c 1024 /dev/urandom > "$ROOT/1k.bin"
head -c 268435456 /dev/zero > "$ROOT/big.bin"
for i in $(seq 1 2000); do : > "$ROOT/dir2000/file-$i.txt"; done
python3 - "$ROOT/tree" <<'PY'
import os, sys, random
random.seed(7)
root = sys.argv[1]
for d in range(50):
    os.makedirs(f"{root}/d{d}/sub", exist_ok=True)
    for f in range(100):
        words = " ".join(random.choice(["alpha", "beta", "gamma", "delta"]) for _ in range(200))
        if (d * 100 + f) % 97 == 0:
            words += " needle"
        with open(f"{root}/d{d}/sub/f{f}.txt", "w") as out:
            out.write(words)
PY

"$BIN" serve "$ROOT" > "$WORK/port" 2>/dev/null &
PIDS+=($!)
for _ in $(seq 50); do [ -s "$WORK/port" ] && break; sleep 0.1; done
TPORT=$(awk '{print $2}' "$WORK/port")

NPORT=18480
cat > "$WORK/nginx.conf" <<CONF
daemon off; worker_processes 1; pid $WORK/nginx.pid; error_log $WORK/nginx.err;
events { worker_connections 1024; }
http { access_log off; sendfile on; keepalive_timeout 0; autoindex on;
  client_body_temp_path $WORK; proxy_temp_path $WORK; fastcgi_temp_path $WORK;
  uwsgi_temp_path $WORK; scgi_temp_path $WORK;
  server { listen 127.0.0.1:$NPORT; root $ROOT; } }
CONF
nginx -c "$WORK/nginx.conf" -p "$WORK" &
PIDS+=($!)
PPORT=18481
(cd "$ROOT" && exec python3 -m http.server "$PPORT" --bind 127.0.0.1 >/dev/null 2>&1) &
PIDS+=($!)
sleep 1

rps() { wrk -t1 -c16 -d5s -H 'Connection: close' "http://127.0.0.1:$1/1k.bin" | awk '/Requests\/sec/ {print $2}'; }
speed() { curl -s -o /dev/null -H 'Connection: close' -w '%{speed_download}' "http://127.0.0.1:$1/$2"; }
took() { curl -s -o /dev/null -H 'Connection: close' -w '%{time_total}' "http://127.0.0.1:$1$2"; }
median() { sort -g | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }

declare -A R
for round in $(seq "$ROUNDS"); do
  for who in tovel nginx python; do
    port=$([ $who = tovel ] && echo "$TPORT" || ([ $who = nginx ] && echo $NPORT || echo $PPORT))
    R[$who.rps]+="$(rps "$port") "
    [ $who = python ] && continue
    R[$who.big]+="$(speed "$port" big.bin) "
    page=$([ $who = tovel ] && echo /__tovel/dir2000/ || echo /dir2000/)
    for _ in 1 2 3 4 5; do R[$who.page]+="$(took "$port" "$page") "; done
  done
  R[tovel.search]+="$(took "$TPORT" '/__tovel/tree/?q=needle') "
  start=$(date +%s.%N); grep -rIil needle "$ROOT/tree" >/dev/null; end=$(date +%s.%N)
  R[grep.search]+="$(echo "$end - $start" | bc -l) "
done

m() { echo "${R[$1]}" | tr ' ' '\n' | grep . | median; }
ratio() { echo "scale=2; $1 / $2" | bc -l; }
echo "## File server ($(date +%F), $ROUNDS rounds, interleaved)"
echo
echo "- 1 KiB file, wrk -t1 -c16 -d5s: tovel $(m tovel.rps) req/s, nginx $(m nginx.rps), python $(m python.rps) (tovel/nginx $(ratio "$(m tovel.rps)" "$(m nginx.rps)")x, tovel/python $(ratio "$(m tovel.rps)" "$(m python.rps)")x)"
echo "- 256 MiB download, curl: tovel $(ratio "$(m tovel.big)" 1048576) MiB/s, nginx $(ratio "$(m nginx.big)" 1048576) MiB/s ($(ratio "$(m tovel.big)" "$(m nginx.big)")x)"
echo "- 2,000-entry directory page: tovel $(m tovel.page) s, nginx autoindex $(m nginx.page) s ($(ratio "$(m tovel.page)" "$(m nginx.page)")x)"
echo "- search over 5,000 files: tovel $(m tovel.search) s, grep -rIil $(m grep.search) s ($(ratio "$(m tovel.search)" "$(m grep.search)")x)"
