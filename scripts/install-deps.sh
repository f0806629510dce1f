#!/usr/bin/env bash
# Installs the development packages the kvimage tool needs (PNG and JPEG),
# those of the Python module and its tests (Debian's interpreter, pybind11,
# numpy, pytest), the frei0r header for the video plugins, and the video
# tools their tests run (ffmpeg, melt, GStreamer with its frei0r bridge)
# when the machine lacks them. Sourced by demo.sh and test.sh.
#
#   scripts/install-deps.sh [--peers]
#     --peers  also the imaging libraries the peer benchmarks (bench/peers/)
#              measure beside kvimage: OpenCV and libvips with their headers,
#              and ffmpeg.
#              Only when run directly with the flag: CI and the scripts that
#              source this file never install them.
install_peers=0
if [ "${BASH_SOURCE[0]}" = "$0" ]; then
  for argument in "$@"; do
    case $argument in
      --peers) install_peers=1 ;;
      *) echo "install-deps.sh: unknown option $argument (known: --peers)" >&2; exit 2 ;;
    esac
  done
fi
missing=()
for package in pybind11-dev python3-dev python3-numpy python3-pytest frei0r-plugins-dev ffmpeg melt \
               gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-bad; do
  dpkg -s "$package" >/dev/null 2>&1 || missing+=("$package")
done
dpkg -s libpng-dev >/dev/null 2>&1 || missing+=(libpng-dev)
dpkg -s libjpeg62-turbo-dev >/dev/null 2>&1 || dpkg -s libjpeg-dev >/dev/null 2>&1 || missing+=(libjpeg62-turbo-dev)
if [ "$install_peers" = 1 ]; then
  for package in libopencv-dev libvips-dev ffmpeg pkg-config; do
    dpkg -s "$package" >/dev/null 2>&1 || missing+=("$package")
  done
fi
if ((${#missing[@]})); then
  sudo=$([ "$(id -u)" -eq 0 ] || echo sudo)
  $sudo apt-get update -qq && $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
