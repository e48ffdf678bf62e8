#!/usr/bin/env bash
# Line coverage of the library, the server and the wire by the whole test suite, with gcovr.
# Prints the summary and writes build/coverage/coverage.html; extra arguments go to gcovr (after
# the search path, so that an option with an optional value such as --txt keeps its default).
set -euo pipefail
cd "$(dirname "$0")/.."
command -v gcovr >/dev/null || {
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends gcovr
}
scripts/setup.sh coverage
find build/coverage -name '*.gcda' -delete
ctest --preset coverage -j "$(nproc)" || true
gcovr --root . --filter 'src/' --filter 'server/' --filter 'rpc/' --exclude '.*/generated/.*' \
  --exclude-unreachable-branches \
  --print-summary --html-details build/coverage/coverage.html build/coverage "$@"
