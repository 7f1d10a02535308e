"""Charts of what lies in InfluxDB: processors, latency of links, and the daemon's own statistics."""

import datetime
import os
import tempfile

PERIOD = 10  # seconds between two of the daemon's reports
INK, GRID = "#333333", "#dddddd"
COLOURS = ["#1f77b4", "#e07b39", "#3a9d5d", "#9467bd", "#c44e52", "#8c8c8c"]
STATES = ("user", "system", "wait", "softirq", "steal", "nice")


def _clock(values):
    """Seconds since the epoch as local times."""
    return [datetime.datetime.fromtimestamp(value) for value in values]


def _rows(series):
    """Times, then one list for each field; rows without a value are left out."""
    rows = [row for row in series["values"] if None not in row]
    times, *fields = zip(*rows) if rows else [[]] * len(series["columns"])
    return _clock(times), fields


def _processors(axes, influx):
    means = ", ".join(f'mean("{state}")' for state in STATES)
    [series] = influx.query(f"SELECT {means} FROM cpu WHERE time > now() - 2m GROUP BY time(2s) "
                            "fill(none)", "tidewell")
    times, fields = _rows(series)
    axes.stackplot(times, *fields, labels=STATES, colors=COLOURS, alpha=0.85)
    axes.set(title='Processors of this machine (database "tidewell", measurement cpu)',
             ylabel="per cent of all processors", ylim=(0, 100))
    axes.legend(loc="upper left", ncol=len(STATES) // 2)


def _latency(axes, influx):
    found = influx.query('SELECT mean("value") FROM link_latency WHERE time > now() - 2m '
                         'GROUP BY time(1s), node, tunnel, link fill(none)', "bonding")
    for colour, series in zip(COLOURS, found):
        times, [values] = _rows(series)
        axes.plot(times, values, color=colour, linewidth=1.8,
                  label="node {node}, tunnel {tunnel}, link {link}".format(**series["tags"]))
    axes.set(title='Latency of links (database "bonding", measurement link_latency)',
             ylabel="milliseconds")
    axes.set_ylim(bottom=0)
    axes.legend(loc="upper left")


def _reports(axes, influx, title, ylabel, measurements):
    """The daemon's reports of some measurements, side by side, each with its number."""
    width = datetime.timedelta(seconds=0.8 * PERIOD / len(measurements))
    for place, (measurement, label, colour) in enumerate(measurements):
        [series] = influx.query(f'SELECT "value" FROM {measurement}', "tidewell")
        times, [values] = _rows(series)
        shift = (place - (len(measurements) - 1) / 2) * width
        bars = axes.bar([time + shift for time in times], values, width=width, color=colour,
                        label=label)
        axes.bar_label(bars, fontsize=8, color=INK, padding=2)
    axes.set(title=title, ylabel=ylabel)
    axes.margins(y=0.25)
    axes.legend(loc="upper left", ncol=2)


def draw(influx, file):
    """Writes the charts to the PNG `file`."""
    with tempfile.TemporaryDirectory(prefix="pelorus-charts-") as cache:
        os.environ["MPLCONFIGDIR"] = cache  # what it keeps of this machine's fonts
        import matplotlib
        matplotlib.use("Agg")
        from matplotlib import dates, pyplot

        pyplot.rcParams.update({
            "font.size": 9, "axes.titlesize": 10, "axes.titleweight": "bold", "axes.grid": True,
            "axes.axisbelow": True, "grid.color": GRID, "axes.edgecolor": GRID,
            "axes.labelcolor": INK, "xtick.color": INK, "ytick.color": INK, "text.color": INK,
            "axes.titlelocation": "left", "legend.framealpha": 0.85, "legend.edgecolor": "none",
            "legend.fontsize": 8})
        figure, grid = pyplot.subplots(2, 2, figsize=(14, 8.5), constrained_layout=True)
        figure.suptitle("What collectd and the nodes have sent through pelorus into InfluxDB",
                        fontsize=13, fontweight="bold")
        _processors(grid[0][0], influx)
        _latency(grid[0][1], influx)
        _reports(grid[1][0], influx, "What came in, as the daemon reports it",
                 f"in {PERIOD} seconds", [("proxy_records", "records", COLOURS[0]),
                                          ("proxy_messages", "messages", COLOURS[1])])
        _reports(grid[1][1], influx, "Keys of nodes, as the daemon reports them",
                 f"requests in {PERIOD} seconds",
                 [("proxy_successful_auths", "confirmed", COLOURS[2]),
                  ("proxy_failed_auths", "refused", COLOURS[4])])
        for axes in grid.flat:
            axes.xaxis.set_major_formatter(dates.DateFormatter("%H:%M:%S"))
            axes.xaxis.set_major_locator(dates.AutoDateLocator(maxticks=7))
            axes.spines[["top", "right"]].set_visible(False)
        figure.savefig(file, dpi=110)
        pyplot.close(figure)
