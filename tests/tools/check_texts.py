"""Reads what the agent wrote as a stranger to it would: strictly.

check_texts.py json FILE    one JSON value a line in UTF-8; prints, in hexadecimal, the bytes of every text
                            under "process_path", "process_cmdline" or "path", one a line
check_texts.py log FILE     one record a line in UTF-8, each beginning with its time
check_texts.py screen FILE  lines in UTF-8 without anything that steers a terminal

Status 1, with the first fault, when the file is not of that form.
"""
import json
import os
import re
import sys
import unicodedata

NAMES = ("process_path", "process_cmdline", "path")
RECORD = re.compile(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z [A-Z][a-z]+ \S+ \S+:\d+ ")
# Controls, formats (directions, joiners), the two separators of lines.
STEERING = ("Cc", "Cf", "Zl", "Zp")


def fail(reason):
    sys.exit("check_texts: " + reason)


def refuse_constant(name):
    fail(name + " is no JSON")


def print_names(value):
    if isinstance(value, dict):
        for key, member in value.items():
            if key in NAMES and isinstance(member, str):
                print(os.fsencode(member).hex())
            print_names(member)
    elif isinstance(value, list):
        for element in value:
            print_names(element)


def check_json(text):
    for line in text.split("\n"):
        if line:
            print_names(json.loads(line, parse_constant=refuse_constant))


def check_screen(text):
    for character in text:
        if character != "\n" and unicodedata.category(character) in STEERING:
            fail("a character that steers: " + repr(character))


def check_log(text):
    check_screen(text)
    for line in text.split("\n")[:-1]:
        if not RECORD.match(line):
            fail("no record: " + repr(line))


with open(sys.argv[2], "rb") as file:
    content = file.read().decode("utf-8", "strict")
{"json": check_json, "log": check_log, "screen": check_screen}[sys.argv[1]](content)
