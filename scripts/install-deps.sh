#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when missing.
set -euo pipefail

packages=(
  g++ cmake ninja-build make git pkg-config
  libfmt-dev libspdlog-dev libgtest-dev libbenchmark-dev
  libopenblas-dev  # the MatMul benchmark's baseline only
  python3-dev pybind11-dev python3-numpy python3-pytest
  libmpfr-dev  # test-only: the soft-float oracle
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
