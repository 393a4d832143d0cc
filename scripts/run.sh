#!/usr/bin/env bash
# Installs what is missing, builds, and runs the daemon kopd in the
# foreground ("No Demon" mode) with the bundled module framework and the
# example module, tracing into build/run/trace, and shows the trace as it is
# written.  Ctrl-C stops the daemon in order.
#
# kopd runs as root (with sudo when needed) and uses its real fixed paths:
# /var/lock/kopd.lock, /var/run/kopd.pid and /etc/tarvd/RunLevel.
# Extra arguments go to kopd (e.g. scripts/run.sh -rescan).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

scripts/deps.sh
scripts/build.sh release

build="$root/build"
trace_dir="$build/run/trace"
modules_dir="$build/run/modules.d"
mkdir -p "$trace_dir"
rm -f "$trace_dir"/log.kopd*

sudo_cmd=()
if [[ $(id -u) -ne 0 ]]; then
  sudo_cmd=(sudo)
fi

# Environment of the daemon: the framework from the build tree (absolute
# paths: the daemon changes to / before it loads it), the example module's
# configuration, and tracing at level 3 into the build tree.
daemon_env=(
  "LD_LIBRARY_PATH=$build/framework"
  "TARVD_MODULES_DIR=$modules_dir"
  "TR_LOG_DEBUG_LEVEL=3"
  "TR_LOG_RINGBUF_DIR=$trace_dir"
  "TraceFileLimit=1"
  "TR_LOG_RINGBUF_WEIGHT=1"
  "TR_NICKNAME=${TR_NICKNAME:-}"
)

echo "== kopd: trace in $trace_dir; press Ctrl-C to stop =="
# The log file gets every always-written line at once (version, start-up
# done, signals, run level, exit); follow it while the daemon runs.
tail -n +1 -F "$trace_dir/log.kopd" 2>/dev/null &
tail_pid=$!
cleanup() { kill "$tail_pid" 2>/dev/null || true; wait "$tail_pid" 2>/dev/null || true; }
trap cleanup EXIT
# Ctrl-C reaches kopd through the terminal's process group; the script
# itself only waits for kopd to finish its stop sequence.
trap 'true' INT

status=0
"${sudo_cmd[@]}" env "${daemon_env[@]}" "$build/daemon/kopd/kopd" -n "$@" || status=$?
sleep 0.5  # let tail show the last lines
cleanup

# The full trace (all levels) is in the ring buffers: the start-up one,
# compressed once start-up was done, and the active one.
ring_entries() { awk '/### Begin of RingBuffer. ###/{on=1;next} /## TRACE-END ##/{on=0} on' | tr -d '\000'; }
echo "== full trace (ring buffers) =="
if [[ -f "$trace_dir/log.kopd_i.gz" ]]; then gzip -dc "$trace_dir/log.kopd_i.gz" | ring_entries; fi
if [[ -f "$trace_dir/log.kopd_i" ]]; then ring_entries < "$trace_dir/log.kopd_i"; fi
if [[ -f "$trace_dir/log.kopd_a" ]]; then ring_entries < "$trace_dir/log.kopd_a"; fi
echo "== kopd exited with status $status =="
exit "$status"
