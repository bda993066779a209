#!/usr/bin/env python3
"""The program's window on an X display: where it is, its keys, and closing it. Usage: view_test.py PROGRAM SAMPLES WITH_DISPLAY"""
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import threading
import time

EMPTY = {"keyFrames": [{"at": 0, "visible": False}]}
PHOTOGRAPH = ["record.json", "selfie.jpg"]


def xdotool(*arguments):
    """Says nothing of a window that goes while a key is pressed: what the program does then shows."""
    return subprocess.run(["xdotool", *arguments], check=False, capture_output=True, text=True, timeout=30).stdout


def window():
    """The program's, once it can be seen."""
    end = time.monotonic() + 20
    found = ""
    while not found and time.monotonic() < end:
        found = xdotool("search", "--onlyvisible", "--name", "^selvio-capture$")
        time.sleep(0.05)
    return found.split()[-1] if found else "0"


def kill():
    """Cuts the program off its display."""
    xdotool("windowkill", window())


def press(key):
    xdotool("windowfocus", window(), "key", key)


# What the person does after which output (of `--json`), and what is left in the end.
CASES = [
    ("a face, accepted", "steady", [], [("detectionSuccess", "Return")], 0, PHOTOGRAPH),
    ("accepted without asking", "steady", ["--accept"], [], 0, PHOTOGRAPH),
    ("refused once, then accepted", "steady", [], [("detectionSuccess", "r"), ("detectionSuccess", "Return")], 0, PHOTOGRAPH),
    ("not accepted", "steady", [], [("detectionSuccess", "Escape")], 3, ["record.json"]),
    ("closed over the photograph", "steady", [], [("detectionSuccess", "ctrl+w")], 3, ["record.json"]),
    ("closed while it runs", EMPTY, [], [("detectionResults", "ctrl+w")], 3, ["record.json"]),
    ("cancelled", EMPTY, [], [("detectionResults", "Escape")], 3, ["record.json"]),
    ("begun again, then cancelled", EMPTY, [], [("detectionResults", "r"), ("detectionCancelled", None), ("detectionResults", "Escape")], 3,
     ["record.json"]),
    ("by hand, paused between", EMPTY, ["--mode", "manual"],
     [("detectionResults", "p"), (None, "p"), ("detectionResults", "space"), ("detectionSuccess", "Return")], 0, PHOTOGRAPH),
    ("the display is gone", "steady", [], [("detectionResults", kill)], 0, PHOTOGRAPH),
    ("the display is gone over the photograph", "steady", [], [("detectionSuccess", kill)], 0, PHOTOGRAPH),
    ("timed out", EMPTY, ["--timeout", "3"], [], 3, ["record.json"]),
]


def faults_of(program, samples, script, options, steps, exit_code, files):
    with tempfile.TemporaryDirectory() as directory:
        directory = pathlib.Path(directory)
        if script is EMPTY:
            path = directory / "script.json"
            path.write_text(json.dumps(EMPTY), encoding="utf-8")
        else:
            path = samples / "scripts" / f"{script}.json"
        command = [program, "run", "--preview", "--json", "--source", "simulated", "--script", path, "--out", directory / "out", *options]
        environment = {**os.environ, "LC_ALL": "C", "XDG_DATA_HOME": str(directory)}
        with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=environment) as process:
            watchdog = threading.Timer(30, process.kill)
            watchdog.start()
            size = None
            for event, action in steps:
                for line in process.stdout if event else ():
                    if json.loads(line)["event"] == event:
                        break
                size = size or xdotool("getwindowgeometry", "--shell", window())
                if action:
                    action() if callable(action) else press(action)
            while steps and steps[-1][1] == "Return":  # as a person would who sees no button yet
                try:
                    process.wait(timeout=0.5)
                    break
                except subprocess.TimeoutExpired:
                    subprocess.run(["xdotool", "key", "Return"], check=False)
            _, messages = process.communicate()
            watchdog.cancel()
        if process.returncode != exit_code:
            yield f"exit code {process.returncode}: {messages}"
        left = sorted(file.name for file in (directory / "out").iterdir())
        if left != files:
            yield f"left {left}"
        if "CRITICAL" in messages or "WARNING" in messages:
            yield messages
        if size:
            place = dict(line.split("=") for line in size.split())
            x, y, width, height = (int(place[name]) for name in ("X", "Y", "WIDTH", "HEIGHT"))
            most = [int(number) for number in xdotool("getdisplaygeometry").split()]
            if x < 0 or y < 0 or x + width > most[0] or y + height > most[1] or height < most[1] / 2:
                yield f"the window is {width}x{height} at {x},{y} on {most}"


def main(program, samples, with_display):
    if "VIEW_TEST" not in os.environ:  # once a display
        os.environ["VIEW_TEST"] = "1"
        codes = [subprocess.call([with_display, size, *sys.argv]) for size in ("1280x720", "1024x600")]
        return max(codes)
    faults = 0
    for name, *case in CASES:
        for fault in faults_of(program, pathlib.Path(samples), *case):
            print(f"{name}: {fault}")
            faults += 1
    print(f"{faults} faults")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
