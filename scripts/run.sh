#!/usr/bin/env bash
# Installs what is missing, builds the server and runs it. Arguments go to the server
# (for example --headless or --port 50001).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build build -j "$(nproc)" --target pointlane
exec build/bin/pointlane "$@"
