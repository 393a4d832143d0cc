#!/usr/bin/env bash
# Installs what is missing, builds, and runs the main job.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
scripts/build.sh release
# Until the daemon exists the main job is the test programs.
ctest --test-dir build --output-on-failure
