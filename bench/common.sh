# Sourced by the benchmark scripts that run the whole server (not a benchmark itself: it is not
# executable, so scripts/bench does not list it). The sourcing script sets bench_name first.
# Gives: a scratch folder removed at exit with every process started through these functions
# (and any pid the script adds to more_pids), a private bus, the loopback test server, a fresh
# cabin-media-server, and the readings and arithmetic the reports share.
bin="${BUILD_DIR:-build}/bin"
export CABIN_TEST_MEDIA_DIR="${BUILD_DIR:-build}/test-media"
scratch=$(mktemp -d)
bus_pid="" http_pid="" server_pid="" more_pids=""
cleanup() {
  for pid in $more_pids $server_pid $http_pid $bus_pid; do
    kill -TERM "$pid" 2> /dev/null && wait "$pid" 2> /dev/null || true
  done
  rm -rf "$scratch"
}
trap cleanup EXIT

waitForLine() {   # waitForLine FILE TEXT: up to 20 s
  for _ in $(seq 200); do grep -q -- "$2" "$1" 2> /dev/null && return 0; sleep 0.1; done
  echo "$bench_name: \"$2\" never appeared in $1" >&2
  tail -n 20 "$1" >&2
  exit 1
}

startHttp() {   # startHttp RESOURCE_OPTIONS...: the loopback test server; sets base (its URL)
  "$bin/cabin-test-http-server" --port 0 "$@" > "$scratch/http.out" 2> /dev/null &
  http_pid=$!
  waitForLine "$scratch/http.out" "listening on"
  base=$(sed -n 's/^listening on //p' "$scratch/http.out" | head -n1)
}

startBus() {   # a private dbus-daemon; sets bus (its address)
  dbus-daemon --session --nofork --nopidfile --print-address --address="unix:tmpdir=$scratch" > "$scratch/address" 2> /dev/null &
  bus_pid=$!
  waitForLine "$scratch/address" "unix:"
  bus=$(head -n1 "$scratch/address")
}

startServer() {   # startServer NAME SINK [SERVER_OPTIONS...]: a fresh server on $bus logging to $scratch/NAME.log
  log="$scratch/$1.log"
  mkdir -p "$scratch/$1/config" "$scratch/$1/cache"
  XDG_CONFIG_HOME="$scratch/$1/config" XDG_CACHE_HOME="$scratch/$1/cache" "$bin/cabin-media-server" \
    --set "service/bus=$bus" --set "gstreamer/audio_sink=$2" "${@:3}" 2> "$log" &
  server_pid=$!
  waitForLine "$log" "run(): running"
}

median() { sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
kib() { sed -n "s/^$2:[[:space:]]*\([0-9]*\) kB/\1/p" "/proc/$1/status"; }   # kib PID VmRSS
cpuSeconds() {   # utime + stime of PID; the fields after the command's closing parenthesis
  sed 's/.*) //' "/proc/$1/stat" | awk -v tck="$(getconf CLK_TCK)" '{ printf "%.3f\n", ($12 + $13) / tck }'
}
summary() {   # summary NAME FIGURE FLOOR UNIT [FLOOR_WORD]
  awk -v n="$1" -v a="$2" -v b="$3" -v u="$4" -v w="${5:+ $5}" \
    'BEGIN { printf "%s: %s %s vs %s %s%s (ratio %.2f)\n", n, a, u, b, u, w, a / b }'
}
