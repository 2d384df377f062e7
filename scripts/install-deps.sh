#!/usr/bin/env bash
# Installs the Debian packages that building, the demo and the tests need, only when one is
# missing. The CUDA toolkit (nvcc) is expected under /usr/local/cuda or on PATH.
set -euo pipefail

PACKAGES=(
  cmake g++ make pkg-config
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev
  gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad
  libpng-dev zlib1g-dev libgtest-dev libopencv-core-dev
  python3-gi python3-gst-1.0 gir1.2-gst-plugins-base-1.0 python3-numpy
  libglew-dev libx11-dev libgl-dev libgl1-mesa-dri xvfb libxtst-dev
  libturbojpeg0-dev
  gnuplot-nox
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if ((${#missing[@]})); then
  echo "Installing missing packages: ${missing[*]}"
  SUDO=""
  if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

if ! command -v nvcc >/dev/null 2>&1 && [ ! -x /usr/local/cuda/bin/nvcc ]; then
  echo "error: the CUDA toolkit (nvcc) was not found; install CUDA 12 or newer under /usr/local/cuda" >&2
  exit 1
fi
