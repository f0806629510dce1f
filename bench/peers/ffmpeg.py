#!/usr/bin/python3
"""ffmpeg's filters on the frames kvimage_peers measures, as per-frame times.

    bench/peers/ffmpeg.py FRAMES_DIR [--frames N] [--repetitions R] [--threads T]
                          [--ffmpeg PATH] [--filter REGEX] [--output results.json]

FRAMES_DIR holds the raw 1920x1080 BGRA frames `kvimage_peers
--write-frames=DIR` writes (photo.bgra, green-screen.bgra, keyed.bgra). Each
filter chain reads N copies of its frame (-f rawvideo -pix_fmt bgra, the one
frame looped), ends in format=bgra so that every frame comes out as BGRA as
kvimage's do (the conversions ffmpeg inserts to reach a filter's own pixel
format and back are part of its time), and writes to the null muxer. The
same command with no filter (the frames only read and handed on) is timed
too; a job's time per frame is (chain run - plain run) / N, the fastest of R
repetitions of each. Filters run on T slice threads (-filter_threads), the
input on T threads (-threads). Standard library only.
"""

import argparse
import json
import os
import platform
import re
import subprocess
import sys
import time

WIDTH, HEIGHT = 1920, 1080
# The green-screen backing of the frame (red, green, blue), lit 0.88..1.0.
BACKING = "0x3EB02D"

# (job, filter name, settings in words, frames read, filter chain). The job
# names are those of kvimage_peers; the settings are the closest ffmpeg offers.
FILTERS = [
    ("key-and-spill", "ffmpeg:colorkey+despill",
     f"colorkey={BACKING}:0.3:0.1, despill=type=green (packed BGRA)",
     ["green-screen.bgra"], f"colorkey={BACKING}:0.3:0.1,despill=type=green"),
    ("key", "ffmpeg:chromakey", f"chromakey={BACKING}:0.1:0.05 (in yuva444p)",
     ["green-screen.bgra"], f"chromakey={BACKING}:0.1:0.05"),
    ("saturation", "ffmpeg:hue", "hue=s=1.4 (in yuva444p)", ["photo.bgra"], "hue=s=1.4"),
    ("hue-shift", "ffmpeg:hue", "hue=h=45 (in yuva444p)", ["photo.bgra"], "hue=h=45"),
    ("brightness-contrast", "ffmpeg:eq", "eq=contrast=1.3:brightness=0.1 (in yuva444p)", ["photo.bgra"],
     "eq=contrast=1.3:brightness=0.1"),
    ("colour-temperature", "ffmpeg:colortemperature", "colortemperature=temperature=4500 (packed BGRA)",
     ["photo.bgra"], "colortemperature=temperature=4500"),
    ("colour-balance", "ffmpeg:colorbalance",
     "colorbalance midtones rm=0.2:gm=-0.1:bm=-0.3 (packed BGRA; shifts, not gains)", ["photo.bgra"],
     "colorbalance=rm=0.2:gm=-0.1:bm=-0.3"),
    ("stack-blur-8", "ffmpeg:gblur", "gblur=sigma=3.65 (same variance as the radius-8 tent; in gbrap)",
     ["photo.bgra"], "gblur=sigma=3.65"),
    ("stack-blur-32", "ffmpeg:gblur", "gblur=sigma=13.47 (same variance as the radius-32 tent; in gbrap)",
     ["photo.bgra"], "gblur=sigma=13.47"),
    ("sharpen-8", "ffmpeg:unsharp",
     "unsharp 13x13 (its largest), amount 0.7 on luma and chroma (in yuva444p)", ["photo.bgra"],
     "unsharp=13:13:0.7:13:13:0.7"),
    ("composite-over", "ffmpeg:overlay", "overlay=format=auto, straight alpha (packed BGRA)",
     ["photo.bgra", "keyed.bgra"], "[0:v][1:v]overlay=format=auto"),
]


def command(ffmpeg, frames_dir, inputs, chain, frames, threads):
    arguments = [ffmpeg, "-hide_banner", "-nostdin", "-loglevel", "error", "-threads", str(threads)]
    for name in inputs:
        arguments += ["-f", "rawvideo", "-pix_fmt", "bgra", "-s", f"{WIDTH}x{HEIGHT}", "-framerate", "25",
                      "-stream_loop", str(frames - 1), "-i", os.path.join(frames_dir, name)]
    arguments += ["-filter_threads", str(threads)]
    if chain is None:
        # The plain run: every input read and handed to the null muxer.
        for index in range(len(inputs)):
            arguments += ["-map", f"{index}:v"]
    elif len(inputs) > 1:
        arguments += ["-filter_complex", chain + ",format=bgra"]
    else:
        arguments += ["-vf", chain + ",format=bgra"]
    arguments += ["-frames:v", str(frames), "-threads", str(threads), "-f", "null", "-"]
    return arguments


def seconds(arguments):
    start = time.monotonic()
    result = subprocess.run(arguments, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    elapsed = time.monotonic() - start
    if result.returncode != 0:
        raise RuntimeError(f"{' '.join(arguments)}\n{result.stderr.strip()}")
    return elapsed


def ffmpeg_version(ffmpeg):
    output = subprocess.run([ffmpeg, "-version"], stdout=subprocess.PIPE, text=True).stdout
    return output.splitlines()[0] if output else "unknown"


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("frames_dir")
    parser.add_argument("--frames", type=int, default=100, help="frames per run (default 100)")
    parser.add_argument("--repetitions", type=int, default=3, help="runs of each command; the fastest counts")
    parser.add_argument("--threads", type=int, default=2)
    parser.add_argument("--ffmpeg", default="ffmpeg")
    parser.add_argument("--filter", default="", help="only the jobs whose names match this regular expression")
    parser.add_argument("--output", help="JSON file (default: standard output)")
    options = parser.parse_args()
    if options.frames < 1 or options.repetitions < 1:
        parser.error("--frames and --repetitions must be at least 1")

    selected = [f for f in FILTERS if re.search(options.filter, f[0])]
    plain = {}
    rows = []
    for job, name, settings, inputs, chain in selected:
        key = tuple(inputs)
        if key not in plain:
            arguments = command(options.ffmpeg, options.frames_dir, inputs, None, options.frames, options.threads)
            plain[key] = min(seconds(arguments) for _ in range(options.repetitions))
        arguments = command(options.ffmpeg, options.frames_dir, inputs, chain, options.frames, options.threads)
        total = min(seconds(arguments) for _ in range(options.repetitions))
        per_frame_ms = max(total - plain[key], 0.0) / options.frames * 1000.0
        print(f"ffmpeg.py: {job:22} {name:26} {per_frame_ms:8.2f} ms/frame", file=sys.stderr)
        rows.append({"job": job, "peer": name, "settings": settings, "ms": per_frame_ms,
                     "run_s": total, "plain_run_s": plain[key], "command": " ".join(arguments)})

    result = {"context": {"ffmpeg": ffmpeg_version(options.ffmpeg), "frames": options.frames,
                          "repetitions": options.repetitions, "threads": options.threads,
                          "machine": platform.machine(), "load_average": os.getloadavg()},
              "rows": rows}
    text = json.dumps(result, indent=2) + "\n"
    if options.output:
        with open(options.output, "w") as out:
            out.write(text)
    else:
        sys.stdout.write(text)


if __name__ == "__main__":
    main()
