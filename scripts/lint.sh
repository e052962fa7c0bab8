#!/usr/bin/env bash
# Checks the C++ sources against the repository's .clang-format and .clang-tidy: clang-format
# must have nothing to change, and clang-tidy must find nothing in any file that the build
# compiles (its compile commands come from BUILD_DIR, default build/tsan: a clang build, whose
# flags are the ones clang-tidy understands).
#
#   scripts/lint.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build/tsan}"

echo "--- clang-format"
mapfile -t sources < <(git ls-files '*.h' '*.cpp')
if ! clang-format --dry-run -Werror "${sources[@]}"; then
  echo "clang-format: the files above differ from .clang-format (run clang-format -i on them)"
  exit 1
fi
echo "clang-format: ${#sources[@]} files clean"

echo "--- clang-tidy"
if [ ! -f "${build}/compile_commands.json" ]; then
  echo "clang-tidy: no ${build}/compile_commands.json (configure the build first)"
  exit 1
fi
log="$(mktemp)"
trap 'rm -f "${log}"' EXIT
# Every translation unit of ours that the build compiles; headers are checked through them
# (HeaderFilterRegex in .clang-tidy).
run-clang-tidy -p "${build}" -j "$(nproc)" -quiet \
  "^$(pwd)/(VANECameraExtension|backends|tools|tests|bench|fuzz|examples)/" >"${log}" 2>&1 || true
findings="$(sed -e 's/\x1b\[[0-9;]*m//g' "${log}" | grep -E ': (warning|error): ' | sort -u || true)"
if [ -n "${findings}" ]; then
  echo "${findings}"
  echo "clang-tidy: $(echo "${findings}" | wc -l) findings"
  exit 1
fi
units="$(grep -c '"file"' "${build}/compile_commands.json")"
echo "clang-tidy: no findings in ${units} compiled files"
