#!/usr/bin/env bash
# Installs what the project needs from Debian's packages (idempotent, non-interactive) and builds
# the given preset (default: dev).
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-dev}

packages=(build-essential cmake ninja-build pkg-config binutils
          googletest libgtest-dev libgmock-dev libbenchmark-dev libsqlite3-dev
          capnproto libcapnp-dev openssl
          clang-format clang-tidy)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -q
  $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

extra=()
[ -n "${CI:-}" ] && extra+=(-DMVCORE_WERROR=ON)
cmake --preset "$preset" "${extra[@]}" >/dev/null
cmake --build --preset "$preset"
