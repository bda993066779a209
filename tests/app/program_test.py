#!/usr/bin/env python3
"""The real program, as a person or a script gets it: exit codes, what it prints and what it leaves behind.
Usage: program_test.py PROGRAM SOURCE_DIR SLOWER [CLASS]. SLOWER: how many times as long as usual a frame's analysis takes"""
import base64
import contextlib
import csv
import html.parser
import json
import os
import pathlib
import pty
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest

PROGRAM, SOURCE, SLOWER = sys.argv[1], pathlib.Path(sys.argv[2]), int(sys.argv[3])
SAMPLES = SOURCE / "samples"
STEADY = SAMPLES / "scripts/steady.json"
NOBODY, SEVERAL, FAR, GOOD = 1, 2, 6, 14


def run(*command, **options):
    return subprocess.run([str(each) for each in command], capture_output=True, text=True, timeout=120, **options)


class ProgramTest(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.out, self.messages = self.folder / "made/out", self.folder / "messages"
        self.empty = self.write("empty.json", '{"keyFrames": [{"at": 0, "visible": false}]}')
        self.environment = {**os.environ, "LC_ALL": "C", "XDG_DATA_HOME": str(self.folder)}
        for display in "DISPLAY", "WAYLAND_DISPLAY":
            self.environment.pop(display, None)

    def write(self, name, content):
        path = self.folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content if isinstance(content, bytes) else content.encode())
        return path

    def program(self, *arguments, language="C"):
        return run(PROGRAM, *arguments, env={**self.environment, "LC_ALL": language}, stdin=subprocess.DEVNULL)

    def start(self, *arguments, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=None):
        """Kills the program if it hangs. Its messages go to a file."""
        messages = stderr or self.enterContext(self.messages.open("w"))
        pipes = {"stdin": stdin, "stdout": stdout, "stderr": messages}
        process = subprocess.Popen([PROGRAM, *map(str, arguments)], env=self.environment, text=True, **pipes)
        watchdog = threading.Timer(120, process.kill)
        watchdog.start()
        self.addCleanup(watchdog.cancel)
        return process

    def capture(self, *options, script=STEADY, act=lambda process: None):
        """Into the folder `out`, with `act` at the sixth line of output. The exit code, the lines, the messages."""
        lines = []
        with self.start("run", "--json", "--out", self.out, *(script and ["--script", script]), *options) as process:
            for text in process.stdout:
                lines.append(json.loads(text))
                if len(lines) == 6:
                    act(process)
        return process.returncode, lines, self.messages.read_text()

    def results(self):
        return sorted(file.name for file in self.out.iterdir())

    def record(self):
        return json.loads((self.out / "record.json").read_text())


class Captures(ProgramTest):
    def test_a_capture_leaves_its_photograph_its_record_and_a_page_of_itself(self):
        code, lines, messages = self.capture("--countdown-time", 2, "--image-quality", 80, "--report")
        self.assertEqual((code, self.results()), (0, ["record.json", "report.html", "selfie.jpg"]), messages)
        record, written, report, photograph = self.record(), *map(self.out.joinpath, self.results())
        told = [record["SelvioResultCode"], record["Autocapture"], record["Parameters"]["ImageQuality"]]
        self.assertEqual(told, ["SuccessVideo", "1", "80"])
        self.assertLessEqual({"startCountdown", "detectionResults"}, {line["event"] for line in lines})
        self.assertEqual((lines[-1]["event"], lines[-1]["statuses"]), ("detectionSuccess", [GOOD]))
        times = [line["time"] for line in lines]
        self.assertEqual(times, sorted(times))
        self.assertGreaterEqual(times[-1], 2)  # the countdown
        self.assertEqual(run("identify", "-format", "%h", photograph).stdout, "1280")
        for file in photograph, written:
            self.assertEqual(file.stat().st_mode & 0o777, 0o600)
            self.assertEqual(self.program("show", "--json", file).stdout, written.read_text())
            changed, event = r"  ImageQuality +80  \(default 95\)\n", r" +\d+\.\d{3} s  FHS  Stay like that\n"
            told = rf"\n  SelvioResultCode +SuccessVideo\n(.*\n)*{changed}(.*\n)*{event}"
            self.assertRegex(self.program("show", file).stdout, told)
        with open("/dev/full", "w") as full:
            self.assertEqual(self.start("show", photograph, stdout=full).wait(), 6)

        self.assertEqual(self.program("report", photograph, "-o", "-").stdout, report.read_text())
        page = Page(report.read_text())
        self.assertEqual((page.images, page.foreign, page.tags - page.ALLOWED), ([photograph.read_bytes()], [], set()))
        self.assertIn("Picture selected automatically", report.read_text())
        for row in ["ImageQuality", "80", "95", "changed"], ["Roll", "500", "500", ""], ["Model", record["Model"]]:
            self.assertIn(row, page.rows)
        self.assertEqual(self.program("report", written, language="de_DE.UTF-8").returncode, 0)
        page = Page((self.out / "record.html").read_text())
        self.assertEqual(page.images, [])
        self.assertIn(["ImageQuality", "80", "95", "geändert"], page.rows)

    def test_a_countdown_that_is_broken_off_begins_again(self):
        face = {"visible": True, "center": [0.5, 0.46], "jawWidth": 0.63, "second": None, "noise": 1.5}
        two = {"center": [0.26, 0.45], "jawWidth": 0.37, "second": {"center": [0.76, 0.45], "jawWidth": 0.37}}
        scenes = (0, 1, face), (1, 2, {"visible": False}), (3, 1, face), (4, 2, two), (6, 0, face)
        frames = [{"at": at * SLOWER, "hold": hold * SLOWER, **scene} for at, hold, scene in scenes]
        script = self.write("script.json", json.dumps({"keyFrames": frames}))
        options = ["--countdown-time", min(3 * SLOWER, 5), "--timeout", 30]
        code, lines, messages = self.capture(*options, script=script)
        self.assertEqual(code, 0, messages)
        for line in lines:
            self.assertEqual(line["statuses"] == [], line["event"] == "startCountdown", line)
        statuses = [line["statuses"] for line in lines]
        self.assertLess(statuses.index([NOBODY]), statuses.index([SEVERAL]))

    def test_a_recording_is_kept_however_the_capture_ends(self):
        documents = self.folder / "SelvioFacialCapture/Documents"
        for script, sent in (self.empty, signal.SIGINT), (STEADY, 0):

            def act(process, sent=sent):
                (documents / "selvio_left over.mp4").touch()
                process.send_signal(sent)

            code, _, messages = self.capture("--record-video", "--record-audio", script=script, act=act)
            self.assertEqual(("Cancelled" in messages, code), (True, 3) if sent else (False, 0), messages)
            self.assertEqual(self.record()["Parameters"]["RecordVideo"], "1")
            recording = (self.out / "recording.mp4").read_bytes()
            self.assertEqual(recording[4:8], b"ftyp")
            self.assertLess(recording.index(b"moov"), recording.index(b"mdat"))
            self.assertEqual(list(documents.iterdir()), [])  # neither the component's own copy nor what was left over

        video = (self.out / "recording.mp4").rename(self.folder / "short.mp4")  # its frames come to an end
        shutil.rmtree(self.out)
        options = ["--source", f"video:{video}", "--countdown-time", 5, "--record-video"]
        code, lines, messages = self.capture(*options, script="")
        self.assertEqual((code, lines[-1]["event"]), (4, "detectionCancelled"))
        self.assertIn("The camera has stopped delivering frames", messages)
        self.assertEqual(self.results(), ["record.json", "recording.mp4"])

    def test_that_a_recording_was_lost_is_said_soon(self):
        def act(process):
            shutil.rmtree(self.folder / "SelvioFacialCapture/Documents")
            process.terminate()
            self.ended = time.monotonic()

        code, _, messages = self.capture("--record-video", script=self.empty, act=act)
        self.assertLess(time.monotonic() - self.ended, 14)  # no wait for what cannot come
        self.assertEqual((code, self.results()), (3, ["record.json"]))
        self.assertIn("the recording could not be finished", messages)

    def test_a_capture_that_times_out_leaves_its_record(self):
        code, lines, messages = self.capture("--timeout", 3, script=self.empty)
        self.assertEqual((code, lines[-1]["event"], self.results()), (3, "detectionCancelled", ["record.json"]))
        self.assertEqual((self.record()["SelvioResultCode"], "Timed out" in messages), ("Cancelled", True))

    def test_by_hand_the_first_good_face_or_enter_on_a_terminal_takes_the_picture(self):
        code, _, messages = self.capture("--mode", "manual")
        self.assertEqual((code, self.record()["Autocapture"]), (0, "0"), messages)
        self.assertLessEqual({"SS", "ST"}, {code for event in self.record()["UXP"] for code in event})

        shutil.rmtree(self.out)
        person, terminal = pty.openpty()
        shown, entered, pipes = b"", 0, dict.fromkeys(("stdin", "stdout", "stderr"), terminal)
        with self.start("--mode", "manual", "--script", self.empty, "--out", self.out, **pipes) as process:
            os.close(terminal)
            with contextlib.suppress(OSError):  # at the end
                while True:
                    shown += os.read(person, 4096)
                    if not entered and b"\r\033[KShow your face to the camera" in shown:
                        entered = os.write(person, b"\n")
        os.close(person)
        self.assertEqual((process.returncode, self.results()), (0, ["record.json", "selfie.jpg"]), shown)
        self.assertIn(b"there is no display", shown)
        self.assertEqual(self.record()["SelvioResultCode"], "SuccessStillCamera")

    def test_what_is_missing_or_damaged_is_named_and_has_its_code(self):
        alone = shutil.copy(SAMPLES / "astronaut.jpg", self.folder / "alone.jpg")
        file, bad, cut = self.write("file", "x"), self.write("bad.json", "{"), self.write("cut.json", '{"UXP":[{"FS"')
        page, gone = self.write("page.html", "{}"), self.folder / "gone"
        to_out = ["--out", self.out]
        for arguments, code, message in (
            (["--out", file / "out", "--source", "simulated"], 6, "file/out"),
            ([*to_out, "--source", "camera:no such camera"], 4, "camera"),
            ([*to_out, "--photo", gone], 5, "gone"),
            ([*to_out, "--photo", alone], 5, "alone.json"),
            ([*to_out, "--script", bad], 5, "bad.json"),
            ([*to_out, "--source", f"video:{gone}"], 5, "gone"),
            ([*to_out, "--source", f"video:{file}"], 5, "file: cannot be played"),
            ([*to_out, "--source", f"video:{self.folder}"], 5, "cannot be read as a file"),
            (["show", file], 5, "neither a JPEG"),
            (["show", SAMPLES / "astronaut.jpg"], 5, "no data record"),
            (["show", self.folder], 5, str(self.folder)),
            (["report", cut], 5, "damaged"),
            (["report", page], 2, "would replace"),
            (["report", page, "-o", gone / "page.html"], 6, "gone/page.html"),
        ):
            ended = self.program(*arguments)
            self.assertEqual((ended.returncode, ended.stdout), (code, ""), arguments)
            self.assertIn(message, ended.stderr)
        self.assertEqual(page.read_text(), "{}")


class Batches(ProgramTest):
    def setUp(self):
        super().setUp()

        def picture(options):
            resized = ["convert", SAMPLES / "astronaut.jpg", *options.split(), "-resize", "720x1280!", "jpg:-"]
            return subprocess.check_output(resized)

        good = picture("-crop 140x249+56+0")
        far = picture("-crop 200x300+26+0 +repage -gravity south -extent 200x356")
        two = picture("-crop 125x249+63+0 +repage ( +clone ) +append -gravity center -extent 250x444")
        nobody = subprocess.check_output(["convert", "-size", "360x640", "xc:gray", "png:-"])
        # In the order of a walk, with the number of faces and what is to be found there.
        tree = [
            ("2.jpg", good, 1, [GOOD]),
            ("b/DAMAGED.JPEG", good[:3000], None, None),
            ("b/nobody.PNG", nobody, 0, [NOBODY]),
            ('c, "c\x1b".jpg', good, 1, [GOOD]),
            ("d.jpeg", b"", None, None),
            ("far.jpg", far, 1, [FAR]),
            ("two.jpg", two, 2, [SEVERAL]),
        ]
        self.expected = [(str(self.write(f"all/a.d/{name}", content)), *found) for name, content, *found in tree]
        self.expected.append(("", None, None))
        self.all = (self.folder / "all", "")
        self.write("all/a.d/notes.txt", "no picture")
        (self.folder / "all/a.d/b/loop").symlink_to(self.folder / "all")

    def test_folders_are_judged_in_order_whatever_is_damaged(self):
        single, several = (self.program("check", "--json", "--jobs", jobs, *self.all) for jobs in (1, 5))
        self.assertEqual((single.returncode, single.stdout), (5, several.stdout))
        lines = [json.loads(line) for line in single.stdout.splitlines()]
        self.assertEqual([(line["image"], line.get("faces"), line.get("statuses")) for line in lines], self.expected)
        for line in lines:
            self.assertEqual(line["image"] in line.get("error", ""), "statuses" not in line)
            self.assertEqual(line.get("measures") is not None, line.get("faces") == 1)
        fill, jaw = lines[0]["measures"]["fill"], json.loads((SAMPLES / "astronaut.json").read_text())
        self.assertEqual((fill["min"], fill["max"]), (0.55, 0.725))
        self.assertAlmostEqual(fill["value"], (jaw["jawRight"][0] - jaw["jawLeft"][0]) / 140, delta=0.03)
        summary = r"^8 pictures in [0-9.]+ s \([0-9.]+ a second\): 2 good, 3 unreadable\n +1  Show your face"
        self.assertRegex(several.stderr, summary)

        table = [*csv.reader(self.program("check", "--csv", *self.all).stdout.splitlines())]
        names = ["image", "faces", "statuses", "x", "y", "width", "height", *lines[0]["measures"], "error"]
        self.assertEqual(table.pop(0), names)
        for line, row in zip(lines, table, strict=True):
            measures = [measure["value"] for measure in (line.get("measures") or {}).values()]
            numbers = [*(line.get("faceRect") or []), *measures] or [""] * 10
            told = [line.get("faces", ""), " ".join(map(str, line.get("statuses", []))), *numbers]
            self.assertEqual(row, [line["image"], *map(str, told), line.get("error", "")])

        people = self.program("check", self.folder / "all", self.folder / "gone.jpg", language="de_DE.UTF-8")
        self.assertRegex(people.stderr, r"(?s)DAMAGED.JPEG.*8 Bilder")
        self.assertIn('c, "c?".jpg: 1 face: ', people.stdout)
        self.assertIn("far.jpg: 1 face: Kommen Sie näher\n", people.stdout)
        strict = self.program("check", "--json", "--min-fill", 750, "--max-fill", 850, self.expected[0][0])
        self.assertEqual((strict.returncode, json.loads(strict.stdout)["statuses"]), (0, [FAR]))

    def test_each_line_is_answered_before_the_next_one_comes(self):
        for form, asked_for in ("--json", []), ("--csv", ["--csv"]):
            answers = self.program("check", form, *self.all).stdout.splitlines(keepends=True)
            with self.start("check", *asked_for, "-", stdin=subprocess.PIPE) as judging:
                for (path, *_), answer in zip(self.expected, answers[-len(self.expected) :], strict=True):
                    print(path, file=judging.stdin, flush=True)
                    self.assertEqual(judging.stdout.readline(), answer)
                judging.stdin.close()
                self.assertEqual((judging.stdout.read(), judging.wait()), ("", 5))


class Page(html.parser.HTMLParser):
    """What a browser makes of a page: its text by rows of cells, and whatever it would load or run."""

    ALLOWED = set("html meta style title h1 h2 p div section img table tr th td svg rect".split())

    def __init__(self, text):
        super().__init__()
        self.tags, self.rows, self.images, self.foreign = set(), [], [], []
        self.feed(text)

    def handle_starttag(self, tag, attributes):
        self.tags.add(tag)
        if tag == "tr":
            self.rows.append([])
        if tag in ("td", "th"):
            self.rows[-1].append("")
        for name, value in attributes:
            if name == "src" and value.startswith("data:image/jpeg;base64,"):
                self.images.append(base64.b64decode(value.partition(",")[2]))
            elif name in ("src", "href", "style", "srcset", "action", "data") or name.startswith("on"):
                self.foreign.append((name, value))

    def handle_data(self, data):
        if self.rows and self.rows[-1]:
            self.rows[-1][-1] += data.rstrip("\n")


class References(ProgramTest):
    def test_what_a_record_says_stays_text(self):
        hostile = "</td></style><script>alert(1)</script><img src=x onerror='a()'>&amp;\"\u202e\x00\x1b[2J\x9b2J"
        frames = [{code: [time]} for time in (1000, 1070, 1150) for code in ("FETC", "FENC")]
        odd = [{hostile: [2000, hostile]}, {"FS": ["x"]}, 5, {"C": [1500]}, {"IS": [-1e300]}]
        record = {"SelvioResultCode": hostile, hostile: hostile, "Parameters": {hostile: hostile, "Yaw": {"a": [1]}}}
        file = self.write("odd.json", json.dumps({**record, "UXP": [{"SA": [0]}, {"FENF": [500]}, *frames, *odd]}))
        page = Page(self.program("report", file, "-o", "-").stdout)
        shown = re.sub("[\x00\x1b\x9b]", "?", hostile)
        self.assertEqual((page.foreign, page.tags - page.ALLOWED), ([], set()))
        for row in (
            [shown, shown],
            ["0.00", "0.50", "Capture started", "SA", ""],
            ["0.50", "0.50", "Show your face to the camera", "FENF", ""],
            ["1.00", "1.00", "Move back a little", "FETC FENC", ""],
            ["2.00", "–", "", shown, ""],
            ["–", "–", "Very good", "FS", ""],
            ["Yaw", '{"a":[1]}', "500", "changed"],
        ):
            self.assertIn(row, page.rows)
        for each in file, self.write("7.json", '{"Parameters":7,"UXP":[{"FS":"x"}]}'):
            self.assertRegex(self.program("show", each).stdout, r"^[^\x00\x1b\x9b]*Very good[^\x00\x1b\x9b]*$")

    def test_the_devices_that_there_are_are_listed(self):
        listed = [json.loads(line) for line in self.program("devices", "--json").stdout.splitlines()]
        front = next(device for device in listed if device.get("source") == "simulated")
        self.assertEqual((front["kind"], front["position"]), ("camera", "front"))
        shown = self.program("devices").stdout
        self.assertIn(f"camera      {front['name']}  (--source 'simulated')\n    420v ", shown)
        self.assertIn("at up to 30 frames a second\nmicrophone  ", shown)

    def test_manual_and_completions_name_what_help_names(self):
        self.assertRegex(self.program("--version").stdout, r"^selvio-capture \d+\.\d+\.\d+\n$")
        manual, script = (self.program("reference", what).stdout for what in ("man", "bash"))
        sections = re.split(r"\n\.SS ", manual.replace("\\-", "-"))[1:]
        commands = {section.split('"')[1].split()[1]: section for section in sections}
        listed = self.program("--help").stdout.partition("Subcommands:")[2]
        self.assertEqual(list(commands), re.findall(r"^  (\w+)", listed, re.MULTILINE))
        ask = '''eval "$0"; COMP_WORDS=(selvio-capture "$@"); COMP_CWORD=$#; _selvio_capture; printf '%s\\n' "${COMPREPLY[@]}"'''

        def completed(*words):
            return set(run("bash", "-c", ask, script, *words, check=True).stdout.split())

        self.assertTrue(set(commands) <= completed(""))
        for command, section in commands.items():
            shown = self.program(command, "--help").stdout
            options = set(re.findall(r"(?:^  |,)(--[a-z-]+)", shown, re.MULTILINE))
            described = " ".join(re.findall(r"\\fB(.*?)\\fR", section))
            self.assertEqual(set(re.findall(r"--[a-z-]+\w", described)), options, command)
            self.assertEqual({word for word in completed(command, "--") if word.startswith("--")}, options, command)
        self.assertEqual(completed("run", "--mode", ""), {"auto", "manual"})
        self.assertEqual((completed("--mode", "m"), completed("check", "")), ({"manual"}, set()))
        warnings = run("man", "--warnings", "-l", "-", input=manual, env={**os.environ, "MANPAGER": "cat"})
        self.assertEqual((warnings.returncode, warnings.stderr), (0, ""))


def xdotool(*arguments):
    """Says nothing of a window that goes while a key is pressed: what the program does then shows."""
    return run("xdotool", *arguments).stdout


def window():
    """The program's, once it can be seen."""
    return xdotool("search", "--sync", "--onlyvisible", "--name", "^selvio-capture$").split()[-1]


class View(ProgramTest):
    """The program's window, for an X display: where it is, its keys, and closing it."""

    PHOTOGRAPH, RECORD = (0, ["record.json", "selfie.jpg"]), (3, ["record.json"])
    # Over somebody (or nobody): what the person does after which output, and what is left in the end.
    CASES = (
        ("accepted without asking", True, "--accept", "", PHOTOGRAPH),
        ("refused once, then accepted", True, "", "Success r Success Return", PHOTOGRAPH),
        ("not accepted", True, "", "Success Escape", RECORD),
        ("not accepted, its recording lost", True, "--record-video", "Success Escape", (6, ["record.json"])),
        ("closed over the photograph", True, "", "Success ctrl+w", RECORD),
        ("closed while it runs", False, "", "Results ctrl+w", RECORD),
        ("begun again, then cancelled", False, "", "Results r Cancelled - Results Escape", RECORD),
        ("by hand, paused between", False, "--mode manual", "Results p - p Results space Success Return", PHOTOGRAPH),
        ("gone on by the button, timed out", False, "--mode manual --accept --timeout 3", "Results p - space", RECORD),
        ("the display is gone", True, "", "Results gone", PHOTOGRAPH),
        ("the display is gone over the photograph", True, "", "Success gone", PHOTOGRAPH),
    )

    def setUp(self):
        super().setUp()
        self.environment = os.environ | self.environment
        self.write("SelvioFacialCapture", "where recordings would be")

    def test_the_window_does_what_the_person_asks(self):
        for name, somebody, options, steps, left in self.CASES:
            with self.subTest(name):
                self.follow(STEADY if somebody else self.empty, options.split(), steps.split(), left)
                shutil.rmtree(self.out)

    def follow(self, script, options, steps, left):
        size = None
        with self.start("run", "--preview", "--json", "--script", script, "--out", self.out, *options) as process:
            for event, action in zip(steps[::2], steps[1::2]):
                for line in process.stdout if event != "-" else ():
                    if json.loads(line)["event"] == "detection" + event:
                        break
                size = size or xdotool("getwindowgeometry", "--shell", window())
                if action == "gone":
                    xdotool("windowkill", window())
                elif action != "-":
                    xdotool("windowfocus", window(), "key", action)
            while steps[-1:] == ["Return"] and process.poll() is None:  # as where no button is seen yet
                time.sleep(0.5)
                xdotool("key", "Return")
            process.stdout.read()
        messages = self.messages.read_text()
        self.assertEqual((process.returncode, self.results()), left, messages)
        self.assertNotRegex(messages, "CRITICAL|WARNING")
        if size:
            x, y, width, height = map(int, re.findall(r"^(?:X|Y|WIDTH|HEIGHT)=(-?\d+)", size, re.MULTILINE))
            most = [int(number) for number in xdotool("getdisplaygeometry").split()]
            self.assertTrue(0 <= x <= most[0] - width and 0 <= y <= most[1] - height and height >= most[1] / 2, size)


unittest.main(argv=[sys.argv[0], *sys.argv[4:]])
