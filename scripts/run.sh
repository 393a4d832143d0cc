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
# Show the trace as it is written: the start-up part is printed as soon as
# start-up is done (the active ring buffer appears then), and every entry
# after it live.  The script stops the follower once kopd has stopped.
(
  while [[ ! -f "$trace_dir/log.kopd_a" ]]; do
    sleep 0.2
    kill -0 "$$" 2>/dev/null || exit 0
  done
  exec "${sudo_cmd[@]}" "$build/tools/koptrace" --follow --dir "$trace_dir" kopd
) &
follow_pid=$!
cleanup() { kill "$follow_pid" 2>/dev/null || true; wait "$follow_pid" 2>/dev/null || true; }
trap cleanup EXIT

# kopd detaches into a session of its own (setsid), so Ctrl-C at the
# terminal does not reach it directly: the script passes it on.  A command
# started in the background of a script ignores SIGINT, so the stop is asked
# for with SIGTERM, which takes the same stop path (modules stopped and
# unloaded, pid and lock file removed).
"${sudo_cmd[@]}" env "${daemon_env[@]}" "$build/daemon/kopd/kopd" -n "$@" &
kopd_pid=$!
trap 'kill -TERM "$kopd_pid" 2>/dev/null || true' INT TERM
status=0
while :; do
  if wait "$kopd_pid"; then status=0; break; else status=$?; fi
  kill -0 "$kopd_pid" 2>/dev/null || break   # ended (else: the wait was interrupted by Ctrl-C)
done
sleep 0.5  # let the follower print the stop sequence
cleanup
# Lines written after the follower ended (the stop sequence) are in the log
# file, which carries every always-written line.
echo "== end of the log file =="
"${sudo_cmd[@]}" tail -n 8 "$trace_dir/log.kopd" 2>/dev/null || true
echo "== the whole trace: ${build#$root/}/tools/koptrace --dir ${trace_dir#$root/} kopd =="
echo "== kopd exited with status $status =="
exit "$status"
