#!/usr/bin/env python3
"""Turns the raw output of one bench/run into the results file.

usage: report.py RAW_DIR OUT.md OUT.png
"""
import csv
import json
import os
import platform
import subprocess
import sys


def load_bench(raw, name):
    path = os.path.join(raw, name + ".json")
    if not os.path.exists(path):
        return None
    with open(path) as f:
        data = json.load(f)
    return {b["name"]: b for b in data["benchmarks"]}


def load_redis_benchmark(raw, transport):
    rows = {}
    with open(os.path.join(raw, "redis-benchmark-%s.csv" % transport)) as f:
        for row in csv.reader(f):
            if len(row) >= 2 and row[0] != "test":
                rows[row[0].split(" ")[0].upper()] = float(row[1])
    return rows


def table(header, rows):
    out = ["| " + " | ".join(header) + " |", "|" + "---|" * len(header)]
    out += ["| " + " | ".join(str(c) for c in r) + " |" for r in rows]
    return "\n".join(out)


def verdict(ratio, goal):
    return "met" if ratio >= goal else "NOT met"


def bus_section(raw):
    bus = load_bench(raw, "bench_bus")
    if not bus:
        return ""
    rows = []
    ratios = []
    for transport in ("unix", "tcp"):
        limit = load_redis_benchmark(raw, transport)
        pairs = [
            ("set", limit["SET"]),
            ("get", limit["GET"]),
            # One send plus one receive is an LPUSH and an RPOP in a row.
            ("list_send + list_recv", 1.0 / (1.0 / limit["LPUSH"] + 1.0 / limit["RPOP"])),
            ("list_size", limit["LLEN"]),
            ("publish (1 subscriber)", limit["PUBLISH"]),
        ]
        names = ["set", "get", "list_send_recv", "list_size", "publish"]
        for (label, ref), name in zip(pairs, names):
            ours = bus["bus_%s/%s" % (name, transport)]["items_per_second"]
            ratio = ours / ref
            ratios.append(ratio)
            rows.append([label, transport, "%.0f" % ours, "%.0f" % ref, "%.2f" % ratio])
    text = "## Bus operations (one Messager, one request in flight)\n\n"
    text += "Limit: `redis-benchmark -c 1 -P 1` for the same command on the same server and socket. "
    text += "Goal: ratio >= 0.9 (%s; lowest %.2f).\n\n" % (verdict(min(ratios), 0.9), min(ratios))
    text += table(["operation", "transport", "ours (ops/s)", "redis-benchmark (ops/s)", "ratio"], rows)
    rss = bus.get("bus_rss/iterations:1") or bus.get("bus_rss")
    if rss:
        growth = rss["rss_end_kib"] - rss["rss_start_kib"]
        text += "\n\nResident size across %d bus operations: %d KiB before, %d KiB after " % (
            rss["operations"], rss["rss_start_kib"], rss["rss_end_kib"])
        text += "(growth %d KiB; goal: within 1024 KiB, %s).\n" % (
            growth, "met" if growth <= 1024 else "NOT met")
    return text + "\n"


def machine():
    cpu = "unknown CPU"
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    cpu = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    redis = subprocess.run(["redis-server", "--version"], capture_output=True, text=True).stdout.strip()
    return "%d cores, %s, %s %s; %s" % (os.cpu_count(), cpu, platform.system(), platform.release(), redis)


def main():
    raw, out_md, out_png = sys.argv[1:4]
    sections = [bus_section(raw)]
    with open(out_md, "w") as f:
        f.write("# Benchmark results\n\n")
        f.write("Machine: %s.\n\n" % machine())
        f.write("Produced by `bench/run` (Release build, private redis-server on a Unix socket and TCP loopback).\n\n")
        f.write("\n".join(s for s in sections if s))


if __name__ == "__main__":
    main()
