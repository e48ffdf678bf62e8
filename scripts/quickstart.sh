#!/usr/bin/env bash
# Sets the project up, builds it and runs the example application.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh dev
build/dev/examples/mvcore_quickstart "$@"
