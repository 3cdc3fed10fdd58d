"""One page that opens in a browser: plots, tables, the machine."""

import html
import io

from . import cells, summary, tables
from .machine import machine_lines

COLOURS = {
    cells.OURS_ADAPTIVE: "#17becf", cells.OURS_DEFAULT: "#1f77b4", cells.OURS_PROFILE: "#0b3d91", cells.UUCP_DEFAULT: "#ffbb78", cells.UUCP_FITTED: "#ff7f0e",
    cells.ZMODEM_DEFAULT: "#98df8a", cells.ZMODEM_8K: "#2ca02c", cells.ZMODEM_WINDOW: "#8c6d31", cells.KERMIT: "#9467bd",
}
STYLE = """body{font:15px/1.45 sans-serif;max-width:75em;margin:2em auto;padding:0 1em;color:#222}
table{border-collapse:collapse;font-size:13px;margin:1em 0}td,th{border:1px solid #ccc;padding:.2em .6em;text-align:right}
th{background:#f0f0f0}td.bad{background:#fdd}figure{margin:1.5em 0}svg{max-width:100%;height:auto}pre{background:#f6f6f6;padding:.8em}"""


def as_svg(figure):
    from matplotlib import pyplot

    text = io.StringIO()
    figure.savefig(text, format="svg", bbox_inches="tight")
    pyplot.close(figure)
    content = text.getvalue()
    return content[content.index("<svg"):]


def draw_lines(axes, summaries, traffic, points_of, log_x):
    """points_of(condition): the place on the x axis, or None where it does not belong into this panel."""
    for program in summary.programs_of(summaries):
        points = sorted((x, s.share if s.share is not None else 0.0) for (c, p), s in summaries.items()
                        if p == program and c.traffic == traffic and (x := points_of(c)) is not None)
        if points:
            ours = program in cells.OURS
            axes.plot(*zip(*points), label=program, color=COLOURS[program], marker="o" if ours else ".", linewidth=2.2 if ours else 1.1,
                      linestyle="-" if ours else "--", zorder=3 if ours else 2)
    if log_x:
        axes.set_xscale("log")
    axes.set_ylim(-0.02, 1.02)
    axes.grid(True, alpha=0.3)


def panels(rows, columns):
    import matplotlib

    matplotlib.use("Agg")
    matplotlib.rcParams["svg.hashsalt"] = "report"
    from matplotlib import pyplot

    return pyplot.subplots(rows, columns, figsize=(4.3 * columns, 2.9 * rows), squeeze=False, sharey=True)


def legend(figure, grid):
    known = {}
    for axes in grid.flat:
        for handle, label in zip(*axes.get_legend_handles_labels()):
            known.setdefault(label, handle)
    figure.legend(known.values(), known.keys(), loc="upper center", ncol=min(4, max(1, len(known))), bbox_to_anchor=(0.5, 0.0))
    figure.tight_layout()


def goodput_against_rate(summaries, traffic):
    figure, grid = panels(len(cells.DELAYS_MS), len(cells.BIT_ERROR_RATES))
    for row, delay in enumerate(cells.DELAYS_MS):
        for column, ber in enumerate(cells.BIT_ERROR_RATES):
            axes = grid[row][column]
            draw_lines(axes, summaries, traffic, lambda c: c.rate if (c.delay_ms, c.ber) == (delay, ber) else None, True)
            axes.set_title(f"delay {delay} ms, bit error rate {ber:g}", fontsize=10)
            axes.set_xticks(cells.RATES, [str(rate) for rate in cells.RATES])
            axes.minorticks_off()
    grid[-1][0].set_xlabel("bit/s")
    grid[0][0].set_ylabel("share of the line")
    legend(figure, grid)
    return as_svg(figure)


def goodput_against_noise(summaries, traffic):
    figure, grid = panels(len(cells.DELAYS_MS), len(cells.RATES))
    places = {ber: i for i, ber in enumerate(cells.BIT_ERROR_RATES)}
    for row, delay in enumerate(cells.DELAYS_MS):
        for column, rate in enumerate(cells.RATES):
            axes = grid[row][column]
            draw_lines(axes, summaries, traffic, lambda c: places.get(c.ber) if (c.delay_ms, c.rate) == (delay, rate) else None, False)
            axes.set_title(f"{rate} bit/s, delay {delay} ms", fontsize=10)
            axes.set_xticks(list(places.values()), [f"{ber:g}" for ber in places])
    grid[-1][0].set_xlabel("bit error rate")
    grid[0][0].set_ylabel("share of the line")
    legend(figure, grid)
    return as_svg(figure)


def goodput_against_delay(summaries, traffic):
    figure, grid = panels(len(cells.BIT_ERROR_RATES), len(cells.RATES))
    for row, ber in enumerate(cells.BIT_ERROR_RATES):
        for column, rate in enumerate(cells.RATES):
            axes = grid[row][column]
            draw_lines(axes, summaries, traffic, lambda c: c.delay_ms if (c.ber, c.rate) == (ber, rate) else None, False)
            axes.set_title(f"{rate} bit/s, bit error rate {ber:g}", fontsize=10)
            axes.set_xticks(cells.DELAYS_MS)
    grid[-1][0].set_xlabel("delay, ms each way")
    grid[0][0].set_ylabel("share of the line")
    legend(figure, grid)
    return as_svg(figure)


def cpu_bars(summaries):
    chosen = [c for c in sorted({c for c, _ in summaries}) if c.traffic == cells.ONE_WAY and c.rate == 115200]
    if not chosen:
        return ""
    figure, grid = panels(1, 1)
    axes = grid[0][0]
    figure.set_size_inches(11, 3.6)
    programs = summary.programs_of(summaries)
    width = 0.8 / len(programs)
    for i, program in enumerate(programs):
        heights = [(summaries[(c, program)].cpu or 0.0) if (c, program) in summaries else 0.0 for c in chosen]
        axes.bar([place + i * width for place in range(len(chosen))], heights, width, label=program, color=COLOURS[program])
    axes.set_xticks([place + 0.4 - width / 2 for place in range(len(chosen))], [f"{c.delay_ms} ms, {c.ber:g}" for c in chosen])
    axes.set_ylabel("CPU seconds per megabyte")
    axes.set_title("115200 bit/s, one way, both programs together", fontsize=10)
    axes.grid(True, axis="y", alpha=0.3)
    legend(figure, grid)
    return as_svg(figure)


def ports_plot(ports):
    """CPU of idle ports against their number; see idle_ports()."""
    points = idle_ports(ports)
    if not points:
        return ""
    figure, grid = panels(1, 1)
    axes = grid[0][0]
    figure.set_size_inches(7, 3.4)
    axes.plot(*zip(*points), marker="o", color=COLOURS[cells.OURS_PROFILE], label="a free port")
    axes.axhline(0.25, linestyle="--", color="#c33", label="target")
    axes.set_xscale("log", base=2)
    axes.set_xticks([x for x, _ in points], [str(x) for x, _ in points])
    axes.set_ylim(bottom=0)
    axes.set_xlabel("ports")
    axes.set_ylabel("% of a core for each port")
    axes.grid(True, alpha=0.3)
    legend(figure, grid)
    return as_svg(figure)


def idle_ports(ports):
    """[(number of ports, % of a core for one)] of the ports' result."""
    rows = ports.get("idle", []) if isinstance(ports, dict) else []
    return sorted((row["ports"], row["cpuPercentPerPort"]) for row in rows if "cpuPercentPerPort" in row)


def html_table(header, rows):
    def cell(text):
        bad = "MISSED" in text or text.startswith(("failed", "not measured", "behind", "ours failed"))
        return f"<td{' class=bad' if bad else ''}>{html.escape(text)}</td>"

    head = "".join(f"<th>{html.escape(text)}</th>" for text in header)
    body = "".join("<tr>" + "".join(cell(text) for text in row) + "</tr>" for row in rows)
    return f"<table><tr>{head}</tr>{body}</table>"


NOTES = {
    "line": "Goodput as a share of what the line can carry (rate / 10 bytes a second), from the session's opening until the last byte is "
            "stored; a transfer that failed stands at 0. Medians of the runs. All programs had 4096 bytes of driver. "
            "~: the machine was late while it ran.",
    "ports": "Processor time by thread; the bare thread sleeps 10 ms and asks its port once.",
    "parts": "Processor time, medians of the repetitions.",
}
HEADINGS = {"line": "The line", "ports": "Ports in number", "parts": "The parts"}


def line_figures(summaries):
    """[(caption, drawing)]."""
    figures = []
    for traffic in (cells.ONE_WAY, cells.BOTH_WAYS):
        if any(c.traffic == traffic for c, _ in summaries):
            for title, draw in (("against rate", goodput_against_rate), ("against bit error rate", goodput_against_noise), ("against delay", goodput_against_delay)):
                figures.append((f"Goodput {title}, {traffic}", draw(summaries, traffic)))
    return figures + [("Processor time", cpu_bars(summaries))]


def figures_of(result, kind):
    if kind == "line":
        figures = line_figures(summary.summarise(result["line"]))
    else:
        figures = [("Idle ports", ports_plot(result["ports"]))] if kind == "ports" else []
    return "".join(f"<figure><figcaption>{caption}</figcaption>{drawing}</figure>" for caption, drawing in figures if drawing)


def page(result):
    parts = [f"<h1>transportCom: measured</h1><p>{html.escape(result['when'])}, {html.escape(result['command'])}</p>",
             "<pre>" + html.escape("\n".join(machine_lines(result))) + "</pre>",
             "<p>How it is measured, and why targets are missed or peers lead where they do: docs/performance.md.</p>"]
    found = tables.tables_of(result)
    for kind, heading in HEADINGS.items():
        if result.get(kind):
            parts += [f"<h2>{heading}</h2><p>{NOTES[kind]}</p>", figures_of(result, kind)]
            parts += [f"<h3>{html.escape(table.title)}</h3>{html_table(table.header, table.rows)}" for table in found if table.kind == kind]
    return f"<!doctype html><html lang=en><meta charset=utf-8><title>transportCom: measured</title><style>{STYLE}</style>{''.join(parts)}</html>"
