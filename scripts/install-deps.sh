#!/usr/bin/env bash
# Installs the development packages the kvimage tool needs (PNG and JPEG),
# those of the Python module and its tests (Debian's interpreter, pybind11,
# numpy, pytest), the frei0r header for the video plugins, and the video
# tools their tests run (ffmpeg, melt, GStreamer with its frei0r bridge)
# when the machine lacks them. Sourced by demo.sh and test.sh.
missing=()
for package in pybind11-dev python3-dev python3-numpy python3-pytest frei0r-plugins-dev ffmpeg melt \
               gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-bad; do
  dpkg -s "$package" >/dev/null 2>&1 || missing+=("$package")
done
dpkg -s libpng-dev >/dev/null 2>&1 || missing+=(libpng-dev)
dpkg -s libjpeg62-turbo-dev >/dev/null 2>&1 || dpkg -s libjpeg-dev >/dev/null 2>&1 || missing+=(libjpeg62-turbo-dev)
if ((${#missing[@]})); then
  sudo=$([ "$(id -u)" -eq 0 ] || echo sudo)
  $sudo apt-get update -qq && $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
