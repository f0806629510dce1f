#!/usr/bin/env bash
# The built frei0r plugins in the real hosts.
#   hosts.sh ffmpeg|gstreamer|melt PLUGIN_DIR KVIMAGE_TOOL PLUGIN_SET_TOOL
# ffmpeg and GStreamer: a generated clip through each plugin of the table
# below equals, byte for byte, the same frames through `kvimage stream` with
# the same settings and thread count. melt: its query lists every plugin with
# its parameters, and a keyed render makes the backing transparent and keeps
# the subject.
set -euo pipefail
host=$1 plugins=$2 tool=$3 pluginset=$4
export FREI0R_PATH=$plugins KVIMAGE_THREADS=3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

# plugin ; ffmpeg parameters (in order) ; GStreamer properties ; kvimage stream options.
# Mappings: brightness 0.75 of -1..1 is 0.5; kelvin 0.25 of 1500..13500 is
# 4500; radius 0.05 and erosion 0.0625 of the width are 3 and 4 pixels at 61
# and 64 pixels wide.
cases=(
  "kvimage_brightness;0.75|all;brightness=0.75 channels=all;--brightness 0.5:all"
  "kvimage_colour_temperature;0.25;kelvin=0.25;--colour-temperature 4500"
  "kvimage_tint;gold|0.5;type=gold amount=0.5;--tint gold:0.5"
  "kvimage_stack_blur;0.05|y|n|all;radius=0.05 vertical=false;--stack-blur 3:h:all"
  "kvimage_key;auto|0.5|0.2|0.5|extended|0.5|all|0.0625|0.125;spill-type=extended spill-amount=0.5 erode-size=0.0625 crop-left=0.125;--key auto --spill extended:0.5 --erode 4 --crop 0.125,0,0,0"
)

# Frames of `width`x35 from a test pattern, as raw BGRA.
make_clip() {
  ffmpeg -v error -f lavfi -i "testsrc=size=${1}x35:rate=10" -frames:v 4 -pix_fmt bgra -f rawvideo "$work/in.raw"
}

# Runs each case through the host ($1: a function taking the case's fields)
# and through the tool; the outputs must be the same bytes.
compare_cases() {
  local width=$1 run=$2
  for entry in "${cases[@]}"; do
    IFS=';' read -r plugin params properties options <<<"$entry"
    "$run" "$plugin" "$params" "$properties" >"$work/host.raw"
    # shellcheck disable=SC2086
    "$tool" stream --size "${width}x35" --threads 3 $options <"$work/in.raw" >"$work/tool.raw"
    [ -s "$work/host.raw" ] || fail "$host wrote nothing for $plugin"
    cmp -s "$work/host.raw" "$work/tool.raw" || fail "$host and kvimage stream differ for $plugin ($params)"
    echo "$host $plugin: $(($(stat -c %s "$work/host.raw") / (width * 35 * 4))) frames, same bytes as kvimage stream"
  done
}

run_ffmpeg() {
  ffmpeg -v error -f rawvideo -pix_fmt bgra -s 64x35 -i "$work/in.raw" \
    -vf "format=bgra,frei0r=filter_name=$1:filter_params=$2" -f rawvideo -pix_fmt bgra -
}

run_gstreamer() {
  local element=frei0r-filter-${1//_/-}
  # shellcheck disable=SC2086
  gst-launch-1.0 -q filesrc location="$work/in.raw" ! rawvideoparse width=61 height=35 format=bgra framerate=10/1 \
    ! "$element" $3 ! fdsink fd=1
}

case $host in
  ffmpeg)
    # A plugin exports the frei0r calls and nothing else.
    others=$(nm -D --defined-only "$plugins"/*.so | grep -v -e '^$' -e ':$' -e ' T f0r_' || true)
    [ -z "$others" ] || fail "plugins export more than f0r_*: $others"
    # ffmpeg pads each row to its buffer alignment (64 bytes here) and frei0r
    # frames are packed: a width of 16n pixels keeps the rows packed.
    make_clip 64
    compare_cases 64 run_ffmpeg
    ;;
  gstreamer)
    export GST_REGISTRY=$work/registry.bin
    make_clip 61
    compare_cases 61 run_gstreamer
    ;;
  melt)
    export HOME=$work  # melt may write its settings
    listing=$( (melt -query filters; melt -query transitions) 2>/dev/null)
    "$pluginset" --list >"$work/plugins"
    while read -r plugin type parameters; do
      grep -q "frei0r.$plugin\$" <<<"$listing" || fail "melt does not list $plugin"
    done <"$work/plugins"
    # The parameters, for plugins that between them have every parameter
    # type (each query loads every MLT module: a second of work).
    for plugin in kvimage_key kvimage_vignette kvimage_stack_blur kvimage_blend_normal; do
      read -r _ type parameters < <(grep "^$plugin " "$work/plugins")
      query=$(melt -query "$([ "$type" = mixer2 ] && echo transition || echo filter)=frei0r.$plugin" 2>/dev/null)
      for parameter in $parameters; do
        grep -q "title: $parameter\$" <<<"$query" || fail "melt lists no $parameter for $plugin"
      done
    done
    echo "melt lists all $(wc -l <"$work/plugins") plugins, and the parameters of four"

    # A green backing with a subject in the middle, keyed over three frames.
    printf '%s\n' description=test frame_rate_num=10 frame_rate_den=1 width=64 height=36 progressive=1 sample_aspect_num=1 \
      sample_aspect_den=1 display_aspect_num=16 display_aspect_den=9 colorspace=709 >"$work/profile"
    ffmpeg -v error -f lavfi -i "color=c=0x30B040:s=64x36,drawbox=x=20:y=10:w=24:h=16:c=0xC08060:t=fill,noise=alls=12" \
      -frames:v 1 "$work/take.png"
    melt -silent -profile "$work/profile" "avformat:$work/take.png" out=2 -filter frei0r.kvimage_key key_colour=green \
      -consumer "avformat:$work/keyed.raw" f=rawvideo vcodec=rawvideo pix_fmt=rgba 2>/dev/null
    frame=$((64 * 36 * 4))
    [ "$(stat -c %s "$work/keyed.raw")" -eq $((3 * frame)) ] || fail "melt did not write three 64x36 frames"
    alpha() { od -An -tu1 -j $(($1 * frame + ($3 * 64 + $2) * 4 + 3)) -N1 "$work/keyed.raw" | tr -d ' '; }
    for f in 0 1 2; do
      [ "$(alpha $f 2 2)" -lt 128 ] || fail "frame $f: the backing is not keyed out"
      [ "$(alpha $f 32 18)" -eq 255 ] || fail "frame $f: the subject lost its alpha"
    done
    echo "melt keyed 3 frames: backing alpha $(alpha 0 2 2), subject alpha $(alpha 0 32 18) (both 255 before)"
    ;;
  *) fail "unknown host $host" ;;
esac
