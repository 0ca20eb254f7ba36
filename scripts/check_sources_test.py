#!/usr/bin/env python3
"""Each rule of check_sources.py finds what it is for, and leaves its neighbours alone."""

import contextlib
import io
import unittest

import check_sources

# (file, source, whether it is a fault)
CASES = [
    ("core/reaper.cpp", '#include "app/app_info.h"', False),
    ("app/app_info.cpp", '#include "core/process_manager.h"', True),
    ("app/app_info.cpp", '#include "core/log.h"', False),
    ("platform/nexio/server.cpp", '#include "message/nexio.h"', False),
    ("platform/nexio/server.cpp", '#include "message/request_msg.h"', True),
    ("host/cgroup.cpp", '#include "message/request_msg.h"', True),
    ("host/cgroup.cpp", '#include "platform/plat/plat.h"', False),
    ("host/cgroup.cpp", '#include "platform/plat/plat_record.h"', True),
    ("platform/plat/plat.cpp", '#include "platform/plat/plat_record.h"', False),
    ("tests/unit/a.cpp", '#include "platform/plat/plat_record.h"', False),
    ("host/cgroup.cpp", '#include "cgroup.h"', True),
    ("host/cgroup.cpp", '// #include "core/process_manager.h"', False),
    ("core/log.cpp", '#include "app/app_info.h"', True),
    ("app/a.cpp", "int a; auto* p = new Thing;", True),
    ("app/a.cpp", "list.push_back(new Thing);", True),
    ("app/a.cpp", "x; std::unique_ptr<Thing> p(new Thing(1));", False),
    ("app/a.cpp", "std::unique_ptr<Thing> p; q = new Thing(1);", True),
    ("app/a.cpp", "// a new thing\nint renew = 1'000; const char* s = \"new Thing\";", False),
    ("tests/unit/a.cpp", "sprintf(text, format);", True),
    ("app/a.cpp", "snprintf(text, 10, format);", False),
    ("app/a.cpp", "strcpy_s(to, 10, from);", False),
    ("app/a.cpp", "int n = atoi(text);", True),
    ("app/a.cpp", "syslog(LOG_ERR, text);", True),
    ("core/log.cpp", "vsyslog(level, format, args);", False),
    ("core/log.cpp", 'std::fopen(path, "a+e");', False),
    ("core/log.cpp", 'std::fopen(path, "a+");', True),
    ("host/a.cpp", "std::ifstream file(path);", True),
    ("tests/unit/a.cpp", "std::ifstream file(path);", False),
    ("host/a.cpp", "open(path, O_RDONLY | O_NOCTTY);", True),
    ("host/a.cpp", "open(path.c_str(),\n     O_RDONLY | O_CLOEXEC);", False),
    ("host/a.cpp", "file.open(path);", False),
    ("platform/a.cpp", "accept(listener, nullptr, nullptr);", True),
    ("core/check_thread.cpp", "nanosleep(&left, &left);", True),
    ("core/check_thread.cpp", "SleepNs(30'000'000);", False),
    ("core/check_thread.cpp", "std::lock_guard lock(mutex);", True),
    ("tests/scenario/a.cpp", "kill(pid, SIGKILL);", True),
    ("tests/scenario/a.cpp", "daemon_->kill(); Kill(pid);", False),
    ("app/child.cpp", "_exit(125);", False),
    ("app/child.cpp", "exit(125);", True),
]


class Rules(unittest.TestCase):
    def test_cases(self):
        for path, source, is_fault in CASES:
            with self.subTest(path=path, source=source):
                checker = check_sources.Checker()
                output = io.StringIO()
                with contextlib.redirect_stdout(output):
                    checker.file(path, source)
                self.assertEqual(checker.faults > 0, is_fault, output.getvalue())


if __name__ == "__main__":
    unittest.main()
