#!/usr/bin/env python3
"""Prints the non-blank, non-comment lines of the tests and of the code they
test, and the ratio of the two.

Tests: everything under tests/ (the fuzz targets included). Code: src/,
include/, tools/, and plugins/ and python/ where they exist. Benchmarks count
on neither side. Only source files count (C and C++ sources and headers,
Python); build files and data do not.
"""
import os
import sys

SOURCE_SUFFIXES = {".c", ".cc", ".cpp", ".cxx", ".h", ".hh", ".hpp", ".inl", ".py"}
TEST_DIRS = ["tests"]
CODE_DIRS = ["src", "include", "tools", "plugins", "python"]


def c_like_lines(text):
    """Lines that hold something besides whitespace and // or /* */ comments."""
    count = 0
    in_block = False
    for line in text.splitlines():
        code = []
        i = 0
        in_string = None
        while i < len(line):
            ch = line[i]
            if in_block:
                end = line.find("*/", i)
                if end < 0:
                    i = len(line)
                else:
                    in_block = False
                    i = end + 2
                continue
            if in_string:
                code.append(ch)
                if ch == "\\":
                    if i + 1 < len(line):
                        code.append(line[i + 1])
                    i += 2
                    continue
                if ch == in_string:
                    in_string = None
                i += 1
                continue
            if line.startswith("//", i):
                break
            if line.startswith("/*", i):
                in_block = True
                i += 2
                continue
            if ch in "\"'":
                in_string = ch
            code.append(ch)
            i += 1
        if "".join(code).strip():
            count += 1
    return count


def python_lines(text):
    count = 0
    in_doc = None
    for line in text.splitlines():
        stripped = line.strip()
        if in_doc:
            if in_doc in stripped:
                in_doc = None
            continue
        if not stripped or stripped.startswith("#"):
            continue
        for quote in ('"""', "'''"):
            if stripped.startswith(quote):
                if stripped.count(quote) == 1:
                    in_doc = quote
                break
        else:
            count += 1
    return count


def count_tree(root, dirs):
    total = 0
    for name in dirs:
        top = os.path.join(root, name)
        for folder, subfolders, files in os.walk(top):
            subfolders[:] = sorted(d for d in subfolders if not d.startswith("."))
            for file in sorted(files):
                suffix = os.path.splitext(file)[1]
                if suffix not in SOURCE_SUFFIXES:
                    continue
                with open(os.path.join(folder, file), encoding="utf-8", errors="replace") as handle:
                    text = handle.read()
                total += python_lines(text) if suffix == ".py" else c_like_lines(text)
    return total


def main():
    root = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
    tests = count_tree(root, TEST_DIRS)
    code = count_tree(root, CODE_DIRS)
    ratio = tests / code if code else 0.0
    print(f"line balance: tests {tests}, code {code}, tests/code {ratio:.1%} (asked: 25-33 %)")


if __name__ == "__main__":
    main()
