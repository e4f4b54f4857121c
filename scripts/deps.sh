#!/usr/bin/env bash
# Installs the Debian packages that building and testing need (and any named as arguments), when any
# is missing.
set -euo pipefail
need=(cmake g++ make libgtest-dev zlib1g-dev python3 python3-numpy python3-mrcfile python3-gemmi python3-tifffile
  libtiff-dev libtiff-tools man-db groff-base bsdutils bash-completion parallel "$@")
missing=()
for p in "${need[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO=sudo
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq "${missing[@]}" >/dev/null
fi
