#!/usr/bin/env python3
"""hardening.py ROOT COMPILER FLAG…

Looks into every program, library and module below ROOT for what the compiler and the linker were told to
harden it with, and says which file lacks what. FLAG… are those options: to see that the look finds what it
is for, a program is built with all of them but one, for each in turn.
"""

import pathlib
import platform
import re
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(sys.argv[1])
COMPILER = sys.argv[2]
FLAGS = sys.argv[3:]

FOLDERS = ("bin", "lib", "module")

# What the debug information records of the options, some of which leave no other trace: a pattern for all
# that concerns the same (the last one holds), and what that must be.
RECORDED = [("-f(no-)?stack-protector", "-fstack-protector-strong"),
            ("-f(no-)?stack-clash-protection", "-fstack-clash-protection")]
if platform.machine() == "x86_64":
    RECORDED.append(("-fcf-protection", "-fcf-protection=full"))

# Read only where FORTIFY_SOURCE is set.
CHECKING_HEADERS = re.compile(r"\b(string_fortified|stdio2|poll2|socket2)\.h")


def readelf(*words):
    return subprocess.run(["readelf", "-W", *words], capture_output=True, text=True, check=True).stdout


def imports(file):
    """The names of the functions and objects that the file takes from others."""
    return set(re.findall(r" UND ([^@\s]+)", readelf("--dyn-syms", file)))


def checked_calls():
    """The calls that the C library has a checked form of, __NAME_chk, as it says itself."""
    library = re.search(r"libc\.so\.6 => (\S+)", subprocess.run(
        ["ldd", sys.executable], capture_output=True, text=True, check=True).stdout).group(1)
    names = re.findall(r"__(\w+)_chk@", readelf("--dyn-syms", library))
    return set(names) - {"stack"}


CHECKED_CALLS = checked_calls()


def lacking(file):
    """What the file is not hardened with, a line each."""
    faults = []
    header = readelf("--file-header", file)
    segments = readelf("--program-headers", file)
    dynamic = readelf("--dynamic", file)
    taken = imports(file)
    if not re.search(r"Type:\s+DYN", header):
        faults.append("cannot be loaded at any address (not PIE)")
    if "GNU_RELRO" not in segments:
        faults.append("relocations stay writable (no GNU_RELRO)")
    if not re.search(r"\(FLAGS\).*BIND_NOW|\(FLAGS_1\).*NOW", dynamic):
        faults.append("symbols are bound late (no BIND_NOW)")
    stack = re.search(r"GNU_STACK(?:\s+0x\w+){5}\s+([RWE ]+?)\s+0x", segments)
    if stack is None or "E" in stack.group(1):
        faults.append("the stack is executable (GNU_STACK)")
    if re.search(r"LOAD(?:\s+0x\w+){5}\s+RWE", segments):
        faults.append("a segment is writable and executable")
    if "(TEXTREL)" in dynamic:
        faults.append("code is relocated (TEXTREL)")
    if "__stack_chk_fail" not in taken:
        faults.append("no stack protector (__stack_chk_fail)")
    if not is_fortified(file, taken):
        faults.append("calls of the C library are not checked (FORTIFY_SOURCE)")
    return faults + unrecorded(file)


def is_fortified(file, taken):
    """Whether it calls checked forms; a call that the compiler has seen to be in bounds needs none, but then the
    debug information names the header that would have provided it."""
    return (any(f"__{name}_chk" in taken for name in CHECKED_CALLS)
            or CHECKING_HEADERS.search(readelf("--string-dump=.debug_line_str", file)) is not None)


def unrecorded(file):
    producers = re.findall(r"\]\s+(GNU C.*)", readelf("--string-dump=.debug_str", file))
    if not producers:
        return ["does not record how it was compiled (DW_AT_producer)"]
    return [f"compiled without {wanted}" for pattern, wanted in RECORDED
            if not all(last_option(producer, pattern) == wanted for producer in producers)]


def last_option(producer, pattern):
    return ([None] + [word for word in producer.split() if re.match(pattern, word)])[-1]


class Shipped(unittest.TestCase):
    def test_every_shipped_file_has_it_all(self):
        faults = []
        for folder in FOLDERS:
            files = sorted(path for path in (ROOT / folder).iterdir() if path.read_bytes()[:4] == b"\x7fELF")
            self.assertTrue(files, f"nothing in {ROOT / folder}")
            faults += [f"{file}: {fault}" for file in files for fault in lacking(file)]
        if faults:
            self.fail("\n" + "\n".join(faults))


class Look(unittest.TestCase):
    """What is taken away is missed, and nothing else."""

    SOURCE = """
        #ifndef LENGTH
        #define LENGTH static_cast<std::size_t>(count)
        #endif
        #include <cstring>
        #include <cstdlib>
        int main(int count, char** words) {
            char text[16];
            std::strncpy(text, words[count - 1], LENGTH);
            return std::atoi(text);
        }
    """

    def lacking_with(self, *options):
        with tempfile.TemporaryDirectory() as folder:
            source = pathlib.Path(folder, "program.cpp")
            source.write_text(self.SOURCE, encoding="utf-8")
            program = pathlib.Path(folder, "program")
            subprocess.run([COMPILER, "-O2", "-g", "-fPIE", "-pie", *FLAGS, *options, source, "-o", program],
                           check=True, stderr=subprocess.DEVNULL)
            return lacking(program)

    def test_nothing_is_missed_where_nothing_is_lacking(self):
        self.assertEqual(self.lacking_with(), [])

    def test_a_fixed_address(self):
        self.assertEqual(self.lacking_with("-no-pie"), ["cannot be loaded at any address (not PIE)"])

    def test_writable_relocations(self):
        self.assertEqual(self.lacking_with("-Wl,-z,norelro"), ["relocations stay writable (no GNU_RELRO)"])

    def test_late_binding(self):
        self.assertEqual(self.lacking_with("-Wl,-z,lazy"), ["symbols are bound late (no BIND_NOW)"])

    def test_an_executable_stack(self):
        self.assertEqual(self.lacking_with("-Wl,-z,execstack"), ["the stack is executable (GNU_STACK)"])

    def test_no_stack_protector(self):
        self.assertEqual(self.lacking_with("-fno-stack-protector"),
                         ["no stack protector (__stack_chk_fail)", "compiled without -fstack-protector-strong"])

    def test_no_fortified_calls(self):
        self.assertEqual(self.lacking_with("-U_FORTIFY_SOURCE"),
                         ["calls of the C library are not checked (FORTIFY_SOURCE)"])

    def test_fortified_calls_that_need_no_check(self):
        self.assertEqual(self.lacking_with("-DLENGTH=15"), [])

    def test_no_protection_against_stack_clashes(self):
        self.assertEqual(self.lacking_with("-fno-stack-clash-protection"),
                         ["compiled without -fstack-clash-protection"])

    @unittest.skipUnless(platform.machine() == "x86_64", "not on this processor")
    def test_no_protection_of_branches(self):
        self.assertEqual(self.lacking_with("-fcf-protection=none"), ["compiled without -fcf-protection=full"])

    def test_no_record(self):
        self.assertEqual(self.lacking_with("-g0"), ["does not record how it was compiled (DW_AT_producer)"])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
