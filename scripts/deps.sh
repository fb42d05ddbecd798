#!/usr/bin/env bash
# Installs the Debian packages this project needs, only those missing.
# Usage: scripts/deps.sh [extra-package...]
set -euo pipefail
packages=(cmake ninja-build g++ libgtest-dev libgmock-dev e2fsprogs util-linux mount python3-matplotlib python3-rich tmux mksh toybox "$@")
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
  SUDO=""; [ "$(id -u)" -eq 0 ] || SUDO=sudo
  echo "installing: ${missing[*]}"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
