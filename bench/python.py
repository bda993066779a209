#!/usr/bin/env python3
"""What a host in Python costs beside one in C++ (bench/host.cpp): the processor time of both while they watch the simulated
camera, 1280 x 720 at 30 frames a second, and read every frame's results. Their starts are taken off; medians of five turns.
Usage: bench/python.py [SECONDS]"""
import os
import pathlib
import statistics
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
BUILD = ROOT / "build/bench"
START = 2.0  # seconds of a run that shows what the start costs


def watch(seconds):
    """Is the host."""
    import selvio_facial_capture as selvio

    judged = statuses = 0

    def read(results):
        nonlocal judged, statuses
        judged, statuses = judged + 1, statuses + len(results.statuses)

    parameters = selvio.Parameters(mode=selvio.Mode.MANUAL, record_video=False, record_audio=False)
    with (
        selvio.Platform.simulated(script=ROOT / "samples/scripts/steady.json") as platform,
        selvio.Analyzer(platform, parameters, on_results=read, on_success=read) as analyzer,
        selvio.Camera(platform, parameters) as camera,
    ):
        platform.wait_for_models()
        camera.set_analyzer(analyzer)
        camera.start()
        analyzer.resume()
        selvio.run(timeout=seconds)
    print(f"{judged} frames, {statuses} statuses")


def processor_time(command, seconds):
    """Of the whole process, user and system, in seconds."""
    environment = os.environ | {"PYTHONPATH": str(ROOT / "python"), "SELVIO_LIBRARY_PATH": str(BUILD / "lib")}
    before = os.times()
    printed = subprocess.run([*command, str(seconds)], check=True, capture_output=True, text=True, env=environment).stdout
    after = os.times()
    if int(printed.split()[0]) < 0.9 * 30 * (seconds - 1):
        sys.exit(f"{command[-1]}: only {printed.strip()} in {seconds} seconds; the machine is too busy to measure")
    return after.children_user + after.children_system - before.children_user - before.children_system


def main(seconds):
    hosts = {"C++": [BUILD / "bin/bench_host"], "Python": [sys.executable, __file__, "--host"]}
    turns = [
        {name: processor_time(host, START + seconds) - processor_time(host, START) for name, host in hosts.items()}
        for _ in range(5)
    ]
    cost = {name: statistics.median(turn[name] for turn in turns) / seconds for name in hosts}
    for name, of_a_second in cost.items():
        print(f"{name}: {100 * of_a_second:.1f} % of a core")
    print(f"Python over C++: {cost['Python'] / cost['C++']:.3f} (at most 1.10)")


if __name__ == "__main__":
    if sys.argv[1:2] == ["--host"]:
        watch(float(sys.argv[2]))
    else:
        main(float(sys.argv[1]) if len(sys.argv) > 1 else 20.0)
