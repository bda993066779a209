"""Judges pictures in numpy arrays: one of the simulated camera, as it is and moved aside. Usage: judge.py SCRIPT.json"""
import queue
import sys

import numpy
import selvio_facial_capture as selvio

frames = queue.SimpleQueue()
with (
    selvio.Platform.simulated(script=sys.argv[1]) as platform,
    selvio.Camera(platform, pixel_format=selvio.PixelFormat.BGRA, on_frame=frames.put) as camera,
):
    camera.start()
    picture = frames.get(timeout=10).to_array()

    for columns in (0, 150):
        moved = numpy.roll(picture, columns, axis=1)
        results = platform.judge(selvio.Frame.from_array(moved, "BGRA"))
        print(columns, " ".join(status.name for status in results.statuses), results.face_rect)
