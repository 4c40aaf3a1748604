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
    plain = []
    for transport in ("unix", "tcp"):
        for op in ("set", "get"):
            ours = bus["bus_%s/%s" % (op, transport)]["items_per_second"]
            raw_ = bus["hiredis_%s/%s" % (op, transport)]["items_per_second"]
            plain.append([op, transport, "%.0f" % ours, "%.0f" % raw_, "%.2f" % (ours / raw_)])
    text += "\n\n`redis-benchmark` drives its one client through an event loop and is slower than a "
    text += "blocking client; the same commands written directly on hiredis (`redisCommand` in a loop) "
    text += "show what the library itself costs:\n\n"
    text += table(["operation", "transport", "ours (ops/s)", "plain hiredis (ops/s)", "ratio"], plain)
    worst = min(float(r[4]) for r in plain)
    text += "\n\nGoal: ratio >= 0.97 for set and get (%s; lowest %.2f). Commands are formatted by hiredis " % (
        verdict(worst, 0.97), worst)
    text += "and written with `send(MSG_NOSIGNAL)`, so a server that has gone cannot kill the caller with "
    text += "SIGPIPE and no signal-mask system calls are made per command."
    logged = []
    for transport in ("unix", "tcp"):
        for op in ("set", "get", "list_send_recv"):
            plain_ = bus["bus_%s/%s" % (op, transport)]["items_per_second"]
            login = bus["bus_%s/%s_login" % (op, transport)]["items_per_second"]
            logged.append([op, transport, "%.0f" % plain_, "%.0f" % login, "%.2f" % (login / plain_)])
    text += "\n\nLogged in as an ACL user (AUTH once per connection, `Messager(..., user, password)`) "
    text += "against the default user, same server, same run; goal: within noise (ratio about 1):\n\n"
    text += table(["operation", "transport", "default user (ops/s)", "logged in (ops/s)", "ratio"], logged)
    rss = bus.get("bus_rss/iterations:1") or bus.get("bus_rss")
    if rss:
        growth = rss["rss_end_kib"] - rss["rss_start_kib"]
        text += "\n\nResident size across %d bus operations: %d KiB before, %d KiB after " % (
            rss["operations"], rss["rss_start_kib"], rss["rss_end_kib"])
        text += "(growth %d KiB; goal: within 1024 KiB, %s).\n" % (
            growth, "met" if growth <= 1024 else "NOT met")
    return text + "\n"


def sample_section(raw, out_png):
    sample = load_bench(raw, "bench_sample")
    if not sample:
        return ""
    sizes = [(640, 480, 1), (1280, 720, 2), (1920, 1080, 3)]
    rows = []
    points = []
    worst = 0.0
    speedup_big = 0.0
    for w, h, b in sizes:
        arg = "%d/%d/%d/iterations:1" % (w, h, b)
        floor = sample["sample_floor/" + arg]
        shm = sample["sample_shm/" + arg]
        redis = sample["sample_through_redis/" + arg]
        ratio = shm["median_us"] / floor["median_us"]
        speedup = redis["median_us"] / shm["median_us"]
        worst = max(worst, ratio)
        if (w, h, b) == sizes[-1]:
            speedup_big = speedup
        rows.append(["%dx%dx%d (%d bytes)" % (w, h, b, w * h * b),
                     "%.0f" % shm["median_us"], "%.0f" % shm["p99_us"], "%.0f" % shm["images_per_s"],
                     "%.0f" % floor["median_us"], "%.2f" % ratio,
                     "%.0f" % redis["median_us"], "%.0f" % redis["images_per_s"], "%.1f" % speedup])
        points.append((w * h * b, shm["median_us"], floor["median_us"], redis["median_us"]))
    text = "## Sample transfer (two processes, send to completed receive)\n\n"
    text += "Floor: two `memcpy` of the pixels and one Redis round trip. Through Redis: the pixels pushed as one "
    text += "list element with `list_send(\"%%b\")` and popped by the receiver. Goals: shared-memory median at most "
    text += "1.5 x the floor for each size (%s; worst %.2f), and at least 5 x faster than through Redis for "
    text += "1920 x 1080 x 3 (%s; %.1f x).\n\n"
    text = text % ("met" if worst <= 1.5 else "NOT met", worst,
                   "met" if speedup_big >= 5 else "NOT met", speedup_big)
    text += table(["image", "shm median (us)", "shm p99 (us)", "shm images/s", "floor median (us)",
                   "shm / floor", "through Redis median (us)", "through Redis images/s",
                   "shm speed-up"], rows)
    rss = sample.get("sample_rss/640/480/1/iterations:1")
    if rss:
        text += "\n\nResident size across %d transfers of 640 x 480 x 1: receiver %d -> %d KiB, sender %d -> %d KiB " % (
            rss["transfers"], rss["receiver_rss_start_kib"], rss["receiver_rss_end_kib"],
            rss["sender_rss_start_kib"], rss["sender_rss_end_kib"])
        growth = max(rss["receiver_rss_end_kib"] - rss["receiver_rss_start_kib"],
                     rss["sender_rss_end_kib"] - rss["sender_rss_start_kib"])
        text += "(growth at most %d KiB; goal: within 1024 KiB, %s).\n" % (growth, "met" if growth <= 1024 else "NOT met")
    chart(points, out_png)
    text += "\n![sample latency against image size](%s)\n" % os.path.basename(out_png)
    return text + "\n"


def direct_section(raw):
    sample = load_bench(raw, "bench_sample")
    if not sample or "sample_loan_view/640/480/1/iterations:1" not in sample:
        return ""
    sizes = [(640, 480, 1), (1280, 720, 2), (1920, 1080, 3)]
    rows = []
    loans = []
    for w, h, b in sizes:
        arg = "/%d/%d/%d/iterations:1" % (w, h, b)
        shm, loan, view, into = (sample[n + arg]["median_us"] for n in
                                 ("sample_shm", "sample_loan_view", "sample_send_view", "sample_recv_into"))
        loans.append(loan)
        rows.append(["%dx%dx%d" % (w, h, b), "%.0f" % shm, "%.0f" % loan, "%.2f" % (loan / shm),
                     "%.0f" % view, "%.2f" % (view / shm), "%.0f" % into, "%.2f" % (into / shm)])
    big = [float(c) for c in rows[-1][1:]]
    flat = max(loans) / min(loans)
    goals = [("loan + view flat in image size (largest / smallest median <= 1.5)", flat, flat <= 1.5),
             ("loan + view at 1920x1080x3 <= 0.2 x copying", big[2], big[2] <= 0.2),
             ("described send + view at 1920x1080x3 <= 0.6 x copying", big[4], big[4] <= 0.6),
             ("receive into a reused image at 1920x1080x3 <= 0.8 x allocating receive", big[6], big[6] <= 0.8)]
    text = "## Zero copy and reuse (two processes, medians in us)\n\n"
    text += ("Copying: described send and the allocating receive (the shared-memory column above). Loan + view: "
             "from just before the loan to the start of the view's function; the loan's fill writes the "
             "pixels and its own time is left out. Send + view: described send, view. Into: described "
             "send, receive into one reused image (to its return).\n\n")
    text += "\n".join("- %s: %.2f, %s" % (g, v, "met" if ok else "NOT met") for g, v, ok in goals) + "\n\n"
    text += table(["image", "copying", "loan + view", "ratio", "send + view", "ratio", "into", "ratio"], rows)
    return text + "\n"


def chart(points, out_png):
    data = out_png + ".dat"
    with open(data, "w") as f:
        for p in points:
            f.write("%d %f %f %f\n" % p)
    script = """set terminal pngcairo size 800,500
set output '%s'
set title 'Sample transfer latency (median)'
set xlabel 'image size (bytes)'
set ylabel 'latency (us)'
set logscale xy
set key top left
plot '%s' using 1:2 with linespoints title 'shared memory', \\
     '%s' using 1:3 with linespoints title 'floor (2 memcpy + 1 round trip)', \\
     '%s' using 1:4 with linespoints title 'through Redis'
""" % (out_png, data, data, data)
    subprocess.run(["gnuplot"], input=script, text=True, check=True)
    os.remove(data)


def versus_section(title, text, goal, columns, ours, other):
    """One figure of ours next to one alternative: (label, value) each."""
    ratio = ours[1] / other[1]
    out = "## %s\n\n%s Goal: ratio >= %s (%s).\n\n" % (title, text, goal, verdict(ratio, goal))
    out += table(columns,
                 [[ours[0], "%.0f" % ours[1]], [other[0], "%.0f" % other[1]], ["ratio", "%.2f" % ratio]])
    return out + "\n"


def lua_section(raw):
    lua = load_bench(raw, "bench_lua")
    if not lua:
        return ""
    text = ("A LuaJIT script subscribes and calls `check` in a loop; the native listener is "
            "`Messager::subscribe`, both over TCP (the transport of Lua subscriptions). One publisher, "
            "one request in flight, 100000 messages. The native listener wakes for every message (one "
            "`read` a message, seen with `strace -c`); on two cores it competes with the publisher and the "
            "server for a core at each one, while the Lua subscription's reader thread is batched behind "
            "the `check` loop, so the Lua figure can be the higher.")
    return versus_section("Lua subscription delivery (publish to callback)", text, 0.5, ["listener", "messages/s"],
                          ("Lua subscription + check", lua["lua_subscription/iterations:1"]["messages_per_s"]),
                          ("native subscribe", lua["native_subscription/iterations:1"]["messages_per_s"]))


def http_section(raw):
    http = load_bench(raw, "bench_http")
    if not http:
        return ""
    text = ("Alternative: the same loop written directly with libcurl (one easy handle per request, the "
            "same headers).")
    return versus_section("HTTP client (`get` against a local nginx, one request at a time)", text, 0.9,
                          ["loop", "requests/s"], ("bHttpClient::get", http["http_get_client"]["items_per_second"]),
                          ("plain libcurl", http["http_get_curl"]["items_per_second"]))


def load_section(raw):
    load = load_bench(raw, "bench_load")
    if not load:
        return ""
    rows = [[name.split("/")[0], "%.0f %s" % next((v, k) for k, v in b.items() if k.endswith("_per_s")),
             b.get("error_message", "every message and image checked")] for name, b in load.items()]
    return ("## Sustained load\n\n8 producers and 8 consumers on one list (half TCP, half Unix socket); two sample "
            "streams, each with one sender and two receivers checking every pixel.\n\n"
            + table(["load", "rate", "result"], rows) + "\n")


def https_section(raw):
    http = load_bench(raw, "bench_http")
    if not http or "https_get_client" not in http:
        return ""
    scale = {"ns": 1e-3, "us": 1.0, "ms": 1e3}
    rows, times = [], []
    for label, name in (("HTTP", "http_get_client"), ("HTTPS", "https_get_client")):
        b = http[name]
        wall, cpu = (b[k] * scale[b["time_unit"]] for k in ("real_time", "cpu_time"))
        times.append((wall, cpu))
        rows.append([label, "%.0f" % wall, "%.0f" % cpu])
    rows.append(["HTTPS / HTTP", "%.1f" % (times[1][0] / times[0][0]), "%.1f" % (times[1][1] / times[0][1])])
    text = "## HTTPS against plain HTTP (`get` on the same local nginx)\n\n"
    text += ("Request time of `bHttpClient::get`, one request at a time, each on a new connection (the "
             "client asks for `Connection: close`), so every HTTPS request pays a full TLS handshake "
             "(ECDSA P-256 server certificate, verified against the run's CA, host name checked).\n\n")
    text += table(["transport", "wall us per request", "client CPU us per request"], rows)
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
    sections = [bus_section(raw), sample_section(raw, out_png), direct_section(raw), lua_section(raw),
                http_section(raw), https_section(raw), load_section(raw)]
    with open(out_md, "w") as f:
        f.write("# Benchmark results\n\n")
        f.write("Machine: %s.\n\n" % machine())
        f.write("Produced by `bench/run` (Release build, private redis-server on a Unix socket and TCP loopback). "
                "Placement: redis-server, redis-benchmark and every client pinned to CPU %s with taskset, "
                "the same CPU for all (the ratios against redis-benchmark and plain hiredis compare like with "
                "like; the sample benchmarks' two processes share that CPU too).\n\n" % os.environ.get("BENCH_CPU", "0"))
        f.write("\n".join(s for s in sections if s))


if __name__ == "__main__":
    main()
