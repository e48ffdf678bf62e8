#!/usr/bin/env bash
# Compares the dynamic symbols a library defines with the MVAPI declarations of its header.
set -euo pipefail
lib=$1 header=$2
exported=$(nm -D --defined-only "$lib" | awk '{print $NF}' | sed 's/@.*//' | sort -u)
declared=$(grep -E '^MVAPI ' "$header" | sed -E 's/\(.*//; s/.*[ *]//' | sort -u)
if [ "$exported" != "$declared" ]; then
  echo "exported but not declared:"; comm -23 <(echo "$exported") <(echo "$declared")
  echo "declared but not exported:"; comm -13 <(echo "$exported") <(echo "$declared")
  exit 1
fi
echo "$(echo "$exported" | wc -l) exports match the header"
