#!/usr/bin/env bash
# Builds and runs the whole test suite: the fuzz targets for a bounded time, then the release
# build, then under AddressSanitizer with UndefinedBehaviorSanitizer, then under ThreadSanitizer,
# with clang-format and clang-tidy (scripts/lint.sh) before the ThreadSanitizer tests.
# Installs what is missing first.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

jobs="$(nproc)"

# The fuzz targets run first, each for a bounded time, so that the test runs' summaries close the
# log. Both start from the simulator's example scripts and the few fuzz-only inputs in fuzz/corpus;
# libFuzzer writes what it finds to the first folder, a scratch one.
echo "=== fuzz: configure, build and run each target for ${FUZZ_SECONDS:=20} s ==="
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "${jobs}"
for target in script_parser_fuzzer relay_fuzzer; do
  work="$(mktemp -d)"
  status=0
  ./build/fuzz/fuzz/"${target}" -max_total_time="${FUZZ_SECONDS}" -timeout=20 -rss_limit_mb=4096 \
    -print_final_stats=1 -artifact_prefix="${work}/" "${work}" tests/tools/scripts fuzz/corpus \
    >"${work}/log" 2>&1 || status=$?
  grep -E "^(Done|==[0-9]+== ERROR|SUMMARY|invariant)" "${work}/log" || true
  if [ "${status}" -ne 0 ]; then
    tail -40 "${work}/log"
    echo "${target} failed (exit ${status})"
    exit 1
  fi
  rm -rf "${work}"
done

for preset in release asan-ubsan tsan; do
  echo "=== ${preset}: configure and build ==="
  cmake --preset "${preset}" >/dev/null
  cmake --build --preset "${preset}" -j "${jobs}"
  if [ "${preset}" = tsan ]; then
    # The style and static checks, on the clang build's compile commands.
    echo "=== lint: clang-format and clang-tidy ==="
    bash scripts/lint.sh build/tsan
  fi
  echo "=== ${preset}: test ==="
  ctest --preset "${preset}" -j "${jobs}"
done
