#!/usr/bin/env python3
"""Runs benches for several rounds, compares what they print, and writes results.json, RESULTS.md, the plots, and
the table of figures in the README of the tree.

What a bench prints, and how to add one, is in README.md beside this file. scripts/bench.sh builds and
calls.
"""

import argparse
import datetime
import json
import math
import os
import platform
import re
import statistics
import subprocess
import sys
from pathlib import Path

from tables import cells, number, readme_lines

BENCH = Path(__file__).resolve().parent
RESULTS_JSON = BENCH / "results.json"
RESULTS_MD = BENCH / "RESULTS.md"
PLOTS = BENCH / "plots"
README_MD = BENCH.parent / "README.md"
# Around the table in the README.
TABLE_BEGIN = "<!-- figures: written by scripts/bench.sh -->\n"
TABLE_END = "<!-- end of figures -->\n"


# ---- running ----------------------------------------------------------------------------------------


def machine():
    """What the figures were taken on, at this moment."""
    cpuinfo = Path("/proc/cpuinfo").read_text()
    model = re.search(r"^model name\s*: (.*)$", cpuinfo, re.MULTILINE)
    virtual = " (virtual machine)" if re.search(r"^flags.*\bhypervisor\b", cpuinfo, re.MULTILINE) else ""
    memory = re.search(r"^MemTotal:\s*(\d+) kB$", Path("/proc/meminfo").read_text(), re.MULTILINE)
    return {
        "cpu": (model.group(1) if model else platform.machine()) + virtual,
        "cores": os.cpu_count(),
        "memory_mib": int(memory.group(1)) // 1024 if memory else None,
        "kernel": platform.release(),
        "load_at_start": os.getloadavg(),
    }


def take_precedence():
    """In the child: whatever else runs on the machine gets what the measured programs leave over."""
    try:
        os.nice(-20)
        Path("/proc/self/autogroup").write_text("-20")
    except OSError:
        pass  # not root, or a kernel without: the load at the start is in the results


def run_round(program, number):
    command = [str(program), "--round", str(number)]
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True,
                          start_new_session=True, preexec_fn=take_precedence, check=False)
    if done.returncode != 0:
        sys.exit(f"run.py: {' '.join(command)} ended with status {done.returncode}")
    return [json.loads(line) for line in done.stdout.splitlines() if line]


def measure(name, program, rounds):
    """{(figure, case): {series: Series}}, in the order in which they were first printed."""
    cases = {}
    for number in range(rounds):
        print(f"== {name}: round {number + 1} of {rounds}", flush=True)
        for line in run_round(program, number):
            series = cases.setdefault((line["figure"], line.get("case", "")), {})
            one = series.setdefault(line["series"], {"unit": line["unit"], "goals": {}, "values": {}})
            one["values"][number] = line["value"]
            one["goals"][number] = line.get("goals", [])
    return cases


# ---- comparing --------------------------------------------------------------------------------------


def spread(values):
    return {"min": min(values), "median": statistics.median(values), "max": max(values)}


def divide(value, by):
    if by == 0:
        return 1.0 if value == 0 else math.inf
    return value / by


def ratio(series, name, number, goal):
    """What the goal is about in this round; None when what it names was not measured."""
    value = series[name]["values"][number]
    if "of" not in goal:
        return value
    other = series.get(goal["of"], {"values": {}})["values"]
    return divide(value, other[number]) if number in other else None


def is_met(goal, reached):
    """By the median of the rounds, or by the worst where the goal is for every round."""
    if "at_least" in goal:
        return reached["min" if goal.get("every_round") else "median"] >= goal["at_least"]
    return reached["max" if goal.get("every_round") else "median"] <= goal["at_most"]


def judge(series, name, goals):
    """One goal as each round put it, {round: goal}, with what was reached. The rounds may differ in what they
    are compared with, and each is compared with what it names."""
    goal = dict(next(iter(goals.values())))
    if "of" in goal:
        goal["of"] = " or ".join(sorted({one["of"] for one in goals.values()}))
    ratios = [ratio(series, name, number, one) for number, one in goals.items()]
    ratios = [one for one in ratios if one is not None]
    if not ratios:
        return {"series": name, **goal, "reached": None, "met": None}
    reached = spread(ratios)
    return {"series": name, **goal, "reached": reached, "met": is_met(goal, reached)}


def judge_all(series, name):
    """A bench prints as many goals of a series in each round, in the same order."""
    by_round = series[name]["goals"]
    return [judge(series, name, dict(zip(by_round, goals))) for goals in zip(*by_round.values(), strict=True)]


def summarise(cases):
    figures = {}
    for (figure, case), series in cases.items():
        unit = next(iter(series.values()))["unit"]
        entry = figures.setdefault(figure, {"figure": figure, "unit": unit, "cases": []})
        entry["cases"].append({
            "case": case,
            "series": {name: spread(list(series[name]["values"].values())) for name in sorted(series)},
            "goals": [goal for name in sorted(series) for goal in judge_all(series, name)],
        })
    return list(figures.values())


# ---- writing ----------------------------------------------------------------------------------------


def goal_text(goal):
    bound = f"at least {goal['at_least']:g}" if "at_least" in goal else f"at most {goal['at_most']:g}"
    if "of" in goal:
        bound += f" of {goal['of']}"
    return f"{bound}, in every round" if goal.get("every_round") else bound


def goal_rows(figures):
    for figure in figures:
        for case in figure["cases"]:
            for goal in case["goals"]:
                reached = goal["reached"]
                met = {True: "yes", False: "**no**", None: "not measured"}[goal["met"]]
                numbers = [number(reached[key]) for key in ("min", "median", "max")] if reached else ["–"] * 3
                yield cells(figure["figure"], case["case"], goal["series"], goal_text(goal), *numbers, met)


def figure_lines(figure):
    yield f"#### {figure['figure']} ({figure['unit']})"
    yield ""
    yield f"![{figure['figure']}](plots/{plot_name(figure)})"
    yield ""
    yield cells("case", "series", "min", "median", "max")
    yield cells("---", "---", "---:", "---:", "---:")
    for case in figure["cases"]:
        for name, values in case["series"].items():
            yield cells(case["case"], name, *(number(values[key]) for key in ("min", "median", "max")))
    yield ""


def bench_lines(name, result):
    on = result["machine"]
    load = ", ".join(f"{value:.2f}" for value in on["load_at_start"])
    goals = list(goal_rows(result["figures"]))
    yield f"## {name}"
    yield ""
    yield (f"{result['date']}, {result['rounds']} rounds. {on['cpu']}, {on['cores']} cores, {on['memory_mib']} MiB, "
           f"kernel {on['kernel']}; load at the start {load} (1, 5, 15 minutes).")
    yield ""
    if goals:
        met = sum(row.endswith("| yes |") for row in goals)
        yield f"### Goals: {met} of {len(goals)} met"
        yield ""
        yield cells("figure", "case", "series", "goal", "min", "median", "max", "met")
        yield cells("---", "---", "---", "---", "---:", "---:", "---:", "---")
        yield from goals
        yield ""
    notes = BENCH / name / "NOTES.md"
    if notes.exists():
        yield notes.read_text().strip()
        yield ""
    yield "### Figures"
    yield ""
    for figure in result["figures"]:
        yield from figure_lines(figure)


def results_markdown(results):
    lines = [
        "# Results",
        "",
        "Written by `scripts/bench.sh`; do not edit. Ratios are of values of the same round. A goal is met when the",
        "median of its rounds is; one that says so, in every round, when the worst of them is: what must never",
        "happen, and what is no ratio. Least, median and most are of all rounds, none is left out.",
        "",
    ]
    for name in sorted(results):
        lines.extend(bench_lines(name, results[name]))
    return "\n".join(lines).rstrip() + "\n"


def readme_markdown(results):
    """The README as it is, with the table made anew."""
    before, found, rest = README_MD.read_text().partition(TABLE_BEGIN)
    _, ended, after = rest.partition(TABLE_END)
    if not found or not ended:
        sys.exit(f"run.py: {README_MD} has no place for the table: {TABLE_BEGIN.strip()} and {TABLE_END.strip()}")
    return before + TABLE_BEGIN + "\n".join(readme_lines(results)) + "\n" + TABLE_END + after


def documents(results):
    return {RESULTS_MD: results_markdown(results), README_MD: readme_markdown(results)}


def check(results):
    """Whether the documents are those of the results and of the notes beside the benches."""
    stale = [path.relative_to(BENCH.parent) for path, text in documents(results).items() if path.read_text() != text]
    for path in stale:
        print(f"run.py: {path} is not what results.json and the notes come to: run bench/run.py", file=sys.stderr)
    return not stale


# ---- drawing ----------------------------------------------------------------------------------------


def plot_name(figure):
    return re.sub(r"[^a-z0-9]+", "-", figure["figure"].lower()).strip("-") + ".svg"


def is_number(text):
    return re.fullmatch(r"-?[0-9]+(\.[0-9]+)?", text) is not None


def quoted(text):
    return "'" + text.replace("'", "''") + "'"


def data_block(label, figure, names, first_column):
    """A gnuplot here-document: one line a case, for each series its median, least and most."""
    yield f"${label} << EOD"
    for case in figure["cases"]:
        columns = [first_column(case["case"])]
        for name in names:
            values = case["series"].get(name)
            columns += [repr(values[key]) for key in ("median", "min", "max")] if values else ["NaN"] * 3
        yield " ".join(columns)
    yield "EOD"


def plot_script(figure, target):
    """Curves when every case is a number (the x), else a group of bars for each case."""
    names = sorted({name for case in figure["cases"] for name in case["series"]})
    curves = len(figure["cases"]) > 1 and all(is_number(case["case"]) for case in figure["cases"])
    most = max(values["max"] for case in figure["cases"] for values in case["series"].values())
    yield "set terminal svg size 1000,420 dynamic background '#ffffff' font 'sans,11' noenhanced"
    yield f"set output {quoted(str(target))}"
    yield f"set title {quoted(figure['figure'])} noenhanced"
    yield f"set ylabel {quoted(figure['unit'])} noenhanced"
    yield "set key outside below horizontal noenhanced"
    yield "set grid ytics back lc rgb '#dddddd' lw 1"
    yield f"set yrange [0:{'*' if most > 0 else 1}]"
    if curves:
        yield "set logscale x"
        yield from data_block("data", figure, names, lambda case: case)
        style, columns = "with yerrorlines lw 2 pt 7", "1:{0}:{1}:{2}"
    else:
        yield "set style data histogram"
        yield "set style histogram errorbars gap 2 lw 1"
        yield "set style fill solid 0.85 noborder"
        yield "set xtics noenhanced rotate by -20"
        yield from data_block("data", figure, names, lambda case: '"' + (case or figure["figure"]) + '"')
        style, columns = "", "{0}:{1}:{2}:xtic(1)"
    plots = [f"$data using {columns.format(2 + 3 * i, 3 + 3 * i, 4 + 3 * i)} {style} title {quoted(name)}"
             for i, name in enumerate(names)]
    yield "plot " + ", \\\n  ".join(plots)


def draw(figures):
    PLOTS.mkdir(exist_ok=True)
    for figure in figures:
        script = "\n".join(plot_script(figure, PLOTS / plot_name(figure))) + "\n"
        subprocess.run(["gnuplot"], input=script, text=True, check=True)


# ---- the whole --------------------------------------------------------------------------------------


def measure_all(names, programs, rounds, results):
    for name in names:
        on = machine()
        date = datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC")
        figures = summarise(measure(name, programs / name, rounds))
        results[name] = {"date": date, "rounds": rounds, "machine": on, "figures": figures}
        RESULTS_JSON.write_text(json.dumps(results, indent=1, ensure_ascii=False) + "\n")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", maxsplit=1)[0])
    parser.add_argument("--rounds", type=int, default=7, help="how often each bench is repeated")
    parser.add_argument("--programs", type=Path, help="the folder in which the benches were built")
    parser.add_argument("--check", action="store_true", help="write nothing; fail when what is written here is stale")
    parser.add_argument("names", nargs="*", help="the benches; none: what was measured before is written anew")
    arguments = parser.parse_args()
    if arguments.names and (arguments.check or not arguments.programs):
        parser.error("measuring takes --programs, and is not for --check")

    results = json.loads(RESULTS_JSON.read_text()) if RESULTS_JSON.exists() else {}
    if arguments.check:
        sys.exit(not check(results))
    measure_all(arguments.names, arguments.programs, arguments.rounds, results)
    for path, text in documents(results).items():
        path.write_text(text)
    for result in results.values():
        draw(result["figures"])
    print("== written: bench/RESULTS.md, results.json and plots/ beside it, and the table in README.md")


main()
