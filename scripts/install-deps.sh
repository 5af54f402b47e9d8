#!/usr/bin/env bash
# Installs the Debian packages Ohmvol3D builds with. Does nothing when all of
# them are present already.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libopenblas-dev liblapack-dev
  libmumps-seq-dev libmetis-dev libtet1.5-dev
  libsuitesparse-dev
  qt6-base-dev
  libgtest-dev
  python3-vtk9
  xvfb xauth
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
"${sudo_cmd[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
