#!/usr/bin/env bash
# Builds and runs the whole test suite: the release build, then under AddressSanitizer with
# UndefinedBehaviorSanitizer, then under ThreadSanitizer. Installs what is missing first.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

jobs="$(nproc)"
for preset in release asan-ubsan tsan; do
  echo "=== ${preset}: configure and build ==="
  cmake --preset "${preset}" >/dev/null
  cmake --build --preset "${preset}" -j "${jobs}"
  echo "=== ${preset}: test ==="
  ctest --preset "${preset}" -j "${jobs}"
done
