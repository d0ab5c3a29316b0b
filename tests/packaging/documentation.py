#!/usr/bin/env python3
"""documentation.py PROGRAMS PACKAGING

Compares what the programs say about themselves (--help, of every verb) with their manual pages and with
what bash and zsh offer when a line is completed: nothing may be missing, nothing may be stale. PROGRAMS is
the folder of the binaries, PACKAGING that of the pages and completions.
"""

import pathlib
import re
import subprocess
import sys
import unittest

PROGRAMS = pathlib.Path(sys.argv[1])
PACKAGING = pathlib.Path(sys.argv[2])
HERE = pathlib.Path(__file__).parent

# Options that every verb has besides its own; each spelling of one option.
HELP = frozenset({"-h", "--help"})
ROOT = frozenset({"--root"})

OPTION = re.compile(r"(?<![\w-])--?[a-zA-Z][\w-]*")


def run(words, text=""):
    done = subprocess.run(words, input=text, capture_output=True, text=True, timeout=120, check=False)
    if done.returncode != 0:
        raise AssertionError(f"{words} ended with {done.returncode}: {done.stderr}")
    return done.stdout


class Help:
    """What the help text of one verb lists."""

    def __init__(self, program, verb):
        self.options = set()
        self.arguments = []
        self.verbs = []
        section = ""
        for line in run([PROGRAMS / program, *verb, "--help"]).splitlines():
            # A group of options is indented, with a heading of its own.
            heading = re.fullmatch(r" *(Options|Positionals|Subcommands):", line)
            if heading:
                section = heading[1]
            elif line and not line.startswith(" "):
                section = ""
            # What is described begins at the third place, or the fifth; the rest of a description behind.
            elif re.match(r" {2,4}\S", line):
                self.take(section, line.split()[0])

    def take(self, section, word):
        if section == "Options" and word.startswith("-"):
            self.options.add(frozenset(word.split(",")))
        elif section == "Positionals":
            self.arguments.append(word)
        elif section == "Subcommands":
            self.verbs.append(word)


def read_help(program, verb=()):
    """{verb as a tuple of words: Help}, () being the program itself."""
    own = Help(program, verb)
    found = {verb: own}
    for below in own.verbs:
        found |= read_help(program, (*verb, below))
    return found


class Page:
    """A manual page: the options under OPTIONS, and of each verb under VERBS its arguments and options."""

    def __init__(self, path):
        self.verbs = {(): Page.Verb()}
        current = None
        tagged = False
        for line in path.read_text(encoding="utf-8").splitlines():
            if line.startswith(".SH"):
                section = line[3:].strip().strip('"')
                current = self.verbs[()] if section == "OPTIONS" else None
                in_verbs = section == "VERBS"
            elif line.startswith(".SS") and in_verbs:
                current = self.add(line[3:].split())
            elif tagged and current is not None:
                spellings = frozenset(OPTION.findall(self.plain(line)))
                if spellings:
                    current.options.add(spellings)
            tagged = line.startswith(".TP")

    @staticmethod
    def plain(line):
        """The text of a line with macros such as .BR and escapes such as \\- and \\fB taken away."""
        return re.sub(r"^\.[A-Z]+ ", "", re.sub(r"\\f.", "", line.replace("\\-", "-"))).replace('"', " ")

    def add(self, heading):
        words = [word for word in heading if word.islower()]
        verb = self.Verb()
        verb.arguments = [word.strip("[]") for word in heading if not word.islower()]
        self.verbs[tuple(words)] = verb
        return verb

    class Verb:
        def __init__(self):
            self.options = set()
            self.arguments = []


def complete(shell, lines):
    """What the shell offers at the end of each line, as sets."""
    text = "".join(line + "\n" for line in lines)
    answer = run([shell, HERE / f"complete.{shell}", PACKAGING / "completion"], text)
    offers = split_offers(answer)
    assert len(offers) == len(lines), f"{shell} answered {len(offers)} of {len(lines)} lines:\n{answer}"
    return dict(zip(lines, offers))


def split_offers(answer):
    """One set for each group of lines that an empty line ends."""
    offers = [set()]
    for line in answer.splitlines():
        if line:
            offers[-1].add(line)
        else:
            offers.append(set())
    return offers[:-1]


class Documentation(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.help = {program: read_help(program) for program in ("corvalentd", "corvalentctl")}

    def compare(self, where, documented, real):
        self.assertEqual(set(), real - documented, f"{where}: not documented")
        self.assertEqual(set(), documented - real, f"{where}: documented, but not there")

    def page(self, program):
        return Page(PACKAGING / "man" / f"{program}.8").verbs

    def test_the_pages_know_every_verb_and_no_other(self):
        for program, verbs in self.help.items():
            # A verb that only leads to others has no description of its own.
            leaves = {verb for verb, text in verbs.items() if verb and not text.verbs}
            self.compare(f"{program}(8)", set(self.page(program)) - {()}, leaves)

    def test_the_pages_know_every_option_and_argument_of_every_verb(self):
        for program, verbs in self.help.items():
            page = self.page(program)
            self.compare(f"{program}(8)", page[()].options, verbs[()].options)
            for verb in page.keys() & verbs.keys() - {()}:
                with self.subTest(verb=verb):
                    where = f"{program}(8), {' '.join(verb)}"
                    self.compare(where, page[verb].options, verbs[verb].options - {HELP})
                    self.assertEqual(page[verb].arguments, verbs[verb].arguments, where)

    def test_bash_offers_every_verb_and_option_and_no_other(self):
        self.check_completion("bash")

    def test_zsh_offers_every_verb_and_option_and_no_other(self):
        self.check_completion("zsh")

    def check_completion(self, shell):
        lines = {" ".join((program, *verb)): text for program, verbs in self.help.items() for verb, text in verbs.items()}
        offers = complete(shell, [f"{line} {end}" for line in lines for end in ("", "-")])
        for line, text in lines.items():
            with self.subTest(line=line):
                self.check_options(f"{shell}: {line}", offers[f"{line} -"], text)
                if text.verbs:
                    self.compare(f"{shell}: {line}", offers[f"{line} "], set(text.verbs))

    def check_options(self, where, offers, text):
        real = text.options | {HELP, ROOT}
        self.assertEqual(set(), offers - frozenset().union(*real), f"{where}: offered, but not there")
        missing = [sorted(spellings) for spellings in real if not spellings & offers]
        self.assertEqual([], missing, f"{where}: not offered")

    def test_values_and_files_are_offered(self):
        expected = {
            "corvalentctl trust list --list ": {"local", "server", "os", "service"},
            "corvalentctl trust list --list=": {"local", "server", "os", "service"},
            "corvalentctl preset apply --list ": {"os", "service"},
            "corvalentctl --root /etc stat": {"status"},
            "corvalentctl --root=/etc policy ch": {"check"},
            "corvalentctl trust --root /etc li": {"list"},
            "corvalentctl command ": {f"whitelist_{number}" for number in range(10001, 10006)},
            "corvalentctl reports --type ": {f"whitelist_{number}" for number in range(2, 7)},
        }
        files = ["policy apply", "policy check", "trust import", "preset apply", "explain", "policy init -o",
                 "preset build --verify", "trust export --output", "trust export -o", "command whitelist_10001"]
        lines = [f"corvalentctl {words} /etc/passw" for words in files]
        for shell in ("bash", "zsh"):
            offers = complete(shell, [*expected, *lines])
            for line, values in expected.items():
                self.assertEqual(offers[line], values, f"{shell}: {line}")
            for line in lines:
                # zsh offers the name, bash the whole path.
                names = {pathlib.Path(path).name for path in offers[line]}
                self.assertLessEqual({"passwd"}, names, f"{shell}: {line}")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
