"""Shows what the threads of a recorded program have called, by what its traces and the symbols of its files tell.

    calls.py QVX DIRECTORY FILE...

Each thread is a word: NAME( when a function is entered, ) when the one that was entered last is left, !NAME when
another one is. What has no name of its own in the files (functions of headers) is left out.
"""
import os
import re
import subprocess
import sys
from collections import namedtuple

Module = namedtuple("Module", "pid first last bias name told")
qvx, directory, files = sys.argv[1], sys.argv[2], sys.argv[3:]


def rows(trace):
    text = subprocess.run([qvx, "dump", "--parsable", trace], capture_output=True).stdout.decode()
    for line in text.split("\n"):
        cells = [cell.strip() for cell in line.split("\t")]
        if len(cells) > 2:
            yield cells[2:]


def symbols(file):
    names = {}
    for line in subprocess.run(["nm", "-C", file], capture_output=True, check=True).stdout.decode().split("\n"):
        found = re.match(r"([0-9a-f]+) [tT] (\w+)", line)
        if found:
            names[int(found[1], 16)] = found[2]
    return names


names = {os.path.basename(file): symbols(file) for file in files}
modules, gone, pids = [], [], {}
for trace in sorted(os.listdir(directory)):
    if trace.startswith("process_"):
        tick = 0
        for cells in rows(os.path.join(directory, trace)):
            if cells[0] == "Message":
                tick = int(cells[2])
            if cells[0] != "CharString" or not cells[2].startswith("quorvex."):
                continue
            word, _, rest = cells[2].partition(" ")
            value = dict(part.split("=", 1) for part in rest.split(" ") if "=" in part)
            if word == "quorvex.thread":
                pids[int(value["tid"])] = value["pid"]
            if word == "quorvex.module":
                name = os.path.basename(rest.partition("path=")[2])
                modules.append(Module(value["pid"], int(value["from"], 16), int(value["to"], 16),
                                      int(value["bias"], 16), name, tick))
            if word == "quorvex.gone":
                gone.append((value["pid"], int(value["from"], 16), tick))


def name_of(pid, address, tick):
    here = [m for m in modules if m.pid == pid and m.first <= address < m.last]
    here = [m for m in here if not any(g[:2] == (pid, m.first) and m.told <= g[2] < tick for g in gone)]
    return names.get(here[0].name, {}).get(address - here[0].bias) if here else "?"


threads = []
for trace in os.listdir(directory):
    if not trace.startswith("thread_") or not trace.endswith(".qvx"):
        continue
    text, calls = "", []
    for cells in rows(os.path.join(directory, trace)):
        if cells[0] not in ("FunctionEnter", "FunctionLeave"):
            continue
        tick, thread, address = int(cells[2]), int(cells[4]), int(cells[5], 16)
        name = name_of(pids.get(thread), address, tick)
        if not name:
            continue
        if cells[0] == "FunctionEnter":
            calls.append(name)
            text += name + "("
        elif calls and calls[-1] == name:
            calls.pop()
            text += ")"
        else:
            text += "!" + name
    threads.append(text)
print(" ".join(sorted(threads)))
