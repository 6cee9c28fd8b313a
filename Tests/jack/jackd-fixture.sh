#!/usr/bin/env bash
# Starts or stops the JACK server that the JACK suite runs against: the dummy driver, no real-time
# scheduling, under a name of its own so that it meets no other server on the machine.
#   jackd-fixture.sh start|stop SERVER-NAME STATE-DIR
set -u
action=$1
name=$2
dir=$3
pidfile="$dir/jackd-$name.pid"
log="$dir/jackd-$name.log"
export JACK_DEFAULT_SERVER="$name" JACK_NO_START_SERVER=1 JACK_NO_AUDIO_RESERVATION=1

stop() {
  [ -f "$pidfile" ] || return 0
  local pid
  pid=$(cat "$pidfile")
  rm -f "$pidfile"
  kill "$pid" 2>/dev/null || return 0
  for _ in $(seq 50); do
    kill -0 "$pid" 2>/dev/null || return 0
    sleep 0.1
  done
  kill -9 "$pid" 2>/dev/null || true
}

case "$action" in
start)
  if ! command -v jackd >/dev/null 2>&1; then
    echo "jackd is not installed: the JACK tests skip"
    exit 0
  fi
  mkdir -p "$dir"
  stop  # a server left behind by an interrupted run
  # Synchronous: a cycle waits for its clients, so a busy machine makes cycles late rather than lose
  # a late client's events (in the default mode JACK skips it and its MIDI for that cycle is gone).
  jackd -n "$name" --no-realtime --sync --timeout 5000 -d dummy -r 48000 -p 256 >"$log" 2>&1 &
  echo $! >"$pidfile"
  for _ in $(seq 100); do
    if jack_lsp >/dev/null 2>&1; then
      echo "jackd '$name' answers (pid $(cat "$pidfile"))"
      exit 0
    fi
    kill -0 "$(cat "$pidfile")" 2>/dev/null || break
    sleep 0.1
  done
  echo "jackd '$name' did not answer:"
  cat "$log"
  stop
  exit 1
  ;;
stop)
  stop
  ;;
*)
  echo "usage: $0 start|stop SERVER-NAME STATE-DIR" >&2
  exit 2
  ;;
esac
