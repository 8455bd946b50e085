"""Makes the performance document and its plots from the results: it holds no figure that no result holds.

  report.py RESULTS-DIRECTORY DOCUMENT     reads RESULTS-DIRECTORY/*.json, writes DOCUMENT and plots/*.svg beside it
  report.py --strip FILE                   takes out of Google Benchmark's FILE what tells of the machine's owner
"""
import json
import pathlib
import statistics
import subprocess
import sys

WHAT = {
    "sync1": "one thread, blocking calls",
    "sync1pin": "the same, both processes on one CPU",
    "sync8": "8 threads with blocking calls over one connection",
    "async64": "64 asynchronous calls outstanding",
    "async10k": "10,000 asynchronous calls outstanding",
    "big64k": "a text of 64 KiB there and back",
    "big1m": "a text of 1 MiB there and back",
    "push": "texts of 100 bytes pushed to one app, each one counted as a call",
    "connect": "connecting and registering",
}
# The figure by which a mode is compared, and whether more of it is better.
COMPARED = [("sync1pin", "p50_us", False), ("sync1pin", "cpu_us", False), ("sync1", "p50_us", False),
            ("sync8", "rate", True), ("async64", "rate", True), ("big64k", "p50_us", False),
            ("big1m", "p50_us", False), ("push", "rate", True)]
PROGRAMS = {
    "nira_ipc": "this library", "raw_tcp": "bare TCP sockets, the limit", "raw_unix": "bare Unix sockets",
    "sdbus_daemon": "sd-bus through its daemon", "sdbus_p2p": "sd-bus, peer to peer",
    "sdbus_cpp": "sdbus-c++ through the daemon", "zmq_tcp": "ZeroMQ and jsoncpp", "zmq_ipc": "ZeroMQ and jsoncpp",
    "nng_tcp": "nng and jsoncpp", "nng_ipc": "nng and jsoncpp", "grpc_tcp": "gRPC", "grpc_unix": "gRPC",
}
PLOT = """set terminal svg size 720,360 background "white" font "sans-serif,13"
set output "{path}"
set key top left
set grid
set xlabel "{x}"
set ylabel "{y}"
{more}
plot {curves}
"""


def rows_of(path):
    if not path.exists():
        return []
    rows = [json.loads(line) for line in path.read_text().splitlines() if line.startswith("{")]
    return [row for row in rows if "error" not in row]


def median(rows, key):
    values = [row[key] for row in rows if key in row]
    return statistics.median(values) if values else None


def text(value):
    if value is None:
        return "-"
    if isinstance(value, str):
        return value
    return f"{value:,.0f}" if abs(value) >= 100 or value == int(value) else f"{value:.1f}"


def table(head, lines):
    align = ["---"] + ["---:"] * (len(head) - 1)
    return "\n".join("| " + " | ".join(text(cell) for cell in line) + " |" for line in [head, align, *lines]) + "\n"


def groups(rows, *keys):
    """The rows by the values of these keys, in the order of their first appearance."""
    found = {}
    for row in rows:
        found.setdefault(tuple(row.get(key) for key in keys), []).append(row)
    return found


def plot(path, x, y, curves, more="", style="linespoints pointtype 7 pointsize 0.5"):
    path.parent.mkdir(parents=True, exist_ok=True)
    names, data = [], ""
    for title, points in curves.items():
        names.append(f"'-' with {style} linewidth 2 title \"{title}\"")
        data += "".join(f"{a} {b}\n" for a, b in points) + "e\n"
    script = PLOT.format(path=path, x=x, y=y, more=more, curves=", ".join(names)) + data
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def calls(rows):
    keys = ["rate", "p50_us", "p99_us", "p999_us", "cpu_srv_us", "cpu_cli_us"]
    lines = [[f"`{mode}`: {WHAT[mode]}", *(median(some, key) for key in keys)]
             for (mode,), some in groups(rows, "mode").items() if mode in WHAT]
    return table(["", "a second", "p50 µs", "p99 µs", "p99.9 µs", "CPU µs service", "CPU µs app"], lines)


def sizes(rows):
    names = {"csw": "context switches a second", "threads": "threads", "rss": "resident KiB",
             "rss_anon": "anonymous KiB", "private": "private KiB"}
    idle = [row for row in rows if row["mode"] == "idle"]
    lines = []
    for key, name in names.items():
        unit = "_kib" if "KiB" in name else ""
        lines.append([f"idle: {name}", *(median(idle, f"{key}_{side}{unit}") for side in ("srv", "cli"))])
    peaks = {"memory": "echoes of 1 MiB", "push": "pushed texts", "async10k": "calls, 10,000 at once"}
    for mode, name in peaks.items():
        some = [row for row in rows if row["mode"] == mode]
        lines.append([f"peak KiB: {text(median(some, 'calls'))} {name}",
                      median(some, "rss_srv_kib"), median(some, "rss_cli_kib")])
    return table(["", "service", "app"], lines)


def latency(rows, plots):
    curves = {}
    for row in rows:
        if row["mode"] == "latency":
            title = "both processes on one CPU" if row["pinned"] else "any CPU"
            curves[title] = [(1 / (1 - percent / 100), us) for percent, us in row["percentiles_us"]]
    tics = ", ".join(f'"{percent} %%" {1 / (1 - percent / 100)}' for percent in (0, 50, 90, 99, 99.9))
    plot(plots / "latency.svg", "share of the calls that were answered within", "µs", curves,
         f"set logscale x\nset xrange [1:1000]\nset yrange [0:]\nset xtics ({tics})", "lines")


def against(rows, plots, mode, axis, series, key, value, label, scale):
    """A table and a plot of `value` against `axis`, columns and a curve for each value of `series`."""
    found = groups([row for row in rows if row["mode"] == mode], axis, series)
    names = list(dict.fromkeys(name for _, name in found))
    steps = list(dict.fromkeys(step for step, _ in found))
    heads = [f"{label.get(name, name)}: {what}" for name in names for what in key.values()]
    lines = [[step, *(median(found.get((step, name), []), column) for name in names for column in key)]
             for step in steps]
    curves = {label.get(name, name): [(step, median(found[step, name], value)) for step in steps] for name in names}
    tics = ", ".join(f'"{step:,}" {step}' for step in steps)
    plot(plots / f"{mode}.svg", axis, key[value], curves, f"{scale}\nset xtics ({tics})")
    return table([axis, *heads], lines)


def comparison(ours, others):
    """The other programs' rows beside ours, which are those of the same file where it has some."""
    modes = [mode for mode, _, _ in COMPARED]
    together = any(row["peer"] == "nira_ipc" for row in others)
    rows = [row for row in (others if together else ours + others) if row["mode"] in modes]
    both = groups(rows, "peer", "mode")
    lines = []
    for name in sorted(dict.fromkeys(peer for peer, _ in both), key=lambda peer: peer != "nira_ipc"):
        line = [f"`{name}`" + (f": {PROGRAMS[name]}" if name in PROGRAMS else "")]
        for mode, key, more in COMPARED:
            mine, base = (median(both.get((peer, mode), []), key) for peer in (name, "nira_ipc"))
            ratio = (mine / base if more else base / mine) if mine and base else None
            line.append(text(mine) + (f" ({ratio:.2f})" if ratio else ""))
        lines.append(line)
    names = {"p50_us": "p50 µs", "cpu_us": "CPU µs", "rate": "a second"}
    when = "measured in one run" if together else "not measured together with ours, so to be taken with care"
    head = ["", *(f"{mode}: {names[key]}" for mode, key, _ in COMPARED)]
    return COMPARISON.format(when=when, table=table(head, lines))


def micro(results):
    lines = []
    for row in results["benchmarks"]:
        nanoseconds = row["real_time"] * {"ns": 1, "us": 1e3, "ms": 1e6}[row["time_unit"]]
        share = 1e9 / row["items_per_second"] if "items_per_second" in row else nanoseconds
        lines.append([f"`{row['run_name'].removesuffix('/real_time')}`", share])
    return table(["", "ns"], lines)


def instructions(path):
    lines = [[machine, entry["service"]["instructions"], entry["app"]["instructions"]]
             for machine, entry in json.loads(path.read_text()).items()]
    return table(["", "service", "app"], lines)


def document(results, plots):
    standard, own = rows_of(results / "standard.json"), rows_of(results / "modes.json")
    pieces = json.loads((results / "micro.json").read_text())
    others = rows_of(results / "peers.json")
    latency(own, plots)
    times = {"p50_us": "p50 µs", "cpu_us": "CPU µs"}
    clients = against(own, plots, "clients", "clients", "calling", {**times, "rate": "a second"}, "cpu_us",
                      {"one": "one calls", "all": "all call"}, "set logscale x\nset yrange [0:]")
    keys = against(own, plots, "keys", "keys", "carrier", times, "p50_us", {}, "set logscale xy")
    lengths = against(own, plots, "sizes", "bytes", "mode", times, "p50_us", {"sizes": "there and back"},
                      "set logscale xy")
    rounds = max(row.get("round", 1) for row in standard)
    compared = comparison(standard, others) if others else ""
    return DOCUMENT.format(cpus=pieces["context"]["num_cpus"], rounds=rounds, calls=calls(standard + own),
                           sizes=sizes(standard + own), clients=clients, keys=keys, lengths=lengths,
                           instructions=instructions(pathlib.Path(__file__).with_name("instructions.json")),
                           compared=compared, micro=micro(pieces))


def strip(path):
    results = json.loads(path.read_text())
    results["context"] = {key: results["context"][key] for key in ("num_cpus", "mhz_per_cpu", "load_avg")}
    path.write_text(json.dumps(results, indent=1) + "\n")


DOCUMENT = """# Performance

Made by `scripts/bench` from [bench/results](../bench/results); do not edit. Measured on {cpus} CPUs, the standard
modes {rounds} times (medians), with a service and an app in processes of their own, fresh for each mode. The call is
`getVolume(channel=3, user="app.settings")`, answered with `volume=17, mode="stereo"`; every answer is checked, and the
library's log is off.

How to read it:

- `sync1pin` and the CPU time first: with both processes on one CPU a call's time is the length of its path. On more
  CPUs the scheduler decides how far a wake-up has to travel, and that may cost more than the call itself.
- Compare ratios of one run, not figures of two: the machine is shared, and its speed changes from hour to hour.
- Instructions do not depend on the load; `scripts/instructions` holds them to their baseline.

## Calls and pushes

{calls}
![Distribution of the latency of a blocking call](plots/latency.svg)

Instructions of one blocking call, in user space, the libraries below included:

{instructions}
## Memory and rest

{sizes}
## Clients

All clients live in one app process, which shares one CPU with the service. Either one of them calls, the others being
idle, or all do, on eight threads at most.

{clients}
![CPU time of a call against the number of clients](plots/clients.svg)

## Keys

A call's parameters, each read by the service, and a bundle with as many values; all of them integers. Both processes
share one CPU.

{keys}
![Latency against the number of keys](plots/keys.svg)

## Size

A call with one text, which comes back. Both processes share one CPU.

{lengths}
![Latency against the length of the text](plots/sizes.svg)
{compared}
## Pieces

What the library wrote itself, by `nira_ipc_micro`; the number behind the stroke is that of keys, bytes, requests or
clients.

{micro}"""

COMPARISON = """
## Beside other programs

The same workload through other means, {when}.
In brackets how many times as fast as `nira_ipc` it is (a time: ours by theirs; a rate: theirs by ours).

{table}"""


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    if sys.argv[1] == "--strip":
        strip(pathlib.Path(sys.argv[2]))
        return
    target = pathlib.Path(sys.argv[2])
    target.write_text(document(pathlib.Path(sys.argv[1]), target.parent / "plots"))


if __name__ == "__main__":
    main()
