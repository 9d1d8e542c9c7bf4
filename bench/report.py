#!/usr/bin/env python3
"""Turns one benchmark run into the tables of figures of docs/benchmarks.md.

Inputs: Google Benchmark's JSON output of velfs_bench (with repetitions) and the JSON lines of
velfs_stream_peak. Prints the tables and, with --out, replaces the part of that file between the
lines FIGURES_BEGIN and FIGURES_END (kept as HTML comments); the notes around them are written by
hand. Throughputs are medians over the repetitions; a ratio is velFS's median over the baseline's.
"""
import argparse
import datetime
import json
import re
import subprocess

BEGIN, END = "<!-- FIGURES_BEGIN -->", "<!-- FIGURES_END -->"
KINDS = {
    "db": ("database", (1_000, 10_000, 100_000),
           [("raw SELECT of the same rows", "sqlite"),
            ("raw rows, listing built the same way", "sqlite_built_listing")]),
    "zip": ("archive", (1_000, 10_000, 65_000),
            [("zzip_readdir over the members", "zziplib"),
             ("raw members, listing built the same way", "zziplib_built_listing")]),
    "native": ("native", (1_000, 10_000, 100_000), [("readdir", "readdir")]),
}
PER_CALL = "raw SQLite, statements prepared per call"
LARGE_SIZES = (16, 256, 896)  # MiB; SQLite stores no blob over 1,000,000,000 bytes
LARGE = [
    ("Read one file of {} MiB in 64 KiB calls (database root)", "db_large_read",
     [("velfs", "outside a transaction", (16, 256)),
      ("velfs_in_transaction", "inside one transaction")],
     ("one raw sqlite3_blob handle", "sqlite_blob")),
    ("Write one file of {} MiB in 64 KiB calls (database root)", "db_large_write",
     [("velfs", "growing, outside a transaction", (16,)),
      ("velfs_in_transaction", "growing, inside one transaction"),
      ("velfs_resized", "velfsResize first, then in place, outside a transaction", (16, 256)),
      ("velfs_resized_in_transaction", "velfsResize first, then in place, inside one")],
     ("raw zeroblob row + sqlite3_blob_write, one transaction", "sqlite_zeroblob")),
]
CALL_POSITIONS = (0, 64, 128, 192, 255)  # MiB into the 256 MiB file of db_large_call


def rows():
    """(title, unit, velFS benchmark, [(baseline, benchmark)]) for every line of the table."""
    table = [
        ("Read 10,000 files of 10,240 bytes by name, one open each (database root)", "files",
         "db_read_10k/velfs", [("raw SQLite, one prepared rowid SELECT reused", "db_read_10k/sqlite"),
                               (PER_CALL, "db_read_10k/sqlite_prepared_per_call"),
                               ("fopen/fread of the same files", "host_read_10k/fread")]),
        ("The same 10,000 files in a native root", "files", "native_read_10k/velfs",
         [("fopen/fread", "host_read_10k/fread")]),
        ("Write 10,000 files of 4,096 bytes in one transaction (database root)", "files",
         "db_write_10k/velfs", [("raw SQLite, one prepared INSERT reused", "db_write_10k/sqlite"),
                                (PER_CALL, "db_write_10k/sqlite_prepared_per_call")]),
        ("Stream one 64 MiB deflated member, 64 KiB reads (archive root)", "bytes",
         "zip_stream_deflated_64m/velfs", [("zziplib", "zip_stream_deflated_64m/zziplib"),
                                           ("libzip", "zip_stream_deflated_64m/libzip")]),
        ("Stream one 64 MiB stored member, 64 KiB reads (archive root)", "bytes",
         "zip_stream_stored_64m/velfs", [("memcpy in 64 KiB pieces", "zip_stream_stored_64m/memcpy"),
                                         ("zziplib", "zip_stream_stored_64m/zziplib")]),
        ("Open, read, close 10,000 deflated members of 4,096 bytes by name (archive root)",
         "files", "zip_members_10k/velfs", [("zziplib", "zip_members_10k/zziplib"),
                                            ("libzip", "zip_members_10k/libzip")]),
    ]
    for title, group, variants, (label, anchor) in LARGE:
        for size in LARGE_SIZES:
            for variant, how, *only in variants:
                if only and size not in only[0]:
                    continue
                table.append((f"{title.format(size)}, {how}", "bytes",
                              f"{group}/{variant}/MiB:{size}",
                              [(label, f"{group}/{anchor}/MiB:{size}")]))
    for kind, (title, sizes, baselines) in KINDS.items():
        for n in sizes:
            table.append((f"List a directory of {n:,} entries ({title} root)", "entries",
                          f"list_{kind}_{n}/velfs",
                          [(label, f"list_{kind}_{n}/{name}") for label, name in baselines]))
    for kind, via in (("db", "db_read_10k"), ("native", "native_read_10k"),
                      ("zip", "zip_members_10k")):
        table.append((f"The files of {via} through a mount stub (velIOOpen, the stub's read)",
                      "files", f"stub_{kind}_10k/velfs",
                      [("the same files through velfsCreateFileIndir", f"{via}/velfs")]))
    return table


def medians(path):
    with open(path, encoding="utf-8") as source:
        data = json.load(source)
    rates = {}
    for run in data.get("benchmarks", []):
        if run.get("run_type") == "iteration" and not run.get("error_occurred"):
            name = re.sub(r"/(iterations|repeats):\d+|/real_time", "",
                          run.get("run_name", run["name"]))
            counter = run.get("bytes_per_second" if name.startswith(("zip_stream", "db_large"))
                              else "items_per_second")
            if counter is not None:
                rates.setdefault(name, []).append(counter)
    result = {}
    for name, values in rates.items():
        values.sort()
        middle = len(values) // 2
        result[name] = values[middle] if len(values) % 2 else (values[middle - 1] + values[middle]) / 2
    return result, data.get("context", {})


def rate(value, unit):
    if value is None:
        return "no result"
    if unit == "bytes":
        return f"{value / 2**20:,.{0 if value >= 10 * 2**20 else 1}f} MiB/s"
    return f"{value / 1e6:,.2f} M {unit}/s" if value >= 1e6 else f"{value / 1e3:,.1f} k {unit}/s"


def tables(results, memory):
    lines = ["| Workload | velFS | Baseline | Baseline's throughput | velFS / baseline |",
             "|---|---|---|---|---|"]
    for title, unit, velfs, baselines in rows():
        mine = results.get(velfs)
        for k, (label, name) in enumerate(baselines):
            theirs = results.get(name)
            ratio = f"{mine / theirs:.2f}" if mine and theirs else "—"
            lines.append(f"| {title if k == 0 else ''} | {rate(mine, unit) if k == 0 else ''} | "
                         f"{label} | {rate(theirs, unit)} | {ratio} |")
    lines += ["", "| Listing, time per entry at the largest size against 1,000 entries | velFS | "
              "Baseline |", "|---|---|---|"]
    for kind, (title, sizes, baselines) in KINDS.items():
        cells = []
        for name in ["velfs", baselines[0][1]]:
            low, high = results.get(f"list_{kind}_{sizes[0]}/{name}"), results.get(
                f"list_{kind}_{sizes[-1]}/{name}")
            cells.append(f"{low / high:.2f}× ({1e9 / high:,.0f} ns vs {1e9 / low:,.0f} ns)"
                         if low and high else "no result")
        lines.append(f"| {title} root, {sizes[-1]:,} entries | {cells[0]} | "
                     f"{baselines[0][0]}: {cells[1]} |")
    lines += ["", f"| Large file | Time per MiB at {LARGE_SIZES[-1]} MiB against {LARGE_SIZES[0]} "
              f"MiB (1.00× is linear) | Time per MiB at {LARGE_SIZES[-1]} MiB |", "|---|---|---|"]
    for _, group, variants, (label, anchor) in LARGE:
        for variant, how, *only in variants + [(anchor, label)]:
            sizes = only[0] if only else LARGE_SIZES
            if len(sizes) < 2:
                continue
            low, high = (results.get(f"{group}/{variant}/MiB:{size}")
                         for size in (sizes[0], sizes[-1]))
            cell = (f"{low / high:.2f}× | {2**20 / high * 1e3:,.2f} ms" if low and high
                    else "no result | —")
            at = "" if sizes[-1] == LARGE_SIZES[-1] else f" (at {sizes[-1]} MiB)"
            lines.append(f"| {group}, {how}{at} | {cell} |")
    lines += ["", "| One 64 KiB call outside a transaction, at a position of the 256 MiB file | "
              "velfsRead | velfsWrite in place |", "|---|---|---|"]
    for position in CALL_POSITIONS:
        cells = []
        for variant in ("velfs_read", "velfs_write_in_place"):
            value = results.get(f"db_large_call/{variant}/at_MiB:{position}")
            cells.append(f"{64 * 1024 / value * 1e6:,.0f} µs" if value else "no result")
        lines.append(f"| at {position} MiB | " + " | ".join(cells) + " |")
    lines += ["", "| Stream a 1 GiB member of big.zip, 64 KiB reads, one process per reader | "
              "Peak resident | One pass |", "|---|---|---|"]
    for entry in memory:
        cells = ["failed"] * 2
        if entry["verified"] and entry["seconds"] > 0:
            cells = [f"{entry['peak_rss_kib'] / 1024:,.0f} MiB",
                     f"{entry['bytes'] / 2**20 / entry['seconds']:,.0f} MiB/s"]
        lines.append(f"| {entry['member']}, {entry['reader']} | " + " | ".join(cells) + " |")
    return "\n".join(lines)


def run(*command):
    try:
        return subprocess.run(command, capture_output=True, text=True, check=True).stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        return "unknown"


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--results", required=True, help="velfs_bench JSON output")
    parser.add_argument("--memory", required=True, help="velfs_stream_peak output, JSON lines")
    parser.add_argument("--command", required=True, help="the command that ran everything")
    parser.add_argument("--settings", required=True, help="how velfs_bench was run")
    parser.add_argument("--out", help="the Markdown file whose figures are replaced")
    args = parser.parse_args()
    results, context = medians(args.results)
    with open(args.memory, encoding="utf-8") as source:
        memory = [json.loads(line) for line in source if line.strip()]
    load = ", ".join(f"{value:.2f}" for value in context.get("load_avg", []))
    date = datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC")
    text = (f"Figures of `{args.command}` at commit {run('git', 'describe', '--always', '--dirty')}, "
            f"{date}: `velfs_bench {args.settings}`, Release build; medians over the repetitions. "
            f"Machine: {context.get('num_cpus', '?')} CPUs, {run('uname', '-srm')}, load average "
            f"{load or 'unknown'} at the start.\n\n" + tables(results, memory))
    print(text)
    if args.out:
        with open(args.out, encoding="utf-8") as source:
            document = source.read()
        head, _, rest = document.partition(BEGIN)
        _, _, tail = rest.partition(END)
        with open(args.out, "w", encoding="utf-8") as out:
            out.write(f"{head}{BEGIN}\n{text}\n{END}{tail}")


if __name__ == "__main__":
    main()
