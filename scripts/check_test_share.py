#!/usr/bin/env python3
"""How much of the code is tests. Fails above a third.

What counts is what is compiled or run: sources, headers, scripts, build files; of these the lines that
are neither blank nor wholly a comment. Tests are what lies in tests/. Everything else is everything
else, the sandbox and the benchmarks too, which the demo and ./dev bench run.
"""

import pathlib
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
MOST_PERCENT = 33

# The mark of a comment, by the file's suffix or by its whole path.
COMMENT_MARKS = {".cpp": "//", ".h": "//", ".c": "//", ".py": "#", ".sh": "#", ".cmake": "#",
                 ".bash-completion": "#", "dev": "#", ".ci/run": "#"}


def comment_mark(path):
    if path.name == "CMakeLists.txt":
        return "#"
    return COMMENT_MARKS.get(path.as_posix()) or COMMENT_MARKS.get(path.suffix)


def count_lines(file, mark):
    lines = (line.strip() for line in file.read_text(encoding="utf-8").splitlines())
    return sum(1 for line in lines if line and not line.startswith(mark))


def main():
    counts = {"tests": 0, "everything else": 0}
    for file in ROOT.rglob("*"):
        path = file.relative_to(ROOT)
        mark = comment_mark(path)
        if mark and file.is_file() and not path.parts[0].startswith("build") and path.parts[0] != ".git":
            counts["tests" if path.parts[0] == "tests" else "everything else"] += count_lines(file, mark)
    percent = 100 * counts["tests"] / sum(counts.values())
    print(f"check: {counts['tests']} lines of tests, {counts['everything else']} of everything else: "
          f"{percent:.1f} % are tests, of at most {MOST_PERCENT} %")
    return 0 if percent <= MOST_PERCENT else 1


if __name__ == "__main__":
    sys.exit(main())
