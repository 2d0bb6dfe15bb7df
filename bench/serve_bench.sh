#!/usr/bin/env bash
# File-server benchmark: tovel-ptyd serve side by side with nginx (a private
# instance: sendfile on, keepalive_timeout 0, autoindex on) and
# `python3 -m http.server`, over one tree, interleaved round by round. Every
# client sends "Connection: close". Prints a markdown summary of medians.
#
# Usage: bench/serve_bench.sh [path/to/tovel-ptyd] [rounds]
# Needs wrk, curl, nginx, python3, grep and g++ (apt install wrk curl nginx-light).
# Also times the owner lookup the server makes for every connection
# (bench/serve_owner_lookup.cpp, built here against the platform sources).
set -euo pipefail

BIN=$(realpath "${1:-build-bench/tovel-ptyd}")
ROUNDS=${2:-5}
WRK_SECONDS=${WRK_SECONDS:-5}
for tool in wrk curl nginx python3; do
  command -v "$tool" >/dev/null || { echo "missing $tool (apt install wrk curl nginx-light)" >&2; exit 1; }
done

WORK=$(mktemp -d /tmp/tvbench.XXXXXX)
chmod 755 "$WORK" # nginx workers may run as another user
PIDS=()
cleanup() {
  for pid in "${PIDS[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${PIDS[@]}"; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$WORK"
}
trap cleanup EXIT

free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
wait_port() { for _ in $(seq 100); do curl -s -o /dev/null "http://127.0.0.1:$1/" && return 0; sleep 0.05; done; return 1; }

# The tree: a 1 KiB file, a 256 MiB file, a directory of 2,000 entries and a
# 5,000-file text tree for search with a few needles in it.
ROOT=$WORK/root
mkdir -p "$ROOT/dir2000" "$ROOT/tree"
head -c 1024 /dev/urandom >"$ROOT/1k.bin"
head -c $((256 * 1024 * 1024)) /dev/urandom >"$ROOT/big.bin"
(cd "$ROOT/dir2000" && seq -f 'file-%04g.txt' 1 2000 | xargs touch)
python3 - "$ROOT/tree" <<'PY'
import os, random, sys
random.seed(7)
words = ["alpha", "beta", "gamma", "delta", "epsilon", "zeta"]
for d in range(50):
    os.makedirs(f"{sys.argv[1]}/d{d}/sub", exist_ok=True)
    for f in range(100):
        text = " ".join(random.choice(words) for _ in range(400))
        if (d * 100 + f) % 97 == 0:
            text += " needle"
        with open(f"{sys.argv[1]}/d{d}/sub/f{f}.txt", "w") as out:
            out.write(text + "\n")
PY

TPORT=$(free_port)
"$BIN" serve "$ROOT" --port "$TPORT" >"$WORK/tovel.out" 2>"$WORK/tovel.err" &
PIDS+=($!)
NPORT=$(free_port)
cat >"$WORK/nginx.conf" <<CONF
daemon off; worker_processes 1; pid $WORK/nginx.pid; error_log $WORK/nginx.err;
events { worker_connections 4096; }
http {
  access_log off; sendfile on; keepalive_timeout 0; autoindex on;
  client_body_temp_path $WORK/tmp; proxy_temp_path $WORK/tmp; fastcgi_temp_path $WORK/tmp;
  uwsgi_temp_path $WORK/tmp; scgi_temp_path $WORK/tmp;
  types { text/plain txt; } default_type application/octet-stream;
  server { listen 127.0.0.1:$NPORT; root $ROOT; }
}
CONF
mkdir -p "$WORK/tmp"
nginx -c "$WORK/nginx.conf" -p "$WORK" &
PIDS+=($!)
PPORT=$(free_port)
(cd "$ROOT" && exec python3 -m http.server "$PPORT" --bind 127.0.0.1 >/dev/null 2>&1) &
PIDS+=($!)
for port in "$TPORT" "$NPORT" "$PPORT"; do wait_port "$port" || { echo "server on $port did not start" >&2; exit 1; }; done
cat "$ROOT/big.bin" >/dev/null # every server reads it from the page cache

rps() { wrk -t1 -c16 -d"${WRK_SECONDS}s" -H 'Connection: close' "http://127.0.0.1:$1/1k.bin" | awk '/Requests\/sec/ {print $2}'; }
speed() { curl -s -o /dev/null -H 'Connection: close' -w '%{speed_download}' "http://127.0.0.1:$1/big.bin"; }
took() { curl -s -o /dev/null -H 'Connection: close' -w '%{time_total}' "http://127.0.0.1:$1$2"; }
seconds() { local start end; start=$(date +%s%N); "$@" >/dev/null; end=$(date +%s%N); echo "scale=6; ($end - $start) / 1000000000" | bc -l; }
best_of() { local n=$1 best=; shift; for _ in $(seq "$n"); do v=$("$@"); best=$(echo "$v ${best:-$v}" | awk '{print ($1 < $2) ? $1 : $2}'); done; echo "$best"; }

declare -A R
for _ in $(seq "$ROUNDS"); do
  for who in tovel nginx python; do
    case $who in tovel) port=$TPORT ;; nginx) port=$NPORT ;; python) port=$PPORT ;; esac
    R[$who.rps]+="$(rps "$port") "
  done
  for who in tovel nginx; do
    port=$([ $who = tovel ] && echo "$TPORT" || echo "$NPORT")
    R[$who.big]+="$(speed "$port") "
    page=$([ $who = tovel ] && echo /__tovel/dir2000/ || echo /dir2000/)
    R[$who.page]+="$(best_of 5 took "$port" "$page") "
  done
  R[tovel.search]+="$(best_of 3 took "$TPORT" '/__tovel/tree/?q=needle') "
  R[grep.search]+="$(best_of 3 seconds grep -rIil needle "$ROOT/tree") "
done

median() { tr ' ' '\n' | grep . | sort -g | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
m() { echo "${R[$1]}" | median; }
ratio() { echo "scale=2; $1 / $2" | bc -l | sed 's/^\./0./'; }
mib() { echo "scale=0; $1 / 1048576" | bc -l; }
ms() { echo "scale=1; $1 * 1000 / 1" | bc -l | sed 's/^\./0./'; }

SRC=$(cd "$(dirname "$0")/.." && pwd)
g++ -std=c++23 -O2 -I"$SRC/src" "$SRC/bench/serve_owner_lookup.cpp" "$SRC"/src/platform/*.cpp \
  -o "$WORK/owner_lookup" -lpthread
read -r _ DIAG_US _ PROC_US <<<"$("$WORK/owner_lookup" 20000 | tr '\n' ' ')"

echo "## File server ($(date -u +%F), $ROUNDS rounds, interleaved)"
echo
echo "Command: bench/serve_bench.sh $* on $(nproc) cores, $(uname -sr); medians of the rounds."
echo
echo "| Measure | tovel-ptyd | nginx | python | Ratio | Goal |"
echo "|---|---|---|---|---|---|"
echo "| 1 KiB file, wrk -t1 -c16 -d${WRK_SECONDS}s (req/s) | $(m tovel.rps) | $(m nginx.rps) | $(m python.rps) | $(ratio "$(m tovel.rps)" "$(m nginx.rps)")x nginx, $(ratio "$(m tovel.rps)" "$(m python.rps)")x python | >= 0.8x nginx, >= 10x python |"
echo "| 256 MiB download, curl (MiB/s) | $(mib "$(m tovel.big)") | $(mib "$(m nginx.big)") | - | $(ratio "$(m tovel.big)" "$(m nginx.big)")x nginx | >= 0.9x nginx |"
echo "| 2,000-entry directory page (ms, best of 5) | $(ms "$(m tovel.page)") | $(ms "$(m nginx.page)") (autoindex) | - | $(ratio "$(m tovel.page)" "$(m nginx.page)")x nginx | <= 1x nginx |"
echo "| search of 5,000 files (ms, best of 3) | $(ms "$(m tovel.search)") | - | - | $(ratio "$(m tovel.search)" "$(m grep.search)")x grep -rIil ($(ms "$(m grep.search)") ms) | <= 2x grep |"
echo
echo "Owner lookup per connection: ${DIAG_US} us through sock_diag, ${PROC_US} us through /proc/net/tcp (the fallback)."
