#!/usr/bin/env bash
# Installs every Debian package that the build, the tests, the demo and the
# benchmarks need. Idempotent; apt only; run as root on Debian 12.
set -euo pipefail

PACKAGES=(
  # toolchain and test frameworks
  build-essential cmake make pkg-config git clang clang-format libclang-rt-14-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  # libraries behind the raster engine and the plug-ins
  zlib1g-dev libjpeg62-turbo-dev libturbojpeg0-dev libpng-dev libtiff-dev libgif-dev
  liblcms2-dev libcairo2-dev libpango1.0-dev libfreetype-dev libfontconfig-dev
  libopenjp2-7-dev libopenexr-dev libjbig-dev libraw-dev
  fonts-liberation fonts-dejavu-core libx11-dev
  # a virtual X display for the screen-grab tests
  xvfb x11-xserver-utils
  # independent checkers used by the tests and benchmarks
  qpdf poppler-utils libtiff-tools imagemagick python3 python3-pil python3-numpy
  python3-opencv libvips-tools img2pdf libimage-exiftool-perl liblcms2-utils
  libjpeg-turbo-progs zbar-tools openssl golang-1.19-src
  argyll
)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ "${#missing[@]}" -eq 0 ]; then
  echo "install-deps: all ${#PACKAGES[@]} packages present"
  exit 0
fi

SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update
$SUDO apt-get install -y --no-install-recommends "${missing[@]}"
