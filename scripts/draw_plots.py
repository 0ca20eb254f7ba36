#!/usr/bin/env python3
"""draw_plots.py MEASURED PLOTS: draws PLOTS/*.svg from what was measured, MEASURED/bench.json and MEASURED/soak.json.

Without a soak.json there is no soak.svg. The same measurements give the same bytes.
"""

import io
import json
import pathlib
import sys

START = "launch: from the decision to main, median of 500"
PASS = "SIGKILL to the replacement's main, median of 200"
IMMEDIATE = "the same with an immediate reaction, median of 200"

OURS, OTHER, BARE = "#1f5fa8", "#b3541e", "#6f6f6f"


class Missing(Exception):
    """A file hasn't got what a plot is drawn from."""


class Bench:
    """What pm-bench has written: figures, the samples behind them, and curves."""

    def __init__(self, path):
        self.path = path
        document = read(path, "figures")
        self.machine = caption(document)
        self.figures = document["figures"]

    def samples(self, name, key="samples"):
        for figure in self.figures:
            if figure["name"] == name and figure.get(key):
                return figure[key], figure["unit"]
        raise Missing(f"{self.path} has no {key} of \"{name}\"")

    def curve(self, name):
        points = [figure for figure in self.figures if figure.get("curve") == name]
        if len(points) < 2:
            raise Missing(f"{self.path} has no curve \"{name}\"")
        return sorted(points, key=lambda figure: figure["services"])


def read(path, kept):
    try:
        document = json.loads(path.read_text(encoding="utf-8"))
    except (OSError, ValueError) as error:
        raise Missing(f"{path} can't be read: {error}") from error
    if not document.get(kept):
        raise Missing(f"{path} has no {kept}")
    return document


def caption(document):
    machine = document["machine"]
    return f"{document['date']}, {machine['processor']}, {machine['cores']} cores, {machine['kernel']}"


# What each plot shows, before anything is drawn: a measurement that is missing is told at once.

def start_plot(bench):
    ours, unit = bench.samples(START)
    bare, _ = bench.samples(START, "floorSamples")
    return {"title": "Start of a service: from the decision to its main", "machine": bench.machine,
            "x": f"latency ({unit})",
            "steps": [("the manager", ours, OURS), ("a bare fork and exec", bare, BARE)]}


def reaction_plot(bench):
    away, unit = bench.samples(PASS)
    immediate, _ = bench.samples(IMMEDIATE)
    bare, _ = bench.samples(PASS, "floorSamples")
    return {"title": "Reaction: from SIGKILL to the replacement's main", "machine": bench.machine,
            "x": f"latency ({unit})",
            "steps": [("pass of 30 ms", away, OURS), ("reaction: immediate", immediate, OTHER),
                      ("a bare fork and exec", bare, BARE)]}


def boot_plot(bench):
    points = bench.curve("boot")
    lines = [("the manager, from its own start", [(p["services"], p["value"]) for p in points], OURS),
             ("bare forks and execs in a row", [(p["services"], p["floor"]) for p in points], BARE)]
    return {"title": "Boot: until the last service has come to its main", "machine": bench.machine,
            "y": f"time ({points[0]['unit']})", "lines": lines}


def memory_plot(bench):
    points = bench.curve("memory")
    return {"title": "Memory of the manager with the services up", "machine": bench.machine,
            "y": "resident memory (MiB)",
            "lines": [("the manager", [(p["services"], p["value"] / 1024) for p in points], OURS)]}


def soak_plot(path):
    document = read(path, "soak")
    samples = document["soak"]
    minutes = [sample["seconds"] / 60 for sample in samples]
    pairs = list(zip(samples, samples[1:]))
    of_an_exit = [1e6 * (b["cpuSeconds"] - a["cpuSeconds"]) / max(1, b["exits"] - a["exits"]) for a, b in pairs]
    panels = [("open descriptors", minutes, [sample["descriptors"] for sample in samples]),
              ("threads", minutes, [sample["threads"] for sample in samples]),
              ("resident memory (MiB)", minutes, [sample["residentKib"] / 1024 for sample in samples]),
              ("CPU for each exit, requests included (us)", minutes[1:], of_an_exit)]
    return {"title": f"Soak: {samples[-1]['exits']:,} exits in {minutes[-1]:.0f} min", "machine": caption(document),
            "panels": panels}


def plots(measured):
    bench = Bench(measured / "bench.json")
    found = {"start": start_plot(bench), "reaction": reaction_plot(bench), "boot": boot_plot(bench),
             "memory": memory_plot(bench)}
    if (measured / "soak.json").exists():
        found["soak"] = soak_plot(measured / "soak.json")
    return found


# The drawing. Matplotlib is loaded only here: what checks the measurements does without it.

def plain(value, _=None):
    return f"{value:,.0f}" if value >= 1 else f"{value:g}"


def logarithmic(axis, low, high):
    """Marks with plain numbers, the fewer in a decade the more decades there are."""
    from matplotlib import ticker
    span = high / low
    marks = (1, 2, 3, 4, 5, 7) if span < 30 else (1, 2, 5) if span < 3000 else (1,)
    axis.set_major_locator(ticker.LogLocator(subs=marks))
    axis.set_minor_locator(ticker.NullLocator())
    axis.set_major_formatter(plain)


def draw_steps(axes, plot):
    for label, values, colour in plot["steps"]:
        ordered = sorted(values)
        share = [100 * (i + 1) / len(ordered) for i in range(len(ordered))]
        axes.step(ordered, share, where="post", color=colour, label=f"{label}, {len(ordered)} times")
    axes.set_xscale("log")
    everything = [value for _, values, _ in plot["steps"] for value in values]
    logarithmic(axes.xaxis, min(everything), max(everything))
    axes.set_xlabel(plot["x"])
    axes.set_ylabel("share that took no longer (%)")
    axes.set_ylim(0, 101)


def draw_lines(axes, plot):
    for label, points, colour in plot["lines"]:
        axes.plot(*zip(*points), marker="o", markersize=4, color=colour, label=label)
    axes.set_xscale("log")
    axes.set_yscale("log")
    values = [value for _, points, _ in plot["lines"] for _, value in points]
    logarithmic(axes.yaxis, min(values), max(values))
    axes.set_xticks([services for services, _ in plot["lines"][0][1]])
    axes.xaxis.set_major_formatter(plain)
    axes.minorticks_off()
    axes.set_xlabel("services")
    axes.set_ylabel(plot["y"])


def draw_panel(axes, panel):
    title, minutes, values = panel
    axes.plot(minutes, values, color=OURS, linewidth=1)
    axes.set_title(title, fontsize=10)
    axes.set_xlabel("minutes")
    axes.set_ylim(0, 1.15 * max(values))


def draw(plot, path):
    from matplotlib import pyplot
    if "panels" in plot:
        figure, grid = pyplot.subplots(2, 2, figsize=(8, 5.6))
        for axes, panel in zip(grid.flat, plot["panels"]):
            draw_panel(axes, panel)
        every = list(grid.flat)
    else:
        figure, axes = pyplot.subplots(figsize=(8, 4.5))
        (draw_steps if "steps" in plot else draw_lines)(axes, plot)
        # Above the curves, wherever these run.
        axes.legend(frameon=False, ncol=3, fontsize=9, columnspacing=1.5, loc="lower center", bbox_to_anchor=(0.5, 1))
        every = [axes]
    for axes in every:
        axes.grid(color="#dddddd", linewidth=0.6)
        axes.set_axisbelow(True)
        axes.spines[["top", "right"]].set_visible(False)
    figure.suptitle(plot["title"], fontsize=12)
    figure.text(0.01, 0.01, plot["machine"], fontsize=8, color="#555555")
    figure.tight_layout(rect=(0, 0.03, 1, 1))
    # Neither the moment nor the tool's version: the file changes only if the measurements do.
    text = io.StringIO()
    figure.savefig(text, format="svg", metadata={"Date": None, "Creator": None})
    pyplot.close(figure)
    path.write_text("".join(line.rstrip() + "\n" for line in text.getvalue().splitlines()), encoding="utf-8")


def draw_all(found, folder):
    import matplotlib
    matplotlib.use("svg")
    # Text stays text, and the names inside don't differ from run to run. The ground is white.
    matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "process-manager"})
    folder.mkdir(parents=True, exist_ok=True)
    for name, plot in found.items():
        draw(plot, folder / f"{name}.svg")
        print(folder / f"{name}.svg")


def main():
    if len(sys.argv) != 3:
        print("usage: draw_plots.py MEASURED PLOTS", file=sys.stderr)
        return 2
    try:
        found = plots(pathlib.Path(sys.argv[1]))
    except Missing as missing:
        print(f"draw_plots: {missing}", file=sys.stderr)
        return 1
    draw_all(found, pathlib.Path(sys.argv[2]))
    return 0


if __name__ == "__main__":
    sys.exit(main())
