#!/usr/bin/env python3
"""Mutation testing of the engine: how many small faults does the suite catch?

Draws --count sites in src/ with a fixed --seed (an arithmetic or comparison
operator swapped, a constant off by one, a shift turned round, a condition
inverted), then for each one: applies it, rebuilds the given build directory
(ninja: the changed file and the library relink), runs ctest, and restores the
file whatever happens. A mutant is killed when a test fails or times out,
survives when the suite passes, and is left out of the score when it does not
compile. The sample depends only on the seed and on the files under src/, so
the same mutants are drawn before and after the tests change.

Runs by hand (it takes a while), not in CI:
    scripts/mutate.py /path/to/build [--count 48] [--seed 1124] [--timeout 120]

--second-suite BUILD scores a second version of the tests on the same
sample, say before and after a rewrite: a build of a tree whose src/ is the
mutated one (a symlink to it), rebuilt and run after every mutation, so one
draw scores both suites. --only picks sample numbers (1-based) to run again,
say after a test was added. Stopping the script (Ctrl-C, SIGTERM) restores the
mutated file as well.
"""
import argparse
import os
import random
import re
import signal
import subprocess
import sys
import time

SOURCE_SUFFIXES = (".cpp", ".h")

# Binary operators are only taken with a space on each side, which is how the
# engine writes them; template brackets, pointers and references never match.
OPERATOR_SWAPS = {
    "comparison": {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="},
    "arithmetic": {"+": "-", "-": "+", "*": "/", "/": "*", "%": "*"},
    "logical": {"&&": "||", "||": "&&"},
    "shift": {"<<": ">>", ">>": "<<"},
}
BINARY_OPERATOR = re.compile(r"(?<=\s)(<<|>>|<=|>=|==|!=|&&|\|\||<|>|\+|-|\*|/|%)(?=\s)")
INTEGER_CONSTANT = re.compile(r"(?<![\w.])(\d+)(?![\w.'])")
CONDITION = re.compile(r"\b(if|while)\s*\(")
# Lines with many numbers are tables: a mutant there says little about the tests.
MAX_CONSTANTS_ON_A_LINE = 3


def mask_comments_and_strings(lines):
    """Returns the lines with comments, string and character literals blanked
    out (same length), and preprocessor lines emptied."""
    masked = []
    in_block = False
    for line in lines:
        if not in_block and line.lstrip().startswith("#"):
            masked.append(" " * len(line))
            continue
        out = []
        i = 0
        quote = None
        while i < len(line):
            ch = line[i]
            if in_block:
                if line.startswith("*/", i):
                    in_block = False
                    out.append("  ")
                    i += 2
                else:
                    out.append(" ")
                    i += 1
                continue
            if quote:
                if ch == "\\":
                    out.append("  "[: len(line[i:i + 2])])
                    i += 2
                    continue
                if ch == quote:
                    quote = None
                    out.append(ch)
                else:
                    out.append(" ")
                i += 1
                continue
            if line.startswith("//", i):
                out.append(" " * (len(line) - i))
                break
            if line.startswith("/*", i):
                in_block = True
                out.append("  ")
                i += 2
                continue
            if ch in "\"'" and not (ch == "'" and i > 0 and line[i - 1].isalnum()):
                quote = ch
            out.append(ch)
            i += 1
        masked.append("".join(out))
    return masked


def matching_paren(text, open_index):
    depth = 0
    for i in range(open_index, len(text)):
        if text[i] == "(":
            depth += 1
        elif text[i] == ")":
            depth -= 1
            if depth == 0:
                return i
    return -1


def sites_in_file(path, lines):
    """Every mutation site of a file: (kind, path, line index, start, end, replacement)."""
    sites = []
    masked = mask_comments_and_strings(lines)
    for number, text in enumerate(masked):
        if not text.strip() or text.strip().startswith(("static_assert", "template")):
            continue
        for match in BINARY_OPERATOR.finditer(text):
            op = match.group(1)
            for kind, swaps in OPERATOR_SWAPS.items():
                if op in swaps:
                    sites.append((kind, path, number, match.start(1), match.end(1), swaps[op]))
        constants = list(INTEGER_CONSTANT.finditer(text))
        if 0 < len(constants) <= MAX_CONSTANTS_ON_A_LINE:
            for match in constants:
                value = int(match.group(1))
                sites.append(("constant", path, number, match.start(1), match.end(1), str(value + 1)))
        for match in CONDITION.finditer(text):
            open_index = match.end() - 1
            close_index = matching_paren(text, open_index)
            if close_index > open_index + 1:
                inner = lines[number][open_index + 1:close_index]
                sites.append(("condition", path, number, open_index + 1, close_index, "!(" + inner + ")"))
    return sites


def all_sites(src_root):
    sites = []
    for folder, subfolders, files in os.walk(src_root):
        subfolders.sort()
        for file in sorted(files):
            if file.endswith(SOURCE_SUFFIXES):
                path = os.path.join(folder, file)
                with open(path, encoding="utf-8") as handle:
                    lines = handle.read().split("\n")
                sites.extend(sites_in_file(os.path.relpath(path, src_root), lines))
    return sites


def draw(sites, count, seed):
    """The same draw for the same seed and tree: kinds take turns so the many
    arithmetic sites do not crowd out conditions and shifts."""
    rng = random.Random(seed)
    by_kind = {}
    for site in sites:
        by_kind.setdefault(site[0], []).append(site)
    for kind in by_kind:
        rng.shuffle(by_kind[kind])
    kinds = sorted(by_kind)
    chosen = []
    turn = 0
    while len(chosen) < count and any(by_kind.values()):
        kind = kinds[turn % len(kinds)]
        turn += 1
        if by_kind[kind]:
            chosen.append(by_kind[kind].pop())
    return chosen


def run(command, cwd, timeout=None):
    try:
        done = subprocess.run(command, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              timeout=timeout, text=True, errors="replace")
        return done.returncode, done.stdout
    except subprocess.TimeoutExpired as expired:
        return None, (expired.stdout or "") if isinstance(expired.stdout, str) else ""


def first_failure(ctest_output):
    for line in ctest_output.splitlines():
        if "***Failed" in line or "***Timeout" in line or "***Exception" in line or "Subprocess aborted" in line:
            words = line.split()
            return words[3] if len(words) > 3 else line.strip()
    return ""


def source_tree_of(build):
    """The source directory a CMake build tree was configured from."""
    with open(os.path.join(build, "CMakeCache.txt"), encoding="utf-8") as cache:
        for line in cache:
            if line.startswith("CMAKE_HOME_DIRECTORY:"):
                return line.split("=", 1)[1].strip()
    sys.exit(f"{build} is not a CMake build tree")


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", help="a configured and built build directory (Ninja)")
    parser.add_argument("--src", default=os.path.join(here, "..", "src"), help="the tree to mutate")
    parser.add_argument("--seed", type=int, default=1124)
    parser.add_argument("--count", type=int, default=40)
    parser.add_argument("--timeout", type=int, default=120, help="seconds per test; a timeout kills the mutant")
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--list", action="store_true", help="only print the drawn sites")
    parser.add_argument("--second-suite", help="another build directory, of a tree whose src/ is the mutated one")
    parser.add_argument("--only", help="comma-separated sample numbers (1-based) to run")
    args = parser.parse_args()

    src_root = os.path.abspath(args.src)
    build = os.path.abspath(args.build)
    sites = all_sites(src_root)
    sample = draw(sites, args.count, args.seed)
    print(f"{len(sites)} sites in {src_root}; drawing {len(sample)} with seed {args.seed}", flush=True)
    if args.list:
        for kind, path, number, start, end, replacement in sample:
            print(f"{path}:{number + 1}: {kind}: -> {replacement.strip()}")
        return 0

    ctest = ["ctest", "-j", str(args.jobs), "--timeout", str(args.timeout), "--stop-on-failure",
             "--output-on-failure"]
    suites = [("", build)]
    if args.second_suite:
        second = os.path.abspath(args.second_suite)
        suites.append(("second ", second))
        if os.path.realpath(os.path.join(source_tree_of(second), "src")) != os.path.realpath(src_root):
            sys.exit(f"{second} is not built from {src_root}: link its tree's src/ to it")
    # A stop restores the mutated file: SystemExit runs the finally below.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("stopped"))
    for name, directory in suites:
        code, output = run(["ninja", "-j", str(args.jobs)], directory)
        if code != 0:
            print(output)
            sys.exit(f"the unmutated {name}tree does not build")
        code, output = run(ctest, directory)
        if code != 0:
            print(output[-3000:])
            sys.exit(f"the unmutated {name}suite fails; a score would mean nothing")

    chosen = range(1, len(sample) + 1)
    if args.only:
        chosen = [int(n) for n in args.only.split(",")]
    tallies = [{"killed": 0, "survived": 0, "survivors": []} for _ in suites]
    broken = 0
    for index in chosen:
        kind, path, number, start, end, replacement = sample[index - 1]
        file = os.path.join(src_root, path)
        with open(file, encoding="utf-8") as handle:
            original = handle.read()
        lines = original.split("\n")
        before = lines[number]
        lines[number] = before[:start] + replacement + before[end:]
        label = f"[{index:2}/{len(sample)}] {path}:{number + 1} {kind}: {before[start:end].strip()} -> {replacement.strip()}"
        began = time.time()
        verdicts = []
        try:
            with open(file, "w", encoding="utf-8") as handle:
                handle.write("\n".join(lines))
            code, output = run(["ninja", "-j", str(args.jobs)], build)
            if code != 0:
                verdicts.append("did-not-compile")
                broken += 1
            else:
                for (name, directory), tally in zip(suites, tallies):
                    if directory != build:
                        run(["ninja", "-j", str(args.jobs)], directory)
                    code, output = run(ctest, directory)
                    if code == 0:
                        verdicts.append(name + "SURVIVED")
                        tally["survived"] += 1
                        tally["survivors"].append(f"[{index}] {path}:{number + 1}: {before.strip()}  =>  {lines[number].strip()}")
                    else:
                        verdicts.append(name + "killed by " + first_failure(output))
                        tally["killed"] += 1
        finally:
            with open(file, "w", encoding="utf-8") as handle:
                handle.write(original)
        print(f"{label}: {'; '.join(verdicts)} ({time.time() - began:.0f} s)", flush=True)

    for name, directory in suites:
        run(["ninja", "-j", str(args.jobs)], directory)
    for (name, directory), tally in zip(suites, tallies):
        counted = tally["killed"] + tally["survived"]
        score = tally["killed"] / counted if counted else 0.0
        print(f"\n{name}suite ({directory}): {tally['killed']} killed / {counted} counted = {score:.1%} "
              f"({tally['survived']} survived, {broken} did not compile)")
        for line in tally["survivors"]:
            print("survivor: " + line)
    return 0


if __name__ == "__main__":
    sys.exit(main())
