#!/usr/bin/env python3
"""Tells which code each fuzz target reaches with its corpus, and how much of it.

fuzz_coverage.py BUILD [TARGET...]

BUILD is the folder of the preset `coverage`. A line of the output names a target, and each source file
of which it reaches half of the lines or more, or the one of which it reaches most, with that share; a
folder stands for many of them. What all lean on is left out.
"""

import json
import os
import pathlib
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
CORPORA = ROOT / "tests" / "fuzz" / "corpus"
LEFT_OUT = ("tests/", "base/", "core/log.cpp", "core/host_context.cpp")
LEAST_PERCENT = 50
MOST_FILES = 6  # More of them are told by folder.


def measure(program, corpus):
    """Yields the lines of each file as llvm-cov counts them: all, and those that were reached."""
    with tempfile.TemporaryDirectory() as work:
        raw, merged = f"{work}/raw", f"{work}/merged"
        subprocess.run([program, "-runs=0", corpus], check=True, env=os.environ | {"LLVM_PROFILE_FILE": raw},
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        subprocess.run(["llvm-profdata", "merge", raw, "-o", merged], check=True)
        told = subprocess.run(["llvm-cov", "export", "-summary-only", f"-instr-profile={merged}", program],
                              check=True, capture_output=True).stdout
    return {pathlib.Path(file["filename"]): file["summary"]["lines"] for file in json.loads(told)["data"][0]["files"]}


def sources(lines):
    """Yields the project's own sources of which enough is reached, by their paths in it, with their counts."""
    found = [(file.relative_to(ROOT), counts) for file, counts in lines.items()
             if file.suffix == ".cpp" and file.is_relative_to(ROOT)
             and not file.relative_to(ROOT).as_posix().startswith(LEFT_OUT)]
    return ([(path, counts) for path, counts in found if counts["percent"] >= LEAST_PERCENT]
            or [max(found, key=lambda entry: entry[1]["percent"])])


def summarize(found):
    """Yields a text for each file, or for each folder."""
    by_folder = len(found) > MOST_FILES
    groups = {}
    for path, counts in found:
        reached, total = groups.get(path.parent if by_folder else path, (0, 0))
        groups[path.parent if by_folder else path] = reached + counts["covered"], total + counts["count"]
    for path, (reached, total) in sorted(groups.items()):
        yield f"{path} {100 * reached / total:.0f} %"


def main():
    build = pathlib.Path(sys.argv[1])
    for target in sys.argv[2:] or sorted(path.name for path in CORPORA.iterdir()):
        lines = measure(build / "bin" / target, CORPORA / target)
        print(f"{target}: {', '.join(summarize(sources(lines)))}", flush=True)


if __name__ == "__main__":
    main()
