"""Runs every measurement, prints the table and puts it into the page.

Usage: report.py BUILD_FOLDER PAGE ROUNDS
"""

import os
import pathlib
import platform
import statistics
import subprocess
import sys
import tempfile
from typing import NamedTuple

AGENT = "agent"
BASELINE = "baseline"
CAT = "cat"


class Figure(NamedTuple):
    title: str
    unit: str
    kind: str
    count: int
    cpus: str
    key: str  # as `measure` prints it
    goal: float  # of the agent's ratio to the yardstick; 0: none
    more_is_better: bool = False
    yardstick: str = BASELINE


# Figures of one kind, count and CPUs stand together: they are taken in one go.
FIGURES = [
    Figure("round trip, p50", "µs", "pings", 20_000, "0", "p50_us", 1.02),
    Figure("round trip, p99", "µs", "pings", 20_000, "0", "p99_us", 0),
    Figure("resident memory after pings", "KiB", "pings", 20_000, "0", "resident_kib", 0.93),
    Figure("context switches a ping", "", "pings", 20_000, "0", "switches", 0),
    Figure("flood, one CPU", "lines/s", "flood", 1_000_000, "0", "lines_per_s", 0.8, True),
    Figure("flood, two CPUs", "lines/s", "flood", 1_000_000, "0,1", "lines_per_s", 0, True),
    Figure("start-up to first answer", "µs", "start", 20, "0", "start_us", 1.05, False, CAT),
]

# What concerns the agent alone: what `measure` is asked, whether there is a reader, and of each
# figure its key, title, unit and goal.
AGENT_FIGURES = [
    ("pings", 20_000, False, [("switches", "context switches a ping", "", 4.1)]),
    ("pending", 100_000, True,
     [("pending_bytes", "pending command while the library is busy", "bytes", 160)]),
    ("idle", 60, True, [("switches_per_poll", "context switches a poll", "", 1)]),
    ("idle", 60, False, [("idle_switches", "context switches in a minute of 6 searches", "", 6)]),
    ("card", 40, True,
     [("card_ms", "card held up to its line", "ms", 0),
      ("card_own_us", "the same from the poll that finds it", "µs", 0)]),
]


def measure(program, kind, count, cpus, dialect, command, **environment):
    """One run of the measuring program, as a dictionary of its figures."""
    done = subprocess.run(
        [program, kind, str(count), cpus, dialect, *command],
        capture_output=True, text=True, env={**os.environ, **environment},
    )
    if done.returncode != 0:
        sys.exit(f"{kind} of {command[0]}: {done.stderr}")
    return {name: float(value) for name, value in map(str.split, done.stdout.splitlines())}


def compare(program, servers, rounds, environment):
    """For every figure and server the list of its values, a round each."""
    values = {figure: {name: [] for name in servers} for figure in FIGURES}
    runs = dict.fromkeys(figure[2:5] for figure in FIGURES)
    for number in range(1, rounds + 1):
        print(f"round {number} of {rounds}", file=sys.stderr)
        for run in runs:
            for name, (dialect, *command) in servers.items():
                taken = measure(program, *run, dialect, command, **environment)
                for figure in FIGURES:
                    if figure[2:5] == run:
                        values[figure][name].append(taken[figure.key])
    return values


def ratio(values, name, against):
    return statistics.median(a / b for a, b in zip(values[name], values[against]))


def number(value):
    return f"{value:,.0f}" if value >= 100 else f"{value:.3g}"


def verdict(value, goal, more_is_better=False):
    if not goal:
        return "|  |"
    value = round(value, 2)  # as precise as it is shown
    met = value >= goal if more_is_better else value <= goal
    sign = "≥" if more_is_better else "≤"
    return f"| {sign} {goal:g}{'' if met else ' (missed)'} |"


def tables(values, servers, alone):
    yield f"\n| | {' | '.join(servers)} | agent / baseline | goal |"
    yield "|---|" + "--:|" * (len(servers) + 1) + "---|"
    for figure, measured in values.items():
        cells = [number(statistics.median(measured[name])) for name in servers]
        unit = f", {figure.unit}" if figure.unit else ""
        value = ratio(measured, AGENT, BASELINE)
        own_goal = figure.yardstick == BASELINE
        yield (f"| {figure.title}{unit} | {' | '.join(cells)} | {value:.2f} "
               + verdict(value, own_goal and figure.goal, figure.more_is_better))
        if not own_goal:
            value = ratio(measured, AGENT, figure.yardstick)
            yield (f"| the same, agent / {figure.yardstick} |" + " |" * len(servers)
                   + f" {value:.2f} " + verdict(value, figure.goal, figure.more_is_better))
        if figure.title == "flood, one CPU":
            against = ratio(measured, AGENT, "scdaemon")
            yield ("| the same, agent / scdaemon |" + " |" * len(servers)
                   + f" {against:.2f} " + verdict(against, 5.5, True))
    yield "\n| the agent alone | | goal |\n|---|--:|---|"
    for title, unit, goal, value in alone:
        yield f"| {title} | {f'{number(value)} {unit}'.strip()} {verdict(value, goal)}"


def replace_table(page, text):
    """Puts the text between the page's two marks."""
    before, rest = page.read_text().split("<!-- table -->\n")
    after = rest.split("<!-- end of table -->\n")[1]
    page.write_text(f"{before}<!-- table -->\n{text}\n<!-- end of table -->\n{after}")


def processor():
    lines = pathlib.Path("/proc/cpuinfo").read_text().splitlines()
    return next((line.split(":")[1].strip() for line in lines if line.startswith("model name")),
                platform.machine())


def main():
    build, page, rounds = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]), int(sys.argv[3])
    program = str(build / "measure")
    agent = str(build / "../Stub.app/Contents/MacOS/card-reader-agent")
    servers = {
        AGENT: ("agent", agent),
        BASELINE: ("echo", str(build / "baseline")),
        CAT: ("echo", "cat"),
        "scdaemon": ("nop", "/usr/lib/gnupg/scdaemon", "--server"),
    }
    load = os.getloadavg()[0]
    with tempfile.TemporaryDirectory() as folder:
        (pathlib.Path(folder) / "scdaemon.conf").write_text("disable-ccid\n")
        values = compare(program, servers, rounds, {"GNUPGHOME": folder})
        print("two minutes of an idle agent, then cards", file=sys.stderr)
        alone = []
        reader_page = pathlib.Path(folder) / "page"
        for kind, count, reader, figures in AGENT_FIGURES:
            environment = {"STUB_READER": str(reader_page)} if reader else {}
            taken = measure(program, kind, count, "0", "agent", (agent,), **environment)
            alone += [(title, unit, goal, taken[key]) for key, title, unit, goal in figures]
    text = "\n".join([
        f"Medians of {rounds} rounds on {processor()}, {os.cpu_count()} CPUs, Linux"
        f" {platform.release().split('-')[0]}; load average before and after:"
        f" {load:.2f} and {os.getloadavg()[0]:.2f}.",
        *tables(values, servers, alone)])
    print(text)
    replace_table(page, text)


main()
