#!/usr/bin/python3
"""Reads metrics in the Prometheus text format from standard input, with the format's own parser, and
checks them against the rules for names and for what must hold between samples. One line on standard
error for each fault; exit status 0 when there is none."""

import math
import re
import sys

from prometheus_client.parser import text_string_to_metric_families

NAME = re.compile(r"(corvalent|process)_[a-z][a-z0-9_]*\Z")
# Prometheus has base units only: https://prometheus.io/docs/practices/naming/
WRONG_UNIT = re.compile(r"_(ms|us|ns|milliseconds|microseconds|nanoseconds|minutes|hours|days|kilobytes|kb|mb|percent)(_|\Z)")


def sample_name(family):
    """The parser takes the ending off the names of counters, and gives it to those that lack it."""
    return family.name + "_total" if family.type == "counter" else family.name


def check_text(text):
    if not text.endswith("\n"):
        yield "the last line has no end"
    if any(ord(c) < 0x20 and c != "\n" for c in text):
        yield "there is a control character"
    for keyword in ("HELP", "TYPE"):
        names = re.findall(rf"^# {keyword} (\S+) ", text, re.MULTILINE)
        if names != sorted(set(names)):
            yield f"the {keyword} lines are not sorted, or one is there twice"
    for name in re.findall(r"^# TYPE (\S+) counter$", text, re.MULTILINE):
        if not name.endswith("_total"):
            yield f"{name}: a counter that does not end in _total"
    samples = [line.rsplit(" ", 1)[0] for line in text.splitlines() if not line.startswith("#")]
    for sample in sorted({s for s in samples if samples.count(s) > 1}):
        yield f"{sample}: twice"


def check_family(family):
    name = sample_name(family)
    if not NAME.match(name):
        yield f"{name}: no good name"
    if WRONG_UNIT.search(name):
        yield f"{name}: no base unit"
    if family.type not in ("counter", "gauge", "histogram"):
        yield f"{name}: the type is {family.type}"
    if not family.documentation.strip().endswith("."):
        yield f"{name}: the help is no sentence"
    if family.type == "gauge" and name.endswith(("_total", "_count", "_sum", "_bucket")):
        yield f"{name}: a gauge with the ending of another type"
    if family.type == "histogram" and not name.endswith(("_seconds", "_bytes")):
        yield f"{name}: a histogram without a unit"
    if not family.samples:
        yield f"{name}: no sample"
    for sample in family.samples:
        if not math.isfinite(sample.value):
            yield f"{sample.name}: {sample.value}"
        if family.type != "gauge" and sample.value < 0:
            yield f"{sample.name}: below 0"
    if family.type == "histogram":
        yield from check_histogram(family)


def check_histogram(family):
    buckets, counts = {}, {}
    for sample in family.samples:
        labels = tuple(sorted((k, v) for k, v in sample.labels.items() if k != "le"))
        if sample.name.endswith("_bucket"):
            buckets.setdefault(labels, []).append((float(sample.labels["le"]), sample.value))
        elif sample.name.endswith("_count"):
            counts[labels] = sample.value
    for labels, row in buckets.items():
        if row != sorted(row) or [v for _, v in row] != sorted(v for _, v in row):
            yield f"{family.name}{labels}: the buckets do not rise"
        if not math.isinf(row[-1][0]) or row[-1][1] != counts.get(labels):
            yield f"{family.name}{labels}: the last bucket is not the count"


def main():
    text = sys.stdin.buffer.read().decode("utf-8")
    families = list(text_string_to_metric_families(text))
    faults = list(check_text(text)) + [fault for family in families for fault in check_family(family)]
    if not families:
        faults.append("there are no metrics")
    for fault in faults:
        print(fault, file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
