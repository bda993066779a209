#!/usr/bin/env python3
"""The program's window on an X display: where it is, its keys, and closing it. Usage: view_test.py PROGRAM SAMPLES WITH_DISPLAY"""
import ctypes
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import threading

EMPTY = {"keyFrames": [{"at": 0, "visible": False}]}
PHOTOGRAPH = ["record.json", "selfie.jpg"]


def xdotool(*arguments):
    return subprocess.run(["xdotool", *arguments], check=True, capture_output=True, text=True, timeout=30).stdout


def kill():
    """Cuts the program off its display."""
    xdotool("search", "--onlyvisible", "--name", "^selvio-capture$", "windowkill")


def press(key):
    xdotool("search", "--onlyvisible", "--name", "^selvio-capture$", "windowfocus", "key", key)


def close():
    """Asks the window to close, as a window manager does."""

    class ClientMessage(ctypes.Structure):
        _fields_ = [("type", ctypes.c_int), ("serial", ctypes.c_ulong), ("send", ctypes.c_int), ("display", ctypes.c_void_p),
                    ("window", ctypes.c_ulong), ("message", ctypes.c_ulong), ("format", ctypes.c_int), ("data", ctypes.c_long * 5),
                    ("padding", ctypes.c_long * 24)]

    window = int(xdotool("search", "--onlyvisible", "--name", "^selvio-capture$").split()[-1])
    x11 = ctypes.CDLL("libX11.so.6")
    x11.XOpenDisplay.restype = display_type = ctypes.c_void_p
    x11.XInternAtom.argtypes = [display_type, ctypes.c_char_p, ctypes.c_int]
    x11.XInternAtom.restype = ctypes.c_ulong
    x11.XSendEvent.argtypes = [display_type, ctypes.c_ulong, ctypes.c_int, ctypes.c_long, ctypes.c_void_p]
    x11.XCloseDisplay.argtypes = [display_type]
    display = x11.XOpenDisplay(None)
    atoms = [x11.XInternAtom(display, name, 0) for name in (b"WM_PROTOCOLS", b"WM_DELETE_WINDOW")]
    event = ClientMessage(type=33, window=window, message=atoms[0], format=32, data=(ctypes.c_long * 5)(atoms[1]))
    x11.XSendEvent(display, window, 0, 0, ctypes.byref(event))
    x11.XCloseDisplay(display)


# What the person does after which output (of `--json`), and what is left in the end.
CASES = [
    ("a face, accepted", "steady", [], [("detectionSuccess", "Return")], 0, PHOTOGRAPH),
    ("accepted without asking", "steady", ["--accept"], [], 0, PHOTOGRAPH),
    ("refused once, then accepted", "steady", [], [("detectionSuccess", "r"), ("detectionSuccess", "Return")], 0, PHOTOGRAPH),
    ("not accepted", "steady", [], [("detectionSuccess", "Escape")], 3, ["record.json"]),
    ("closed over the photograph", "steady", [], [("detectionSuccess", close)], 3, ["record.json"]),
    ("closed while it runs", EMPTY, [], [("detectionResults", close)], 3, ["record.json"]),
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
            watchdog = threading.Timer(60, process.kill)
            watchdog.start()
            size = None
            for event, action in steps:
                for line in process.stdout if event else ():
                    if json.loads(line)["event"] == event:
                        break
                size = size or xdotool("search", "--onlyvisible", "--name", "^selvio-capture$", "getwindowgeometry", "--shell")
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
