#!/usr/bin/env bash
# Configures and builds one build tree: scripts/build.sh <dir> [sanitizer]
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
san=${2:-}
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCANOPEN_SANITIZER="$san" >/dev/null
ninja -C "$dir" ${NINJA_FLAGS:-}
