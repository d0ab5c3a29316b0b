"""Tables of figures: their cells, and the README's, which is made of results.json."""

import math
import re


def number(value):
    if value == 0 or math.isinf(value):
        return f"{value:g}"
    digits = max(0, 2 - math.floor(math.log10(abs(value))))
    return f"{value:.{digits}f}"


def cells(*values):
    return "| " + " | ".join(str(value) for value in values) + " |"


# ---- what is looked for in the results --------------------------------------------------------------


def cases_of(results, figure, case):
    """The cases whose figure and name match entirely. There is one at least."""
    found = [one for bench in results.values() for drawn in bench["figures"] if re.fullmatch(figure, drawn["figure"])
             for one in drawn["cases"] if re.fullmatch(case, one["case"])]
    if not found:
        raise LookupError(f"no results of {figure!r}, {case!r}")
    return found


def span(values):
    texts = [number(min(values)), number(max(values))]
    return texts[0] if texts[0] == texts[1] else " to ".join(texts)


class Goal:
    """What was reached of goals: the median of the rounds; the worst of them where the goal is for every round."""

    def __init__(self, figure, case="", of=None, series="corvalent"):
        self.where = figure, case
        self.of = of
        self.series = series

    def goals(self, results):
        found = [goal for case in cases_of(results, *self.where) for goal in case["goals"]
                 if goal["series"] == self.series and (self.of is None or goal.get("of") == self.of)]
        if not found:
            raise LookupError(f"no goal of {self.where}, {self.of}")
        return found

    def text(self, results):
        goals = self.goals(results)
        worst = "min" if "at_least" in goals[0] else "max"
        if any(goal["reached"] is None for goal in goals):
            return "not measured"
        if all(goal.get("every_round") for goal in goals):
            pick = min if worst == "min" else max
            return number(pick(goal["reached"][worst] for goal in goals))
        return span([goal["reached"]["median"] for goal in goals])


class Median:
    """Medians of a series; beside another series the ratio of both medians, which is marked."""

    def __init__(self, figure, case="", series="corvalent", of=None):
        self.where = figure, case
        self.series = series
        self.of = of

    def goals(self, _results):
        return []

    def text(self, results):
        medians = [{name: values["median"] for name, values in case["series"].items()}
                   for case in cases_of(results, *self.where)]
        if self.of is None:
            return span([one[self.series] for one in medians])
        return span([one[self.series] / one[self.of] for one in medians]) + "\\*"


# ---- the README's table -----------------------------------------------------------------------------

SHARED_ONE = "queue: shared_ptr, 1 producer, 1 consumer"
SHARED_SINGLE = "queue: shared_ptr, (1 producer|4 producers), 1 consumer"
STARTS = "starts of trusted programs"
CPU = "CPU of the watcher for each start"
FLOOR_LOOP = "bare loop, three kinds, two threads"
STATIC_AND_DYNAMIC = "{} (static), {} (dynamic)"


def both(kind, figure, *arguments, **named):
    """Of the tiny static program and of the dynamic one."""
    return [kind(figure, case, *arguments, **named) for case in ("tiny static", "dynamic")]


# What is measured, beside what, the result, and what stands in its places.
ROWS = (
    ("message queue, 128 elements at once, one producer and one consumer", "DPDK's ring, moving the same handles",
     "{} of the rate; {} in its RTS mode",
     [Goal(SHARED_ONE, "bulk 128, .*", of="dpdk MP/MC"), Goal(SHARED_ONE, "bulk 128, .*", of="dpdk RTS")]),
    ("message queue, single elements, one or four producers", "moodycamel's queue with tokens", "{} of the rate",
     [Goal(SHARED_SINGLE, "single, .*", of="moodycamel, tokens")]),
    ("message queue, more threads than cores", "a mutex with a deque", "at least {} of the rate, in every round",
     [Goal("queue: .*, (2|4) producers, .*", ".*", of="mutex and deque")]),
    ("message queue, allocations of a single element", "", "{} in any round",
     [Goal("queue: allocations of a single element in and out", ".*")]),
    ("exec of an unknown program to its death, p50", "a bare loop on the proc connector that kills at once",
     STATIC_AND_DYNAMIC + " times as long", both(Goal, "exec to SIGKILL, p50", of="bare loop")),
    ("the same, p99", "the same", STATIC_AND_DYNAMIC + " times as long",
     both(Goal, "exec to SIGKILL, p99", of="bare loop")),
    ("verdict on a 10 MiB image seen before", "reading the connector and `/proc/PID/exe`", "{} times as long",
     [Goal("verdict on 10 MiB seen before, mean", of="bare loop")]),
    ("first digest of 10 MiB", "SHA-256 of as many bytes in memory, or reading them, whichever is slower",
     "{} of the rate", [Goal("first digest", "10 MiB")]),
    ("20,000 programs that exit at once", "", "{} lost or not counted, in any round", [Goal("storm: losses", ".*")]),
    ("their images that can still be read when judged", "a bare loop: {} %", "{} %",
     [Median("storm: images readable when judged", series="bare loop"),
      Median("storm: images readable when judged")]),
    ("1,000 untrusted programs at once", "", "alerts durable after {} s at most; {} not alerted exactly once, in any round",
     [Goal("burst of 1,000 untrusted programs", ".*"),
      Goal("burst of 1,000 untrusted programs: not alerted exactly once")]),
    ("trusted programs started as fast as possible", "the host without the agent", STATIC_AND_DYNAMIC + " of the rate",
     both(Goal, STARTS, of="without")),
    ("the same with a bare loop that only asks which image runs", "the same", STATIC_AND_DYNAMIC + " of the rate",
     both(Median, STARTS, series=FLOOR_LOOP, of="without")),
    *((f"the same with fapolicyd, integrity {mode}", "the same", STATIC_AND_DYNAMIC + " of the rate",
       both(Median, STARTS, series=f"fapolicyd, {mode}", of="without")) for mode in ("none", "size", "sha256")),
    ("CPU of the agent for each of them", "fapolicyd with SHA-256", STATIC_AND_DYNAMIC,
     both(Goal, CPU, of="fapolicyd, sha256")),
    ("", "the bare loop", STATIC_AND_DYNAMIC + " times as much", both(Median, CPU, of=FLOOR_LOOP)),
    ("load of a trust list of 10 MiB", "jsoncpp parsing the same text", "{} times as long",
     [Goal("trust list: load of 10 MiB", of="jsoncpp")]),
    ("storing it, beside the threads that judge", "writing and syncing the same bytes", "{} times as long: {} ms",
     [Median("trust list: store of 10 MiB", of="write and sync"), Median("trust list: store of 10 MiB")]),
    ("event behind the storing", "", "waits {} ms at most, in any round",
     [Goal("events: longest wait behind an adoption", "list of 10 MiB")]),
    ("memory of a trust entry", "its own strings", "{} (local), {} (server)",
     [Goal("trust list: resident memory of an entry", case) for case in ("local", "server")]),
    ("look-up in a list of 100, 10,000, 1,000,000 entries", "", "{}, {}, {} ns",
     [Median("trust list: look-up", case, series="known") for case in ("100", "10000", "1000000")]),
    ("start with 2,000 processes of 50 images", "hashing the 50 images", "{} (learning), {} (directory mode) times as long",
     [Goal("start: 2,000 processes of 50 images", case) for case in ("learning", "directory mode")]),
    ("file accesses judged in directory mode", "reading them from the kernel and nothing else", "{} of the rate",
     [Goal("file events judged in directory mode")]),
    ("a program's `open` in a watched folder", "the same with a mark that nobody reads", "{} times as long",
     [Goal("cost of an open in scope")]),
)


def goal_cell(goals):
    """The bounds of all that stands in a row, and whether they are met."""
    bounds = {f"{word} {goal[key]:g}" for key, word in (("at_least", "at least"), ("at_most", "at most"))
              for goal in goals if key in goal}
    met = sum(goal["met"] is True for goal in goals)
    if not goals:
        return ""
    verdict = "met" if met == len(goals) else "**missed**" if met == 0 else f"**{met} of {len(goals)} met**"
    return f"{', '.join(sorted(bounds))}: {verdict}"


def readme_lines(results):
    yield cells("figure", "beside", "result", "goal")
    yield cells("---", "---", "---", "---")
    for figure, beside, result, places in ROWS:
        texts = [place.text(results) for place in places]
        in_beside = beside.count("{}")
        goals = [goal for place in places for goal in place.goals(results)]
        yield cells(figure, beside.format(*texts), result.format(*texts[in_beside:]), goal_cell(goals))
