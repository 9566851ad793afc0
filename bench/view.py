"""What `qvx view` takes for a trace, as tables: seconds of its index beside those of `qvx info` by one thread, and
milliseconds of each question that the page asks.

    view.py QVX TRACE
"""

import http.client
import json
import os
import re
import subprocess
import sys
import time
import urllib.parse

qvx, trace = sys.argv[1:3]
index = trace + ".view"


def row(*cells):
    print("|", " | ".join(cells), "|", flush=True)


def measure(name, *words, serves):
    """A row of what a run takes, until it ends or serves."""
    if os.path.exists(index):
        os.remove(index)
    began = time.monotonic()
    process = subprocess.Popen([qvx, *words, trace], stdout=subprocess.PIPE, text=True)
    process.stdout.readline() if serves else process.stdout.read()
    seconds = time.monotonic() - began
    if serves:
        process.terminate()
    used = os.wait4(process.pid, 0)[2]
    process.stdout.close()
    row(name, f"{seconds:.1f}", f"{used.ru_utime + used.ru_stime:.1f}")


row("work", "seconds", "of the processor")
row(*["---"] * 3)
measure("`qvx info`, one thread", "info", "--jobs", "1", serves=False)
measure("`qvx view`, until it serves", "view", "--no-browser", serves=True)
measure("the same, one thread", "view", "--no-browser", "--jobs", "1", serves=True)
print(f"\nthe index has {os.path.getsize(index) / 1e6:.0f} MB\n")

process = subprocess.Popen([qvx, "view", "--no-browser", "--stay", trace], stdout=subprocess.PIPE, text=True)
try:
    host, token = re.fullmatch(r"http://(.*)/#t=(.*)\n", process.stdout.readline()).groups()
    connection = http.client.HTTPConnection(host)

    def ask(question, **words):
        """The answer, and its milliseconds."""
        began = time.monotonic()
        connection.request("GET", f"/api/{question}?" + urllib.parse.urlencode(words), headers={"X-Token": token})
        answer = connection.getresponse().read()
        return answer, (time.monotonic() - began) * 1000

    lines = [json.loads(line) for line in ask("lines")[0].splitlines()]
    report = next(line for line in lines if line["record"] == "report")
    names = [line["name"] for line in lines if line["record"] == "name" and line["table"] == "function"]
    counts = next(line["counts"] for line in lines if line["record"] == "counts" and line["table"] == "function")
    most, fewest = counts.index(max(counts)), counts.index(min(counts))
    tracks = sum(line["record"] == "track" for line in lines)
    begin, end = int(report["from"]), int(report["to"])
    row(
        "milliseconds for",
        "the first time",
        "then at most",
        "for a third",
        "then at most",
        "for a thousandth",
        "then at most",
    )
    row(*["---"] * 7)
    for what, question, more in [
        ("a picture of all tracks", "tile", {"tracks": ",".join(map(str, range(tracks)))}),
        ("the table of functions", "table", {}),
        ("the flame graph", "flame", {}),
        ("durations of the most frequent function", "histogram", {"name": most}),
        ("durations of the rarest function", "histogram", {"name": fewest}),
        ("messages and events", "marks", {"filter": "", "most": 500}),
        ("the next call of the rarest function", "next", {"pattern": names[fewest]}),
        ("the one before", "next", {"pattern": names[fewest], "back": 1}),
        ("what is under the mouse", "item", {"track": tracks - 1, "index": 0}),
    ]:
        cells = []
        for part in (1, 3, 1000):
            length = (end - begin) // part
            since = begin + (end - begin - length) // 2
            words = {"from": since, "to": since + length, "cell": max(1, length // 2600), **more}
            if "back" in words:
                words["from"] = words["to"]
            times = [ask(question, **words)[1] for _ in range(6)]
            cells += [f"{times[0]:.1f}", f"{max(times[1:]):.1f}"]
        row(what, *cells)
finally:
    process.terminate()
    process.wait()
