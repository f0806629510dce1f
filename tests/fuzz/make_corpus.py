#!/usr/bin/env python3
"""Writes the fuzzer's seed corpus (tests/fuzz/corpus/): for every front end
and every row of the stage catalogue it can queue, one small input that
queues that row on a small image, plus a few inputs with several stages,
empty and thin images and many threads. The layout follows the decoder in
PipelineScenario.h; the argument bytes are pseudo-random with a fixed seed,
so the corpus is the same on every run."""
import os
import random
import re
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
CATALOGUE = os.path.join(HERE, "..", "..", "src", "pipeline", "Catalogue.cpp")
FRONT_ENDS = ["Processor", "Keyer", "Compositor"]


def row_counts():
    """Front end -> number of catalogue rows (the decoder's row selectors)."""
    with open(CATALOGUE) as f:
        rows = re.findall(r"\{kFrontEnd(\w+), \"", f.read())
    return {kind: rows.count(name) for kind, name in enumerate(FRONT_ENDS)}


def header(rng, kind, threads, size_mode, size_bytes, stages):
    # Up to 4 threads in one byte below 192; 192 + n - 1 gives n threads.
    # Then order 1 (BGRA), the size, downsample factor 0, the source pattern
    # seed, and a background opacity of 1.0 or a same-size destination.
    thread_byte = threads - 1 if threads <= 4 else 192 + threads - 1
    out = [kind, thread_byte, 1, size_mode] + size_bytes + [0, rng.randrange(256), rng.randrange(256)]
    out += [0] if kind == 2 else [1, rng.randrange(256), rng.randrange(256)]
    return out + [stages]


def main():
    target = sys.argv[1] if len(sys.argv) > 1 else os.path.join(HERE, "corpus")
    os.makedirs(target, exist_ok=True)
    rng = random.Random(20261121)
    seeds = []
    for kind, count in row_counts().items():
        for stage in range(count):
            data = header(rng, kind, 1 + stage % 3, 6, [7, 4], 1) + [stage]
            data += [rng.randrange(256) for _ in range(48)]
            seeds.append(("k%d-stage%02d" % (kind, stage), data))
        for variant, (mode, size) in enumerate([(0, [5]), (1, [5]), (2, []), (3, [200]), (4, [200]), (5, [1, 50])]):
            data = header(rng, kind, 1 + 12 * variant, mode, size, 3)
            data += [rng.randrange(256) for _ in range(120)]
            seeds.append(("k%d-shape%d" % (kind, variant), data))
    for name, data in seeds:
        with open(os.path.join(target, name), "wb") as f:
            f.write(bytes(data))


if __name__ == "__main__":
    main()
