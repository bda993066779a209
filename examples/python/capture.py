"""Captures one photograph from the simulated camera. Usage: capture.py [OUTPUT.jpg [SCRIPT.json]]"""
import pathlib
import sys

import selvio_facial_capture as selvio

output, script = pathlib.Path(*sys.argv[1:2] or ["selfie.jpg"]), sys.argv[2] if len(sys.argv) > 2 else None
countdowns = 0  # a countdown that was broken off is not the newest any more


def show(results):
    global countdowns
    countdowns += results.status != selvio.Status.COUNTDOWN
    print(results.status.key)


def count_down():
    global countdowns
    countdowns += 1
    mine = countdowns
    selvio.call_after(analyzer.parameters.countdown_time, lambda: mine == countdowns and analyzer.select_frame())


def save(results):
    output.write_bytes(results.jpeg)
    selvio.quit()


with (
    selvio.Platform.simulated(script=script) as platform,
    selvio.Analyzer(platform, on_results=show, on_countdown=count_down, on_success=save) as analyzer,
    selvio.Camera(platform) as camera,
):
    camera.set_analyzer(analyzer)
    camera.start()
    analyzer.resume()
    if not selvio.run(timeout=60):
        sys.exit("no photograph within a minute")
