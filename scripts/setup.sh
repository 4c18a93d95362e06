#!/usr/bin/env bash
# Installs what building and testing ostrel needs on Debian 12.  Idempotent;
# does nothing but check when everything is there.  Installing needs root:
# run as root, or as a user with sudo.
set -euo pipefail

packages=(
  cmake g++ make pkg-config libgtest-dev      # build and unit tests
  clang llvm libbpf-dev libxdp-dev libelf-dev zlib1g-dev  # AF_XDP backend
  libclang-rt-14-dev                          # fuzz targets' runtimes
  iproute2 procps                             # namespaced test beds
  python3 socat sockperf nodejs               # unmodified programs
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" ||
    missing+=("$p")
done
if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  sudo=""
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null ||
      { echo "setup: installing packages needs root: run this as root" >&2; exit 1; }
    sudo=sudo
  fi
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
