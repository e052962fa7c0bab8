#!/usr/bin/env bash
# The command-line conventions every program keeps: --help prints the usage on stdout and exits
# 0; --version prints "NAME VERSION" and exits 0; a bad option, a missing value and a stray
# argument each get exactly one line on stderr, naming the program, nothing on stdout, and exit
# status 2.
#
#   command-line-test.sh VERSION PROGRAM[:BAD ARGUMENTS] ...
#
# Each PROGRAM is checked with --help, --version, an unknown option, and the extra bad command
# line after the colon, if any (its words split at commas: "sim:demo,--fps" runs `sim demo --fps`;
# "sim:-" runs `sim` without arguments).
set -uo pipefail

version="${1:?usage: command-line-test.sh VERSION PROGRAM[:BAD,ARGS]...}"
shift
failures=0
out="$(mktemp)"
err="$(mktemp)"
trap 'rm -f "${out}" "${err}"' EXIT

fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}

# expect_refusal PROGRAM ARGS...: exit 2, nothing on stdout, one line on stderr naming it.
expect_refusal() {
  local program="$1" name
  shift
  name="$(basename "${program}")"
  "${program}" "$@" >"${out}" 2>"${err}"
  local status=$?
  if [ "${status}" -ne 2 ] || [ -s "${out}" ] || [ "$(wc -l <"${err}")" -ne 1 ] ||
    ! grep -q "^${name}: " "${err}"; then
    fail "${name} $*: exit ${status}, stdout '$(head -c 200 "${out}")', stderr '$(head -c 300 "${err}")'"
  else
    echo "PASS: ${name} $*: $(cat "${err}")"
  fi
}

# refuse_extra PROGRAM EXTRA: the extra bad command line, as the usage line above describes it.
refuse_extra() {
  local program="$1" extra="$2" words
  if [ "${extra}" = "-" ]; then
    expect_refusal "${program}"
  elif [ -n "${extra}" ]; then
    IFS=, read -r -a words <<<"${extra}"
    expect_refusal "${program}" "${words[@]}"
  fi
}

declare -A checked=()
for entry in "$@"; do
  program="${entry%%:*}"
  extra=""
  [ "${entry}" != "${program}" ] && extra="${entry#*:}"
  refuse_extra "${program}" "${extra}"
  [ -n "${checked[${program}]:-}" ] && continue
  checked[${program}]=1
  name="$(basename "${program}")"

  "${program}" --help >"${out}" 2>"${err}"
  status=$?
  if [ "${status}" -ne 0 ] || ! grep -q "^usage: ${name}" "${out}" || [ -s "${err}" ]; then
    fail "${name} --help: exit ${status}, stdout '$(head -c 200 "${out}")', stderr '$(cat "${err}")'"
  else
    echo "PASS: ${name} --help"
  fi

  "${program}" --version >"${out}" 2>"${err}"
  status=$?
  if [ "${status}" -ne 0 ] || [ "$(cat "${out}")" != "${name} ${version}" ] || [ -s "${err}" ]; then
    fail "${name} --version: exit ${status}, printed '$(cat "${out}")', expected '${name} ${version}'"
  else
    echo "PASS: ${name} --version: $(cat "${out}")"
  fi

  expect_refusal "${program}" --no-such-option
done

[ "${failures}" -eq 0 ] && echo "all command-line checks passed"
exit $((failures > 0))
