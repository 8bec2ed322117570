"""Shows that each rule of scripts/check-layers can fail, and that an orderly tree passes.

Usage: CheckLayersTest.py SCRIPT COMPILER
"""

import os
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

SCRIPT = ""
COMPILER = ""

ORDERLY_TREE = {
    "Common/Foundation/CMakeLists.txt": "utilia_module(utilia_foundation\n    SOURCES Text.cpp\n    HEADERS Text.h)\n",
    "Common/Logging/CMakeLists.txt": "utilia_module(utilia_logging\n    HEADERS Log.h\n    LINK utilia_foundation)\n",
    "Common/Platform/CMakeLists.txt": "utilia_module(utilia_platform\n    SOURCES\n        Linux/Clock.cpp\n    HEADERS\n"
                                      "        Clock.h  # by (steady) seconds\n    LINK utilia_logging)\n",
    "Common/UtiliaCommon/CMakeLists.txt": "utilia_module(utilia_framework\n    HEADERS\n        Scheduler/Record.h\n"
                                          "    SOURCES Scheduler/Record.cpp LoginItems/List.cpp)\n",
    "Common/Foundation/Text.h": "#pragma once\n\n#include <string>\n\nstd::string text();\n",
    "Common/Logging/Log.h": '#pragma once\n\n#include "Common/Foundation/Text.h"\n\nvoid log();\n',
    "Common/Platform/Clock.h": '#pragma once\n\n#include <chrono>\n\n#include "Common/Logging/Log.h"\n\n'
                               "// Nothing of pid_t here.\nvoid clock();\n",
    "Common/Platform/Linux/Clock.cpp": '#include "Common/Platform/Clock.h"\n\n#include <time.h>\n#include <unistd.h>\n\n'
                                       '#include "Common/Platform/Linux/ClockInternal.h"\n\npid_t owner;\n',
    "Common/Platform/Linux/ClockInternal.h": "#pragma once\n\nvoid tick();\n",
    "Common/UtiliaCommon/Scheduler/Record.h": '#pragma once\n\n#include "Common/Platform/Clock.h"\n\nvoid record();\n',
    "Common/UtiliaCommon/Scheduler/RecordInternal.h": "#pragma once\n\nvoid inner();\n",
    "Common/UtiliaCommon/Scheduler/Record.cpp": '#include "Common/UtiliaCommon/Scheduler/Record.h"\n\n'
                                                '#include "Common/UtiliaCommon/Scheduler/RecordInternal.h"\n\n'
                                                "#ifndef NDEBUG\nvoid checked();\n#endif\n",
    "Common/UtiliaCommon/LoginItems/List.cpp": '#include "Common/UtiliaCommon/Scheduler/Record.h"\n\nvoid list();\n',
    "Applications/Agent/Main.cpp": '#include <iostream>\n\n#include "Common/UtiliaCommon/Scheduler/Record.h"\n',
    "Documentation/Style.md": "Nothing is left to do here.\n",
}


class CheckLayers(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        for path, text in ORDERLY_TREE.items():
            self.write(path, text)

    def write(self, path, text):
        file = Path(self.folder.name, path)
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text, encoding="utf-8")

    def add(self, path, line):
        self.write(path, ORDERLY_TREE[path] + line + "\n")

    def run_check(self, *arguments):
        return subprocess.run([sys.executable, SCRIPT, "--root", self.folder.name, *arguments],
                              capture_output=True, text=True, check=False)

    def assert_found(self, path, rule, *arguments):
        answer = self.run_check(*arguments)
        findings = answer.stdout.splitlines()
        self.assertEqual(len(findings), 1, answer.stdout + answer.stderr)
        self.assertTrue(findings[0].startswith(path + ":"), findings[0])
        self.assertIn(f"[{rule}]", findings[0])
        self.assertEqual(answer.returncode, 1)

    def assert_passes(self, *arguments):
        answer = self.run_check(*arguments)
        self.assertEqual((answer.returncode, answer.stdout, answer.stderr), (0, "", ""))

    def test_passes_an_orderly_tree(self):
        self.assert_passes()

    def test_cannot_check_an_empty_tree(self):
        with tempfile.TemporaryDirectory() as empty:
            answer = subprocess.run([sys.executable, SCRIPT, "--root", empty], capture_output=True, text=True, check=False)
        self.assertEqual(answer.returncode, 2)

    def test_keeps_the_ladder(self):
        for path, line in (
                ("Common/Foundation/Text.h", '#include "Common/Logging/Log.h"'),
                ("Common/Foundation/Text.h", "#include <unistd.h>"),
                ("Common/Foundation/Text.h", "#  include <glib.h>"),
                ("Common/Logging/Log.h", '#include "Common/Platform/Clock.h"'),
                ("Common/Platform/Clock.h", '#include "Common/Platform/Linux/Folders.h"'),
                ("Common/Platform/Clock.h", "#include <sys/types.h>"),
                ("Common/Platform/Clock.h", '#include "Common/UtiliaCommon/Scheduler/Record.h"'),
                ("Common/Platform/Linux/Clock.cpp", '#include "Common/UtiliaCommon/Scheduler/Record.h"'),
                ("Common/UtiliaCommon/Scheduler/Record.cpp", "#include <fcntl.h>"),
                ("Common/UtiliaCommon/LoginItems/List.cpp", '#include "Common/Foundation/None.h"'),
                ("Common/UtiliaCommon/LoginItems/List.cpp", '#include "Applications/Agent/Agent.h"'),
                ("Common/UtiliaCommon/LoginItems/List.cpp", '#include "../Scheduler/Record.h"')):
            with self.subTest(path=path, line=line):
                self.add(path, line)
                self.assert_found(path, "ladder")
                self.write(path, ORDERLY_TREE[path])

    def test_keeps_the_linux_backend_to_the_seam(self):
        self.write("Common/Platform/Linux/Folders.h", "#pragma once\n\nvoid folders();\n")
        for path in ("Common/UtiliaCommon/LoginItems/List.cpp", "Applications/Agent/Main.cpp"):
            with self.subTest(path=path):
                self.add(path, '#include "Common/Platform/Linux/Folders.h"')
                self.assert_found(path, "ladder")
                self.write(path, ORDERLY_TREE[path])

    def test_keeps_applications_and_installed_headers_to_what_is_installed(self):
        self.write("Common/UtiliaCommon/Scheduler/Table.h", "#pragma once\n\nvoid table();\n")
        self.write("Common/Platform/Place.h", "#pragma once\n\nvoid place();\n")
        host = "#pragma once\n\n#include <QObject>\n\nvoid host();\n"
        self.write("Integration/Qt/Host.h", host)
        outside = ('#include "Common/UtiliaCommon/Scheduler/Table.h"', '#include "Common/Platform/Place.h"',
                   "#include <Common/Platform/Place.h>", '#include "../../Common/UtiliaCommon/Scheduler/Table.h"')
        record = "Common/UtiliaCommon/Scheduler/Record.h"
        for path, text, lines in (("Applications/Agent/Main.cpp", ORDERLY_TREE["Applications/Agent/Main.cpp"], outside),
                                  ("Integration/Qt/Host.h", host, outside), (record, ORDERLY_TREE[record], outside[:2])):
            for line in lines:
                with self.subTest(path=path, line=line):
                    self.write(path, text + line + "\n")
                    self.assert_found(path, "installed")
                    self.write(path, text)

    def test_lets_sources_and_tests_include_what_is_not_installed(self):
        self.write("Common/UtiliaCommon/Scheduler/Table.h", "#pragma once\n\nvoid table();\n")
        self.add("Common/UtiliaCommon/LoginItems/List.cpp", '#include "Common/UtiliaCommon/Scheduler/Table.h"')
        self.write("Tests/Unit/TableTest.cpp", '#include "Common/UtiliaCommon/Scheduler/Table.h"\n\nint test();\n')
        self.assert_passes()

    def test_cannot_check_without_the_list_of_what_is_installed(self):
        self.write("Common/Foundation/CMakeLists.txt", "utilia_module(utilia_foundation HEADERS Text.h None.h)\n")
        self.assertEqual(self.run_check().returncode, 2)
        for path in ORDERLY_TREE:
            if path.endswith("CMakeLists.txt"):
                os.remove(Path(self.folder.name, path))
        self.assertEqual(self.run_check().returncode, 2)

    def test_keeps_system_types_out_of_the_seam(self):
        path = "Common/Platform/Clock.h"
        for line in ("pid_t owner();", "void wait(const struct stat& status);", "GMainContext* context();", "ssize_t size();",
                     "void at(timespec moment);"):
            with self.subTest(line=line):
                self.add(path, line)
                self.assert_found(path, "system-type")

    def test_keeps_conditions_out_of_the_framework(self):
        path = "Common/UtiliaCommon/LoginItems/List.cpp"
        for line in ("#ifdef __linux__", "#if defined(__linux__) || defined(__APPLE__)", "#if 0", "#ifndef SOMETHING"):
            with self.subTest(line=line):
                self.add(path, line + "\n#endif")
                self.assert_found(path, "condition")

    def test_finds_ends_of_the_process(self):
        path = "Common/UtiliaCommon/LoginItems/List.cpp"
        for line in ("void f() { std::exit(0); }", "void f() { ::_exit(1); }", "void f() { quick_exit (2); }"):
            with self.subTest(line=line):
                self.add(path, line)
                self.assert_found(path, "end")

    def test_lets_the_facade_end_the_process(self):
        self.write("Common/UtiliaCommon/UtiliaCommon.cpp", "void f() { std::exit(0); }\n")
        self.add("Common/UtiliaCommon/LoginItems/List.cpp", "void g() { self.exit(); onExit(); terminateAndExit(g); }")
        self.assert_passes()

    def test_keeps_internal_headers_in_their_folder(self):
        path = "Common/UtiliaCommon/LoginItems/List.cpp"
        self.add(path, '#include "Common/UtiliaCommon/Scheduler/RecordInternal.h"')
        self.assert_found(path, "internal")

    def test_finds_umbrella_headers(self):
        path = "Common/UtiliaCommon/Everything.h"
        self.write(path, '// All of it.\n#pragma once\n\n#include "Common/UtiliaCommon/Scheduler/Record.h"\n')
        self.assert_found(path, "umbrella")

    def test_keeps_iostream_out_of_the_library(self):
        for path in ("Common/Foundation/Text.h", "Common/Platform/Linux/Clock.cpp"):
            with self.subTest(path=path):
                self.add(path, "#include <iostream>")
                self.assert_found(path, "iostream")
                self.write(path, ORDERLY_TREE[path])

    def test_limits_the_length_of_files(self):
        for path, limit in (("Common/Foundation/Long.h", 250), ("Common/Foundation/Long.cpp", 500)):
            with self.subTest(path=path):
                self.write(path, "int a;\n" * limit)
                self.assert_passes()
                self.write(path, "int a;\n" * (limit + 1))
                self.assert_found(path, "length")
                self.write(path, "// Long file: \n" + "int a;\n" * limit)
                self.assert_found(path, "length")
                self.write(path, "// Long file: one table.\n" + "int a;\n" * limit)
                self.assert_passes()

    def test_finds_what_is_unfinished(self):
        for path in ("Applications/Agent/Main.cpp", "Documentation/Style.md"):
            for word in ("TO" + "DO", "FIX" + "ME"):
                with self.subTest(path=path, word=word):
                    self.add(path, f"// {word}: later")
                    self.assert_found(path, "unfinished")
                    self.write(path, ORDERLY_TREE[path])

    def build_library(self, source):
        library = os.path.join(self.folder.name, "library.so")
        code = os.path.join(self.folder.name, "library.cpp")
        Path(code).write_text(source, encoding="utf-8")
        subprocess.run([COMPILER, "-std=c++20", "-shared", "-fPIC", "-o", library, code], check=True)
        return library

    def test_finds_objects_that_are_initialized_at_load(self):
        library = self.build_library("#include <string>\nint read();\nint read() { return 1; }\n"
                                     "std::string name(static_cast<unsigned>(read()), 'x');\n")
        self.assert_found(library, "initializer", "--library", library)

    def test_passes_constants_statics_of_functions_and_constructor_functions(self):
        library = self.build_library("#include <string>\nconstinit int count = 5;\n"
                                     "const std::string& name();\n"
                                     "const std::string& name() { static const auto* const n = new std::string(); return *n; }\n"
                                     "__attribute__((constructor)) static void loaded() { ++count; }\n")
        self.assert_passes("--library", library)

    def test_cannot_check_a_library_that_is_missing(self):
        self.assertEqual(self.run_check("--library", os.path.join(self.folder.name, "none.so")).returncode, 2)


if __name__ == "__main__":
    COMPILER = sys.argv.pop()
    SCRIPT = sys.argv.pop()
    unittest.main()
