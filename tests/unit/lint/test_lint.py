#!/usr/bin/env python3
# tests/unit/lint/test_lint.py: each check of the linter finds its fault and leaves good code alone
# SPDX-License-Identifier: GPL-2.0-only
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[3]
sys.path.insert(0, str(ROOT / "tools" / "lint"))

import build_checks  # noqa: E402
import layers  # noqa: E402
import lint  # noqa: E402
import module_checks  # noqa: E402
import sources  # noqa: E402
import text_checks  # noqa: E402
import tool_checks  # noqa: E402

HEAD = "// {}: a phrase\n// SPDX-License-Identifier: GPL-2.0-only\n"


class LintTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)

    def tree(self, **files):
        """A tree of the given files; __ in a name stands for /, and _DOT_ for a dot."""
        for name, text in files.items():
            self.put(name.replace("__", "/").replace("_DOT_", "."), text)
        return sources.Tree(self.folder.name)

    def put(self, path, text):
        file = Path(self.folder.name, path)
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text.replace("HEAD\n", HEAD.format(path)))

    def texts(self, faults):
        return sorted(f"{f.path}:{f.line} {f.check}" for f in faults)

    def test_head_must_name_the_file_and_the_licence(self):
        tree = self.tree(driver__a_DOT_h="HEAD\n", driver__b_DOT_h="int x;\n")
        self.assertEqual(self.texts(text_checks.check_heads(tree)),
                         ["driver/b.h:1 head", "driver/b.h:2 head"])

    def test_head_of_a_script_stands_below_its_interpreter(self):
        good = "#!/bin/bash\n# x.sh: a phrase\n# SPDX-License-Identifier: GPL-2.0-only\n"
        self.assertEqual(list(text_checks.check_heads(self.tree(x_DOT_sh=good))), [])

    def test_line_of_101_columns_is_a_fault_and_of_100_is_none(self):
        text = "x" * 100 + "\n" + "x" * 101 + "\n// " + "x" * 107 + "\n// " + "x" * 108 + "\n"
        tree = self.tree(a_DOT_h=text, b_DOT_py="#" * 110 + "\n" + "#" * 111 + "\n")
        faults = text_checks.check_lengths(tree)
        self.assertEqual(self.texts(faults), ["a.h:2 columns", "a.h:4 columns", "b.py:2 columns"])

    def test_function_of_71_lines_is_a_fault_and_of_70_is_none(self):
        def function(name, count):
            return f"static int {name}(int a,\n    int b) {{\n" + "    a++;\n" * (count - 3) + "}\n"

        text = "namespace x {\n" + function("short_one", 70) + function("long_one", 71) + "}\n"
        faults = list(text_checks.check_lengths(self.tree(driver__a_DOT_cpp=text)))
        self.assertEqual([f.line for f in faults], [72])
        self.assertIn("long_one has 71 lines", faults[0].text)

    def test_braces_in_strings_types_and_lambdas_make_no_function(self):
        text = ('struct S {\n int f;\n};\nconst char *t = "{ ( {";\nint g() {\n'
                "  auto l = [](int x) { return x; };\n  if (1) {\n  }\n}\n")
        found = text_checks.cpp_functions(text)
        self.assertEqual(found, [(5, 9, "g")])

    def test_file_of_401_lines_is_a_fault_and_a_test_may_have_600(self):
        tree = self.tree(driver__a_DOT_h="\n" * 401, tests__b_DOT_h="\n" * 600,
                         tests__c_DOT_h="\n" * 601)
        self.assertEqual(self.texts(text_checks.check_lengths(tree)),
                         ["driver/a.h:1 file-length", "tests/c.h:1 file-length"])

    def test_long_functions_of_python_and_shell_are_found(self):
        tree = self.tree(a_DOT_py="def f():\n" + "    pass\n" * 70,
                         b_DOT_sh="f() {\n" + "  :\n" * 69 + "}\n")
        self.assertEqual(self.texts(text_checks.check_lengths(tree)),
                         ["a.py:1 function-length", "b.sh:1 function-length"])

    def test_banned_words_count_in_code_and_not_in_comments_or_strings(self):
        text = '// new things, NULL\nauto s = "throw";\nint *p = NULL;\n'
        tree = self.tree(driver__a_DOT_cpp=text)
        self.assertEqual(self.texts(text_checks.check_words(tree)), ["driver/a.cpp:3 words"])

    def test_banned_words_of_the_driver_are_free_elsewhere(self):
        text = "auto *p = new int;\n"
        tree = self.tree(driver__a_DOT_cpp=text, ctl__a_DOT_cpp=text)
        self.assertEqual(self.texts(text_checks.check_words(tree)), ["driver/a.cpp:1 words"])

    def test_numbered_and_disabled_tests_are_faults(self):
        tree = self.tree(tests__unit__a_test_DOT_cpp="TEST(x, case_7) {}\nTEST(x, DISABLED_y) {}\n"
                                                     "TEST(x, holds_on_ext2_disks) {}\n")
        self.assertEqual(self.texts(text_checks.check_words(tree)),
                         ["tests/unit/a_test.cpp:1 words", "tests/unit/a_test.cpp:2 words"])

    def test_source_of_a_test_that_no_list_names_is_a_fault(self):
        tree = self.tree(tests__unit__x__a_test_DOT_cpp="", tests__unit__x__b_test_DOT_cpp="")
        self.put("tests/unit/x/CMakeLists.txt", "trak_add_test(x SOURCES a_test.cpp)\n")
        tree = sources.Tree(self.folder.name)
        self.assertEqual(self.texts(text_checks.check_test_lists(tree)),
                         ["tests/unit/x/b_test.cpp:1 test-lists"])

    def test_arrows_between_folders_run_one_way(self):
        for path, include, good in (
                ("driver/block/a.h", '"os/lock.h"', True), ("driver/a.h", "<cstdint>", True),
                ("driver/a.h", "<os_embedded.h>", True), ("driver/a.h", '"os/sim/sim.h"', False),
                ("driver/a.h", "<vector>", False), ("driver/a.h", "<os/user/x.h>", False),
                ("driver/a.h", '"daemon/x.h"', False), ("os/lock.h", '"os/sim/sim.h"', False),
                ("os/lock.h", '"driver/a.h"', False), ("os/user/a.cpp", "<liburing.h>", True),
                ("os/user/a.cpp", '"os/sim/sim.h"', False),
                ("os/user/a.cpp", '"driver/a.h"', False),
                ("daemon/a.cpp", '"driver/module/m.h"', True),
                ("daemon/a.cpp", '"driver/block/b.h"', False),
                ("lib/a.c", '"abi/trak_ioctl.h"', True),
                ("lib/a.c", '"os/lock.h"', False), ("ctl/a.cpp", '"lib/trak.h"', True),
                ("ctl/a.cpp", '"driver/module/m.h"', False), ("abi/a.h", "<stdint.h>", True),
                ("abi/a.h", '"os/base.h"', False)):
            with self.subTest(path=path, include=include), tempfile.TemporaryDirectory() as folder:
                file = Path(folder, path)
                file.parent.mkdir(parents=True)
                file.write_text(f"#include {include}\n")
                faults = list(layers.check_layers(sources.Tree(folder)))
                self.assertEqual(faults == [], good, faults)

    def test_exception_without_use_or_reason_is_a_fault(self):
        tree = self.tree(driver__a_DOT_h="x" * 101)
        self.put("tools/lint/exceptions.txt",
                 "columns driver/a.h: a table that reads best unbroken\n"
                 "columns driver/b.h: gone, but it was a good reason\nwords driver/c.h: short\n")
        tree = sources.Tree(self.folder.name)
        faults = text_checks.check_lengths(tree)
        left = list(lint.without_exceptions(tree, faults, {"columns", "words"}))
        self.assertEqual(self.texts(left), ["tools/lint/exceptions.txt:2 exceptions",
                                            "tools/lint/exceptions.txt:3 exceptions"])

    def test_python_that_does_not_parse_is_a_fault(self):
        self.assertEqual(self.texts(tool_checks.check_python(self.tree(a_DOT_py="def f(:\n"))),
                         ["a.py:1 python"])

    def library(self, text):
        """A static library of one object compiled from C++ text."""
        source = Path(self.folder.name, "x.cpp")
        source.write_text(text)
        for words in (["g++", "-c", "-ffreestanding", "-fno-exceptions", "-fno-pic", "-o", "x.o",
                       "x.cpp"], ["ar", "rcs", "x.a", "x.o"]):
            subprocess.run(words, cwd=self.folder.name, check=True, timeout=110)
        return Path(self.folder.name, "x.a")

    def test_symbols_beyond_the_seam_are_faults(self):
        library = self.library('extern "C" { void os_yes(); void printk(); }\n'
                               "void f() { os_yes(); printk(); }\n")
        tree = sources.Tree(self.folder.name)
        faults = build_checks.undefined_symbols(tree, library)
        self.assertEqual(len(faults), 1)
        self.assertIn("printk", faults[0].text)
        self.assertEqual(build_checks.constructors(tree, library), [])

    def test_static_constructor_is_a_fault(self):
        library = self.library("int f();\nint x = f();\n")
        faults = build_checks.constructors(sources.Tree(self.folder.name), library)
        self.assertTrue(faults and "init_array" in faults[0].text, faults)

    def test_mutable_variable_outside_the_module_state_is_a_fault(self):
        library = self.library(
            'int one = 1; static int two; int *use() { return two++ ? &two : &one; }\n'
            '__attribute__((section("os_module_state"))) int three = 3;\n'
            'extern const int four = 4; inline constexpr int five = 5; const int *g = &five;\n')
        faults = build_checks.stray_state(sources.Tree(self.folder.name), library)
        names = " ".join(f.text.split()[0] for f in faults)
        self.assertRegex(names, r"\bone\b")
        self.assertRegex(names, r"two")
        self.assertNotRegex(names, r"three|four|five")

    def test_every_complaint_about_the_module_is_a_fault(self):
        faults = module_checks.faults_of(
            "  CC [M]  /x/build/kernel/6.1/os/linux/file.o\n"
            "/x/build/kernel/6.1/os/linux/file.c:7:3: error: no such thing\n"
            "/x/build/kernel/6.1/trak.o: warning: objtool: f() falls through to next function g()\n"
            'ERROR: modpost: "os_nothing" [/x/build/kernel/6.1/trak.ko] undefined!\n'
            "trak: kernel 6.1 is not supported; supported lines: 5.4\n"
            "Skipping BTF generation for trak.ko due to unavailability of vmlinux\n", "6.1")
        self.assertEqual([(f.path, f.line) for f in faults],
                         [("os/linux/file.c", 7)] + [("os/linux/Makefile", 1)] * 3)
        self.assertIn("falls through", faults[1].text)

    def test_an_object_of_the_module_needs_the_seam_and_what_the_kernels_flags_ask_for(self):
        self.put("driver/a.cpp", "")
        folder = Path(self.folder.name) / "build/kernel/6.1/driver"
        folder.mkdir(parents=True)
        source = folder / "a.cpp"
        source.write_text(
            'extern "C" void os_call(); extern "C" void __x86_return_thunk();\n'
            'extern "C" void printk(); int start(); int at_start = start();\n'
            "void use() { os_call(); __x86_return_thunk(); printk(); }\n", encoding="utf-8")
        subprocess.run(["g++", "-c", "-fno-pic", str(source), "-o", str(folder / "a.o")], check=True,
                       timeout=60)
        tree = sources.Tree(self.folder.name)
        faults = module_checks.check_objects(tree, "6.1", with_debug_info=False)
        text = " ".join(f.text for f in faults)
        self.assertRegex(text, r"needs printk\b.*init_array")
        self.assertNotRegex(text, r"os_call|return_thunk|debug information")
        bare = module_checks.check_objects(tree, "6.1", with_debug_info=True)
        self.assertEqual([f.text for f in bare if f not in faults],
                         ["6.1: has no debug information, which its kernel has"])
        self.assertEqual({f.path for f in faults}, {"driver/a.cpp"})


if __name__ == "__main__":
    unittest.main()
