#!/usr/bin/env python3
"""Drops exception-only branches from a gcovr JSON report, using gcov's own flags.

usage: coverage_throws.py BUILD_DIR IN.json OUT.json

gcovr 5 reads gcov's text output, where a line that one object never ran shows its branches as
"never executed" without the "(throw)" mark. A source built into several programs (the host's
files are in the host, its unit tests and the stress test) then keeps its throw branches in the
figures. gcov's JSON output marks them whether they ran or not: it decides here, per line, and
the branches of lines that hold only braces or comments go as well.
"""
import json
import os
import re
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor


def throw_flags(build, gcda):
    """{(source path, line): [throw flag of each branch]} from one object's counters."""
    out = subprocess.run(["gcov", "-b", "--json-format", "--stdout", gcda], cwd=build,
                         capture_output=True, text=True, check=False).stdout
    flags = {}
    for document in out.splitlines():
        if not document.startswith("{"):
            continue
        data = json.loads(document)
        cwd = data.get("current_working_directory", build)
        for source in data.get("files", []):
            path = os.path.realpath(os.path.join(cwd, source["file"]))
            for line in source.get("lines", []):
                branches = line.get("branches", [])
                if branches:
                    # The first function that holds the line speaks for it: template
                    # instances of one line share their code and so their flags.
                    flags.setdefault((path, line["line_number"]), [b["throw"] for b in branches])
    return flags


def code_free(text):
    """True when a source line holds only braces, parentheses, semicolons or a comment."""
    text = re.sub(r"//.*", "", text)
    return re.search(r"[A-Za-z0-9_]", text) is None


def main():
    build, source_json, target_json = sys.argv[1:4]
    build = os.path.realpath(build)
    gcdas = []
    for folder, _, names in os.walk(build):
        if "/CMakeFiles/3." in folder + "/":
            continue  # CMake's compiler checks
        gcdas += [os.path.join(folder, n) for n in names if n.endswith(".gcda")]
    flags = {}
    with ThreadPoolExecutor(max_workers=os.cpu_count() or 2) as pool:
        for found in pool.map(lambda g: throw_flags(build, g), gcdas):
            for key, value in found.items():
                flags.setdefault(key, value)

    report = json.load(open(source_json))
    root = os.path.realpath(os.path.join(os.path.dirname(sys.argv[0]), ".."))
    for source in report["files"]:
        path = os.path.realpath(os.path.join(root, source["file"]))
        try:
            text = open(path, errors="replace").read().split("\n")
        except OSError:
            text = []
        for line in source["lines"]:
            branches = line.get("branches", [])
            if not branches:
                continue
            number = line["line_number"]
            if number <= len(text) and code_free(text[number - 1]):
                line["branches"] = []
                continue
            known = flags.get((path, number))
            # Only a line whose branches line up one for one with gcov's is trusted.
            if known is not None and len(known) == len(branches):
                line["branches"] = [b for b, thrown in zip(branches, known) if not thrown]
    json.dump(report, open(target_json, "w"))


if __name__ == "__main__":
    main()
