#!/usr/bin/env python3
"""Rules for the sources that a compiler doesn't know: who may include whom, and what nobody may call.

Prints FILE:LINE: what is wrong, and what to use instead. Exits 1 if there was anything.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent

# Which rooms a room may include, the headers that every room may, and those that a folder offers to others.
def read_rooms():
    rooms, everywhere, offered = {}, set(), {}
    for line in (ROOT / "cmake/rooms.txt").read_text(encoding="utf-8").splitlines():
        if line and not line.startswith("#"):
            room, _, below = line.partition(":")
            if room == "*":
                everywhere.update(below.split())
            elif room.endswith("/"):
                offered[room] = {room + header for header in below.split()}
            else:
                rooms[room] = {room, *below.split()}
    return rooms, everywhere, offered


ROOMS, EVERYWHERE, OFFERED = read_rooms()
# What runs inside the manager's process.
DAEMON = {"base", "platform", "host", "message", "status", "app", "core"}

# (pattern, advice, files that may). Comments and the inside of strings are blanked before the search.
FORBIDDEN_EVERYWHERE = [
    # Right into its owner is fine: a private constructor is out of std::make_unique's reach.
    (r"(?:(?<=[;{}])|^)(?![^;{}]*unique_ptr<)[^;{}]*?(?<!operator )\bnew\b(?!\s*>)",
     "naked new: use std::make_unique, a container or a value", set()),
    (r"\bv?sprintf\s*\(", "unbounded: use std::snprintf or std::string", set()),
    (r"\b(strcpy|strcat|gets|strtok)\s*\(", "unbounded or unsafe: use std::string", set()),
    (r"\bDISABLED_", "a disabled test checks nothing: repair or remove it", set()),
]
FORBIDDEN_OUTSIDE_TESTS = [
    (r"\b(atoi|atol|atoll|atof)\s*\(", "swallows errors: use ParseNumber of base/text.h", set()),
]
FORBIDDEN_IN_SCENARIOS = [
    (r"(?<![\w.>])kill\s*\(", "use Kill of sandbox/process_table.h: a failed look-up names everybody",
     {"tests/scenario/neighbour_test.cpp"}),
]
FORBIDDEN_IN_DAEMON = [
    (r"\b(v?syslog|openlog|closelog)\s*\(", "use core/log.h: syslog waits for the log's reader",
     {"core/log.cpp"}),
    (r"\b(clock_nanosleep|nanosleep|usleep|sleep|sleep_for|sleep_until)\s*\(", "use base/sleep.h",
     {"base/sleep.cpp"}),
    (r"\b(getpw\w+|getgr(nam|gid|ent|ouplist)\w*)\s*\(",
     "use base/user_lookup.h: libc's answers lie in buffers that all threads share",
     {"base/user_lookup.cpp", "app/user_groups.cpp"}),
    (r"\bstd::[io]?fstream\b|\b[io]fstream\b", "not close-on-exec: use base/small_file.h", set()),
    (r"(?<![\w.>])(accept|creat|dup|dup2|epoll_create|inotify_init)\s*\(",
     "not close-on-exec: use the variant that takes a CLOEXEC flag", set()),
    (r"(?<![\w.>])pipe\s*\(", "not close-on-exec: use pipe2 with O_CLOEXEC",
     {"base/child_msg_pipe.cpp"}),
    (r"\bstd::(recursive_|timed_|shared_)?mutex\b|\bstd::(lock_guard|scoped_lock|unique_lock|shared_lock)\b"
     r"|\bstd::condition_variable\b", "use base/mutex.h, which the analysis can check",
     {"base/mutex.h"}),
    (r"\bsystem\s*\(", "a shell in the manager: no", set()),
    (r"(?<![\w.>])(std::)?(exit|quick_exit|abort)\s*\(", "the manager doesn't end by itself", set()),
    # Its threads live as long as the process.
    (r"\.\s*detach\s*\(\s*\)", "nobody joins a detached thread: own it",
     {"platform/nexio/reactor.cpp"}),
]
# Calls that make a descriptor, and what their arguments must hold. core/starter.cpp makes the standard
# descriptors where they are missing, and these are for the children.
DESCRIPTORS_FOR_CHILDREN = {"core/starter.cpp"}
DESCRIPTOR_CALLS = re.compile(
    r"(?<![\w.>])(?:::)?(open|openat|socket|socketpair|accept4|pipe2|epoll_create1|eventfd|signalfd"
    r"|timerfd_create|inotify_init1|memfd_create)\s*\(")
STREAM_CALLS = re.compile(r"(?<![\w.>])(?:std::)?(fopen|popen|fdopen)\s*\(")

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)
# Raw strings, strings, characters (not the ' of 1'000) and comments.
TOKEN = re.compile(
    r'R"(?P<delim>[^()\\ ]{0,16})\(.*?\)(?P=delim)"|"(?:\\.|[^"\\\n])*"'
    r"|(?<![0-9a-fA-F])'(?:\\.|[^'\\\n])+'|//[^\n]*|/\*.*?\*/", re.DOTALL)


def blank(text, strings):
    """Yields `text` without comments, and without the inside of strings if `strings`; lines stay."""
    def replace(match):
        token = match.group(0)
        if token.startswith("/") or strings:
            return re.sub(r"[^\n]", " ", token)
        return token
    return TOKEN.sub(replace, text)


def arguments(text, start):
    """The text between the parenthesis that ends before `start` and its partner."""
    depth = 1
    for end in range(start, len(text)):
        depth += {"(": 1, ")": -1}.get(text[end], 0)
        if depth == 0:
            return text[start:end]
    return text[start:]


class Checker:
    def __init__(self):
        self.faults = 0
        self.files = 0

    def tell(self, path, text, position, what):
        print(f"{path}:{text.count(chr(10), 0, position) + 1}: {what}")
        self.faults += 1

    def rules(self, path, text, table):
        for pattern, advice, allowed in table:
            if path in allowed:
                continue
            for match in re.finditer(pattern, text):
                found = match.group(0).split()[-1]
                self.tell(path, text, match.end() - 1, f"'{found}': {advice}")

    def rooms(self, path, room, text):
        for match in INCLUDE.finditer(text):
            header = match.group(1)
            target = room_of(header)
            if header in EVERYWHERE:
                continue
            if target not in ROOMS:
                self.tell(path, text, match.start(), f'"{header}": write the path from the root')
            elif target not in ROOMS[room]:
                self.tell(path, text, match.start(), f'{room}/ stands below "{header}" and may not include it')
            elif room not in (target, "tests") and header not in OFFERED.get(target + "/", {header}):
                self.tell(path, text, match.start(), f'"{header}": {target}/ keeps it to itself')

    def descriptors(self, path, code, with_strings):
        for match in DESCRIPTOR_CALLS.finditer(code):
            if path not in DESCRIPTORS_FOR_CHILDREN and "CLOEXEC" not in arguments(code, match.end()):
                self.tell(path, code, match.start(), f"'{match.group(1)}' without a CLOEXEC flag")
        for match in STREAM_CALLS.finditer(with_strings):
            if not re.search(r'"[^"]*e[^"]*"\s*$', arguments(with_strings, match.end())):
                self.tell(path, code, match.start(), f"'{match.group(1)}' without \"e\" in its mode")

    def file(self, path, text):
        self.files += 1
        room = room_of(path)
        with_strings = blank(text, strings=False)
        code = blank(text, strings=True)
        self.rules(path, code, FORBIDDEN_EVERYWHERE)
        if room in ROOMS:
            self.rooms(path, room, with_strings)
        if room != "tests":
            self.rules(path, code, FORBIDDEN_OUTSIDE_TESTS)
        if path.startswith("tests/scenario/"):
            self.rules(path, code, FORBIDDEN_IN_SCENARIOS)
        if room in DAEMON:
            self.rules(path, code, FORBIDDEN_IN_DAEMON)
            self.descriptors(path, code, with_strings)


def room_of(path):
    # Ground by what they are, though they are among the chief headers of core/.
    if path.startswith(("core/log.", "core/host_context.")):
        return "base"
    return path.partition("/")[0]


def main():
    print("check: source rules", flush=True)
    checker = Checker()
    for suffix in ("*.h", "*.cpp"):
        for file in sorted(ROOT.rglob(suffix)):
            path = file.relative_to(ROOT).as_posix()
            if not path.startswith("build"):
                checker.file(path, file.read_text(encoding="utf-8"))
    if checker.files == 0:
        sys.exit("no sources found")
    sys.exit(1 if checker.faults else 0)


if __name__ == "__main__":
    main()
