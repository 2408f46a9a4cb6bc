#!/usr/bin/env bash
# Installs the Debian packages the project needs, if any is missing.
set -euo pipefail
packages=(cmake ninja-build g++ pkg-config qtbase5-dev libqt5serialport5-dev libqt5serialbus5-dev
  libqt5serialbus5-plugins socat python3 procps)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
