"""The Python package: a capture whose callbacks raise, closed and forgotten objects, pictures, the main queue."""
import ctypes
import gc
import inspect
import json
import pathlib
import queue
import re
import subprocess
import sys
import tempfile
import tomllib
import unittest
import weakref
from unittest import mock

import numpy
import selvio_facial_capture as selvio
from selvio_facial_capture import _library as library

ROOT = pathlib.Path(__file__).resolve().parents[2]
SCENE = (ROOT / "samples/astronaut.jpg", ROOT / "samples/scripts/steady.json")


class Boom(Exception):
    pass


class PackageTest(unittest.TestCase):
    def setUp(self):
        self.platform = selvio.Platform.simulated(*SCENE)
        self.addCleanup(self.platform.close)

    def test_a_capture_survives_callbacks_that_raise(self):
        told, unraisable, recordings = [], [], queue.SimpleQueue()

        def results(results):
            told.append(results)
            if len(told) == 2:
                analyzer.select_frame()
            raise Boom

        def success(results):
            told.append(results)
            analyzer.close()  # from inside its own callback
            selvio.quit()

        self.platform.set_screen_size(540, 960)
        parameters = selvio.Parameters(countdown_time=5, record_video=True)
        callbacks = {"on_results": results, "on_countdown": lambda: None, "on_success": success}
        analyzer = selvio.Analyzer(self.platform, parameters, **callbacks)
        on_frame = mock.Mock(side_effect=Boom)
        camera = selvio.Camera(self.platform, parameters, on_frame=on_frame, on_recording=recordings.put)
        with mock.patch("sys.unraisablehook", lambda what: unraisable.append(what.exc_type)), analyzer, camera:
            camera.set_analyzer(analyzer)
            camera.start()
            analyzer.resume()
            quitted, raised = None, 0
            while quitted is None:
                try:
                    quitted = selvio.run(timeout=60)
                except (Boom, BaseExceptionGroup):
                    raised += 1
            camera.stop()
            self.assertEqual(recordings.get(timeout=60)[4:8], b"ftyp")
        self.assertTrue(quitted and raised)  # what is raised within one drain counts once
        self.assertEqual(set(unraisable), {Boom})
        self.assertEqual({result.status for result in told[:-1]}, {selvio.Status.COUNTDOWN})
        last = told[-1]
        self.assertEqual((last.statuses, last.code), ((selvio.Status.GOOD_FRAME,), selvio.ResultCode.SUCCESS_VIDEO))
        self.assertEqual(last.jpeg[:3], b"\xff\xd8\xff")
        self.assertEqual(json.loads(last.record)["Parameters"]["CountdownTime"], "5")
        rect = last.face_rect
        self.assertTrue(0 < rect.x < rect.x + rect.width < 540 and len(last.face_contour) == 17)
        self.assertLess(max(abs(x - rect.x - rect.width / 2) for x, _ in last.face_contour), 0.6 * rect.width)

    def test_cancelling_raises_what_its_callback_raises_and_the_main_queue_what_its_blocks_raise(self):
        cancelled = mock.Mock(side_effect=Boom)
        analyzer = selvio.Analyzer(self.platform, on_cancelled=cancelled)
        self.assertRaises(Boom, analyzer.cancel)
        self.assertEqual(cancelled.call_args[0][0].code, selvio.ResultCode.CANCELLED)
        analyzer.cancel()  # spent: nothing more
        cancelled.assert_called_once()

        ran, woken = [], mock.Mock()
        self.addCleanup(selvio.set_wake_up, None)
        selvio.set_wake_up(woken)
        selvio.call_after(0, lambda: ran.append(selvio.drain()))  # not from inside a block
        selvio.call_after(0, mock.Mock(side_effect=Boom))
        selvio.call_after(0, lambda: ran.append("last"))
        with self.assertRaises(BaseExceptionGroup) as group:
            selvio.drain()
        self.assertEqual([type(error) for error in group.exception.exceptions], [selvio.Error, Boom])
        self.assertEqual((ran, woken.called), (["last"], True))
        self.assertIsNone(selvio.seconds_until_next())
        self.assertFalse(selvio.run(timeout=0))
        selvio.quit()
        self.assertTrue(selvio.run())
        self.assertRaises(selvio.Error, selvio.call_after, -1, print)

    def test_a_camera_of_the_back_says_what_it_sees_and_has_a_torch(self):
        with tempfile.NamedTemporaryFile("w") as script:
            json.dump({"keyFrames": [{"at": 0, "visible": False, "barcode": "Ä1"}]}, script)
            script.flush()
            self.platform = selvio.Platform.simulated(SCENE[0], script.name)
        told, back = queue.SimpleQueue(), {"position": selvio.Position.BACK, "detect_barcodes": True}
        on = {"on_ready": lambda: told.put("ready"), "on_barcode": told.put}
        with self.platform, selvio.Camera(self.platform, **back, **on) as camera:
            camera.start()
            self.assertEqual([told.get(timeout=60) for _ in range(2)], ["ready", "Ä1"])
            camera.set_torch(True)
            camera.stop_recording()
        with selvio.Platform() as machine:
            self.assertRaisesRegex(selvio.Error, "only a simulated", machine.set_faults, selvio.Fault(0))

    def test_a_closed_object_refuses_every_call(self):
        frame = selvio.Frame.from_bgra(bytes(16), 2, 2)
        arguments = {"analyze": [frame], "set_torch": [True], "set_analyzer": [None], "judge": [frame],
                     "set_screen_size": [1, 1], "set_faults": [selvio.Fault(0)]}  # fmt: skip
        for closed in selvio.Camera(self.platform), selvio.Analyzer(self.platform), self.platform:
            closed.close()
            closed.close()
            for name, function in inspect.getmembers(type(closed), inspect.isfunction):
                if not name.startswith("_") and name != "close":
                    self.assertRaisesRegex(ValueError, "is closed", function, closed, *arguments.get(name, []))
        for make in selvio.Camera, selvio.Analyzer:
            self.assertRaisesRegex(ValueError, "platform is closed", make, self.platform)

    def test_forgotten_objects_end(self):
        frames = queue.SimpleQueue()
        camera = selvio.Camera(self.platform, on_frame=frames.put)
        camera.knot = camera  # garbage for the collector only
        camera.start()
        frames.get(timeout=10)
        forgotten = weakref.ref(camera)
        del camera
        while forgotten():
            gc.collect()  # a callback that runs still holds it
        while not frames.empty():
            frames.get()
        self.assertRaises(queue.Empty, frames.get, timeout=0.3)

        cancelled = mock.Mock()
        for reason in 1, 2:
            analyzer = selvio.Analyzer(self.platform, on_cancelled=cancelled)
            analyzer.resume()
            analyzer.pause(reason)
        analyzer.cancel()
        told = [code for event in json.loads(cancelled.call_args[0][0].record)["UXP"] for code in event]
        self.assertEqual(told, ["SA", "HS", "C"])  # nothing of the capture that was forgotten

        script = f"""
import sys, selvio_facial_capture as selvio
selvio.set_log(print)
platform = selvio.Platform.simulated(*{[str(path) for path in SCENE]})
analyzer = selvio.Analyzer(platform, on_results=print, on_countdown=selvio.quit)
camera = selvio.Camera(platform, on_frame=lambda frame: frame.planes())
camera.set_analyzer(analyzer)
camera.start()
analyzer.resume()
selvio.run()
sys.exit(3)
"""
        ended = subprocess.run([sys.executable, "-B", "-c", script], capture_output=True, text=True, timeout=60)
        self.assertEqual((ended.returncode, ended.stderr), (3, ""))

    def test_pictures_and_parameters_are_what_they_were_made_of(self):
        channels = numpy.arange(18, dtype=numpy.uint8).reshape(2, 3, 3)
        bgra = selvio.Frame.from_array(channels, "RGB").to_array()
        self.assertTrue((bgra[:, :, 2::-1] == channels).all() and (bgra[:, :, 3] == 255).all())
        self.assertTrue((selvio.Frame.from_array(bgra, "BGRA").to_array() == bgra).all())
        chroma = bytearray(b"uvUV__" * 2)
        padded = selvio.Frame.from_nv12(b"abcd" * 3, chroma, 3, 3, 4, 6)
        chroma[:] = bytes(12)  # the frame is a copy
        self.assertEqual(padded.planes(), (b"abcabcabc", b"uvUVuvUV"))
        self.assertEqual((padded.width, padded.height, padded.pixel_format), (3, 3, selvio.PixelFormat.NV12))
        apart = numpy.zeros((2, 4, 4), numpy.uint8)[:, ::2]
        for arguments in (bytes(15), 2, 2), (bytes(16), 2, 2, 7), (bytes(16), 2 - 2**32, 2), (apart, 2, 2):
            self.assertRaises(ValueError, selvio.Frame.from_bgra, *arguments)
        for arguments in (channels, "BGRA"), (channels, "RGR"), (channels.astype(float),):
            self.assertRaises(ValueError, selvio.Frame.from_array, *arguments)
        self.assertRaises(ValueError, padded.to_array)

    def test_each_parameter_holds_what_was_set_within_its_range_and_no_other_changes(self):
        rows = {"mode": (selvio.Mode.AUTO, 1, selvio.Mode.MANUAL), "timeout": (20, 99, 30), "min_fill": (550, 1, 400),
                "max_fill": (725, 740, 740), "roll": (500, 501, 501), "pitch": (500, -(2**70), 0), "yaw": (500, 2**70, 1000),
                "image_quality": (95, 94, 94), "select_on_smile": (False, 7, True), "countdown_time": (2, 3, 3),
                "record_video": (False, True, True), "record_audio": (False, 256, True), "video_quality": (10, 55, 55),
                "show_recording_ui": (True, 0, False), "highlight_landmarks": (False, 1, True)}  # fmt: skip
        parameters = selvio.Parameters()
        expected = {name: initial for name, (initial, _, _) in rows.items()}
        for name, (_, given, expected[name]) in rows.items():
            setattr(parameters, name, given)
            self.assertEqual(repr({each: getattr(parameters, each) for each in rows}), repr(expected))
        self.assertEqual(selvio.Parameters(min_fill=800).max_fill, 900)
        self.assertRaises(selvio.Error, setattr, parameters, "mode", 3)
        self.assertRaises(AttributeError, setattr, parameters, "rol", 3)
        self.assertRaises(TypeError, selvio.Parameters, rol=3)

    def test_a_camera_that_is_not_there_is_an_error_and_a_line_of_the_log(self):
        lines = []
        selvio.set_log(lines.append)
        self.addCleanup(selvio.set_log, None)
        self.platform.set_faults(selvio.Fault.NO_CAMERA)
        with selvio.Camera(self.platform) as camera, self.assertRaisesRegex(selvio.Error, "could not be opened"):
            camera.start()
        self.assertIn("Could not discover a capture device", lines)
        self.assertRaisesRegex(selvio.Error, "/none.jpg", selvio.Platform.simulated, "/none.jpg")

    def test_a_handle_that_is_not_there_is_an_error(self):
        for name, (_, *kinds) in library._MAY_FAIL.items():
            if kinds and kinds[0] is ctypes.c_void_p:
                given = (kind._type_() if hasattr(kind, "contents") else 1 for kind in kinds)
                arguments = [None if kind is ctypes.c_void_p else value for kind, value in zip(kinds, given)]
                with self.subTest(name), self.assertRaisesRegex(selvio.Error, "^[a-z]+ is NULL$"):
                    getattr(library.library, name)(*arguments)

    def test_what_is_written_elsewhere_agrees(self):
        project = tomllib.loads((ROOT / "python/pyproject.toml").read_text())["project"]
        self.assertEqual(project["version"], selvio.version())
        header = (ROOT / "include/SelvioFacialCapture/c/selvio_facial_capture.h").read_text()
        kinds = {"STATUS": selvio.Status, "RESULT": selvio.ResultCode, "FAULT": selvio.Fault, "MODE": selvio.Mode,
                 "CAMERA": selvio.Position, "PIXEL_FORMAT": selvio.PixelFormat}  # fmt: skip
        expected = {prefix: {member.name: int(member) for member in kind} for prefix, kind in kinds.items()}
        numbers = {name.upper(): getattr(selvio.Parameters, name)._number for name in selvio._PARAMETER_NAMES}
        for prefix, values in {**expected, "PARAMETER": numbers}.items():
            told = re.findall(rf"SELVIO_{prefix}_(\w+) =\s+(\w+)", header)
            self.assertEqual({name: int(value, 0) for name, value in told}, values)
        guide = (ROOT / "docs/host-guide.md").read_text()
        for language, example in ("c", "examples/c/capture.c"), ("python", "examples/python/capture.py"):
            blocks = re.findall(rf"```{language}\n(.*?)```", guide, re.DOTALL)
            self.assertTrue(blocks and all(block in (ROOT / example).read_text() for block in blocks), language)


unittest.main()
