#!/usr/bin/env bash
# Builds and runs every test: the dev build with warnings as errors, then the same suites under
# AddressSanitizer and UndefinedBehaviorSanitizer. Exits non-zero on any failure.
set -euo pipefail
cd "$(dirname "$0")/.."
export CI=${CI:-}
presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(dev asan)
jobs=$(nproc)
for preset in "${presets[@]}"; do
  echo "=== $preset ==="
  CI=1 scripts/setup.sh "$preset"
  ctest --preset "$preset" -j "$jobs"
done
