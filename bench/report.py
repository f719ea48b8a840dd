#!/usr/bin/env python3
"""bench/report.py WORK SEED REPORT CHART

Turns what the benchmarks left in WORK into a report (Markdown) and a chart
(SVG). WORK holds samples.tsv, stores.tsv and figures.txt.
"""

import os
import platform
import statistics
import subprocess
import sys

from chart import chart

titles = {
    "get_reply": "Warm get of one role, from the request to the reply",
    "get": "Warm get of one number",
    "rows_20": "20 rows of 3 roles (the others: 20 reads)",
    "load": "First load of one setting with two layers",
    "json": "JSON object of 300 bytes into a hash",
    "list_first": "First listing of one directory in two layers",
    "list_cached": "Later listing of one directory, no rows",
    "accept": "Accepting a change of a setting that was read",
    "accept_directory": "The same, all settings in one directory",
    "durable": "One change, safely on disk",
    "burst_100": "Changes of 100 settings, safely on disk",
    "changes_1000": "1,000 changes of one setting, the last one safely on disk",
    "start": "Process start to first value",
    "check": "Check of both trees, a file for each setting in each",
    "memory": "Resident memory with 1,000 settings read",
    "bus_get": "Get over the bus",
    "bus_rows": "20 rows of 3 roles over the bus",
    "bus_set": "One change over the bus",
    "bus_set_sd": "One change over the bus by a client on sd-bus, as our service is",
    "bus_changes": "1,000 changes over the bus",
    "completion": "Names of a directory completed in a shell, from the service",
    "client_value": "Value of a setting in a program",
    "client_ready": "All settings watched, from connecting to ready",
    "client_changed": "Change in one program until another knows",
    "client_empty": "Empty call over the bus, beside these",
    "client_start": "Start of a program that watches settings until they are there",
    "service_start": "Start of the service until a client is ready",
    "client_memory": "Resident memory of a program that watches settings",
}


peers = ("gsettings", "kconfig", "qsettings", "sqlite", "lmdb")


class Figures:
    """All samples, by work, subject and number of settings."""

    def __init__(self, file_name):
        self.samples = {}
        with open(file_name, encoding="utf-8") as lines:
            for line in lines:
                work, subject, settings, value = line.rstrip("\n").split("\t")
                self.samples.setdefault(work, {}).setdefault(
                    (subject, int(settings)), []).append(float(value))

    def median(self, work, subject, settings):
        values = self.samples.get(work, {}).get((subject, settings))
        return statistics.median(values) if values else None

    def ratio(self, first, second):
        """first / second, None when one of them was not measured."""
        above, below = self.median(*first), self.median(*second)
        return above / below if above is not None and below is not None else None


def counts(file_name):
    """The counted figures: work -> {column: value}."""
    with open(file_name, encoding="utf-8") as file:
        lines = [line.split() for line in file if line.strip()]
    names = next(fields[2:] for fields in lines if fields[:2] == ["#", "work"])
    return {fields[0]: dict(zip(names, map(float, fields[1:])))
            for fields in lines if fields[0] != "#"}


class Goal:
    """One number to reach. `limit` is the most allowed, or the least when it is a factor by
    which we are to be faster. `work` names the counted work that tells why a goal is missed."""

    def __init__(self, text, value, limit, least=False, unit="x", work=None):
        self.text, self.value, self.limit, self.least, self.unit = text, value, limit, least, unit
        self.work = work

    def missed(self):
        if self.value is None:
            return False
        return self.value < self.limit if self.least else self.value > self.limit

    def verdict(self):
        if self.value is None:
            return "not measured"
        if not self.missed():
            return "reached"
        share = self.limit / self.value if self.least else self.value / self.limit
        return f"missed by {100 * (share - 1):.1f} %"

    def row(self):
        measured = "-" if self.value is None else f"{self.value:.2f} {self.unit}"
        bound = "at least" if self.least else "at most"
        return f"| {self.text} | {bound} {self.limit:g} {self.unit} | {measured} | {self.verdict()} |"


def goals(figures, counted):
    ratio, median = figures.ratio, figures.median

    def ours(work, settings=1000):
        return work, "tulo", settings

    def faster(text, work, peer, limit, settings=1000):
        causes = {"rows_20": "rows"}
        return Goal(text, ratio((work, peer, settings), ours(work, settings)), limit, least=True,
                    work=causes.get(work, work))

    def memory(settings):
        above = median("memory", "tulo", settings)
        below = median("memory", "trivial", 0)
        return None if above is None or below is None else (above - below) / 1e6

    growth = None
    if memory(1000) is not None and memory(100000) is not None:
        growth = memory(100000) - memory(1000)

    def milliseconds(work, subject, settings):
        nanoseconds = median(work, subject, settings)
        return None if nanoseconds is None else nanoseconds / 1e6

    def fastest_other(work):
        """How much faster we are than the fastest of the other stores."""
        ratios = [ratio((work, peer, 1000), ours(work)) for peer in peers]
        return min((value for value in ratios if value is not None), default=None)

    client_memory = None
    if median(*ours("client_memory")) is not None:
        client_memory = (median(*ours("client_memory"))
                         - median("client_memory", "tulo", 1)) / 1e6
    return [
        Goal("warm get, to the floor", ratio(ours("get_reply"), ("get_reply", "floor", 1000)), 4.2,
             work="get"),
        faster("warm get, faster than KConfig", "get", "kconfig", 1.5),
        faster("warm get, faster than SQLite", "get", "sqlite", 6),
        faster("warm get, faster than GSettings", "get", "gsettings", 8),
        faster("warm get, level with QSettings", "get", "qsettings", 1),
        faster("20 rows of 3 roles, faster than 20 GSettings reads", "rows_20", "gsettings", 3),
        Goal("first load, to the floor of 2 raw reads", ratio(ours("load"), ("load", "floor", 1000)), 4.5,
             work="load"),
        Goal("first load, system calls", counted["load"]["calls"], 16, unit="calls",
             work="load"),
        Goal("JSON, to building the same hash", ratio(ours("json", 1), ("json", "floor", 1)), 1.5,
             work="json_parse"),
        Goal("first listing of 10,000 names, to two floors",
             ratio(ours("list_first", 10000), ("list_first", "floor", 10000)), 3,
             work="list_first"),
        Goal("cached listing, 10,000 names to 10",
             ratio(ours("list_cached", 10000), ours("list_cached", 10)), 1.1),
        faster("accepting a change, faster than GSettings", "accept", "gsettings", 5),
        Goal("accepting a change, 100,000 settings to 1,000",
             ratio(ours("accept", 100000), ours("accept")), 1.1, work="accept"),
        Goal("accepting a change, directory of 10,000 to one of 10",
             ratio(ours("accept_directory", 10000), ours("accept_directory", 10)), 1.2,
             work="accept_directory"),
        Goal("durable change, to the floor", ratio(ours("durable"), ("durable", "floor", 1000)), 1.3,
             work="durable"),
        faster("durable change, faster than GSettings, 1,000 settings", "durable", "gsettings", 5),
        faster("durable change, faster than GSettings, 100,000 settings", "durable", "gsettings", 300,
               settings=100000),
        Goal("durable change, 100,000 settings to 1,000",
             ratio(ours("durable", 100000), ours("durable")), 1.1, work="durable"),
        Goal("burst of 100 settings, to 100 floors",
             ratio(ours("burst_100"), ("burst_100", "floor", 1000)), 1.15),
        Goal("1,000 changes of one setting, fsyncs", counted["changes_1000"]["fsyncs"], 1,
             unit="fsyncs"),
        Goal("get over the bus, to an empty call", ratio(ours("bus_get"), ("bus_get", "empty", 1000)),
             1.3),
        Goal("20 rows over the bus, to an empty call",
             ratio(ours("bus_rows"), ("bus_get", "empty", 1000)), 2, work="rows"),
        Goal("one change over the bus, to an empty call",
             ratio(ours("bus_set"), ("bus_get", "empty", 1000)), 1.7),
        Goal("the same, both sides of both calls on sd-bus",
             ratio(ours("bus_set_sd"), ("bus_set_sd", "empty", 1000)), 1.7),
        Goal("1,000 changes over the bus without waiting, faster than waiting",
             ratio(("bus_changes", "waiting", 1000), ("bus_changes", "not waiting", 1000)), 3,
             least=True),
        Goal("200 names completed in a shell, service warm",
             milliseconds(*ours("completion", 200)), 50,
             unit="ms"),
        Goal("value of a setting in a program", median(*ours("client_value")), 10, unit="ns"),
        faster("value of a setting in a program, faster than GSettings", "client_value", "gsettings",
               50),
        Goal("value of a setting in a program, faster than every other store",
             fastest_other("client_value"), 1, least=True),
        Goal("1,000 settings watched, service warm, to an empty call",
             ratio(("client_ready", "warm", 1000), ("client_empty", "empty", 1000)), 60),
        Goal("1,000 settings watched, service cold, to an empty call",
             ratio(("client_ready", "cold", 1000), ("client_empty", "empty", 1000)), 300),
        Goal("10,000 settings watched, to 1,000",
             ratio(("client_ready", "warm", 10000), ("client_ready", "warm", 1000)), 11),
        Goal("change in one program until another knows, to an empty call",
             ratio(ours("client_changed"), ("client_empty", "empty", 1000)), 2.5),
        Goal("memory of 1,000 settings watched", client_memory, 1, unit="MB"),
        Goal("memory of a program with them, to a trivial one that uses QtDBus",
             ratio(ours("client_memory"), ("client_memory", "trivial", 0)), 1.2),
        Goal("start of a program until a setting is there, to a trivial one that uses QtDBus",
             ratio(("client_start", "tulo", 1), ("client_start", "trivial", 0)), 1.2),
        Goal("start to first value (tulo-cm get), to a trivial program",
             ratio(("start", "tulo-cm", 1000), ("start", "trivial_command", 0)), 1.2),
        Goal("start to first value (own process), to a trivial program",
             ratio(ours("start"), ("start", "trivial", 0)), 1.2),
        Goal("start to the first line of help, to a trivial program",
             ratio(("start", "tulo-cm --help", 0), ("start", "trivial_command", 0)), 1.1),
        Goal("the same, in time", milliseconds("start", "tulo-cm --help", 0), 15, unit="ms"),
        Goal("check of 2,000 files", milliseconds(*ours("check")), 2000, unit="ms"),
        Goal("memory over a trivial program, 1,000 settings read", memory(1000), 2.5, unit="MB"),
        Goal("memory more with 100,000 on disk", growth, 0.1, unit="MB"),
    ]


# The counted work that a kind of work is held against, where there is one.
floors = {"get": "get_floor", "load": "load_floor", "json_parse": "json_floor",
          "list_first": "list_floor"}
# Where a kind of work spends what it costs above its floor.
causes = {
    "get": "each get makes a request, a reply and a list of values: none of the allocations is the "
           "store's own",
    "rows": "each of the 20 rows is a separate get, routed, with a request and a reply",
    "load": "two files are parsed and merged role by role; four calls ask what lies at a path that "
            "is asked for the first time",
    "json_parse": "the parser looks at each byte several times and hands on one member at a time",
    "list_first": "Qt makes a file information of each name before it is filtered",
    "accept": "nothing depends on what is stored; a directory's names are searched, and fewer of them "
              "are in the processor's cache",
    "accept_directory": "ten more names are compared in a directory of 10,000 than in one of 10",
    "durable": "the first change in a directory lists it in both layers",
}


def obstacles(missed, counted):
    """What stands in the way of the missed goals, in counted figures."""
    lines = []
    for work in dict.fromkeys(goal.work for goal in missed if goal.work in causes):
        def figures_of(name):
            values = counted[name]
            return (f"{values['instructions']:,.0f} instructions, {values['allocations']:.0f} "
                    f"allocations, {values['calls']:.0f} system calls")
        floor = f"; the floor: {figures_of(floors[work])}" if work in floors else ""
        lines.append(f"- {work}: {figures_of(work)}{floor}. Here {causes[work]}.")
    return lines


def shown(work, value):
    if work in ("memory", "client_memory"):
        return f"{value / 1e6:.2f} MB"
    for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if value >= size:
            return f"{value / size:.3g} {unit}"
    return f"{value:.3g} ns"


def work_tables(figures):
    lines = []
    for work, title in titles.items():
        subjects = figures.samples.get(work)
        if subjects is None:
            continue
        lines += [f"### {title}", "",
                  "| subject | settings | median | minimum | maximum | to ours | to the floor |",
                  "|---|---:|---:|---:|---:|---:|---:|"]
        for (subject, settings), values in sorted(subjects.items(),
                                                  key=lambda entry: statistics.median(entry[1])):
            median = statistics.median(values)
            cells = []
            for other in ("tulo", "floor"):
                base = figures.median(work, other, settings)
                cells.append(f"{median / base:.2f}" if base else "")
            lines.append(f"| {subject} | {settings or ''} | {shown(work, median)} | "
                         f"{shown(work, min(values))} | {shown(work, max(values))} | "
                         f"{cells[0]} | {cells[1]} |")
        lines.append("")
    return lines


def growth_table(figures):
    """How each of our costs grows with the number of settings."""
    lines = ["| work | " + " | ".join(f"{n:,}" for n in sizes) + " |",
             "|---|" + "---:|" * len(sizes)]
    for work in ("get_reply", "load", "accept", "durable", "memory",
                 "list_first", "list_cached", "accept_directory"):
        cells = []
        for settings in sizes:
            median = figures.median(work, "tulo", settings)
            cells.append("" if median is None else shown(work, median))
        lines.append(f"| {titles[work]} | " + " | ".join(cells) + " |")
    return lines


sizes = (10, 100, 1000, 10000, 100000)


def processor():
    with open("/proc/cpuinfo", encoding="utf-8") as lines:
        for line in lines:
            if line.startswith("model name"):
                return line.split(":", 1)[1].strip()
    return platform.machine()


def file_system(directory):
    return subprocess.run(["stat", "--file-system", "--format=%T", directory],
                          stdout=subprocess.PIPE, text=True, check=True).stdout.strip()


def system_name():
    with open("/etc/os-release", encoding="utf-8") as lines:
        for line in lines:
            if line.startswith("PRETTY_NAME="):
                return line.split("=", 1)[1].strip().strip('"')
    return platform.system()


def report(work, seed):
    figures = Figures(os.path.join(work, "samples.tsv"))
    counted = counts(os.path.join(work, "figures.txt"))
    with open(os.path.join(work, "stores.tsv"), encoding="utf-8") as lines:
        versions = [line.split("\t") for line in lines.read().splitlines() if "\t" in line]
    present = {name for name, _ in versions}
    absent = [name for name in peers if name not in present]

    lines = ["# Speed", "", "Written by `bench/run`; ratios are between medians of one run.", "",
             "![Our store beside others](chart.svg)", "", "## Where it was measured", "",
             f"- {processor()}, {os.cpu_count()} processors, {system_name()}, "
             f"Linux {platform.release()}, {file_system(work)}",
             "- " + ", ".join(f"{name} {version}" for name, version in versions)]
    if absent:
        lines.append("- not installed, left out: " + ", ".join(absent))
    with open(os.path.join(work, "load.txt"), encoding="utf-8") as loads:
        load = " and ".join(line.strip() for line in loads)
    lines += [f"- load averages before and after (1, 5, 15 minutes): {load}",
              f"- random seed {seed}; orders are shuffled in every repetition",
              "- work inside one process: processor time, 31 samples after a warm-up each, first "
              "listings 11",
              "- the rest: elapsed time; 200 changes on disk each (11 of other stores with 100,000 "
              "settings), 201 turns of ten calls over the bus, 501 changes until another program knows, "
              "51 completions, 31 starts, 15 times all watched and 7 on a new service, 11 of all else",
              "- changes on disk: of the same 1,000 settings, however many lie beside them", "",
              "## Goals", "", "| work | goal | measured | |", "|---|---|---:|---|"]
    all_goals = goals(figures, counted)
    lines += [goal.row() for goal in all_goals]
    missed = obstacles([goal for goal in all_goals if goal.missed()], counted)
    if missed:
        lines += ["", "What stands in the way, counted for one operation:", ""] + missed
    lines += ["", "## Growth with the number of settings", ""] + growth_table(figures)
    lines += ["", "## Counted, for one operation", "",
              "These do not depend on what else the machine does; `bench/check` holds them.", "",
              "| work | " + " | ".join(next(iter(counted.values()))) + " |",
              "|---|" + "---:|" * len(next(iter(counted.values())))]
    lines += [f"| {name} | " + " | ".join(f"{value:g}" for value in values.values()) + " |"
              for name, values in counted.items()]
    lines += ["", "## All figures", ""] + work_tables(figures)
    return figures, "\n".join(lines).rstrip() + "\n"


def main():
    if len(sys.argv) != 5:
        sys.exit(__doc__)
    work, seed, report_file, chart_file = sys.argv[1:]
    figures, text = report(work, seed)
    with open(report_file, "w", encoding="utf-8") as file:
        file.write(text)
    with open(chart_file, "w", encoding="utf-8") as file:
        file.write(chart(figures, shown, titles))
    goals_text = text[text.index("## Goals"):text.index("## Growth")]
    print(goals_text.strip())


if __name__ == "__main__":
    main()
