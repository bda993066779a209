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


class ProgramTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.out = self.folder / "out"
        self.empty = self.write("empty.json", '{"keyFrames": [{"at": 0, "visible": false}]}')
        displays = ("DISPLAY", "WAYLAND_DISPLAY")
        self.environment = {name: value for name, value in os.environ.items() if name not in displays}
        self.environment |= {"LC_ALL": "C", "XDG_DATA_HOME": folder.name}

    def write(self, name, content):
        path = self.folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content if isinstance(content, bytes) else content.encode())
        return path

    def program(self, *arguments, language="C"):
        environment = {**self.environment, "LC_ALL": language}
        return subprocess.run(
            [PROGRAM, *map(str, arguments)], env=environment, stdin=subprocess.DEVNULL, capture_output=True, text=True
        )

    def capture(self, *options, script=STEADY, line=6, act=lambda process: None):
        """Runs a capture into the folder "out", with `act` at that line of its output. Its exit code, its lines, its messages."""
        command = [
            PROGRAM,
            "run",
            "--json",
            *(["--script", script] if script else []),
            "--out",
            self.out,
            *map(str, options),
        ]
        lines, messages = [], self.write("messages", "")
        with messages.open("w") as errors, subprocess.Popen(
            command, env=self.environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=errors
        ) as process:
            for text in process.stdout:
                lines.append(json.loads(text))
                if len(lines) == line:
                    act(process)
        return process.returncode, lines, messages.read_text()

    def results(self):
        return sorted(file.name for file in self.out.iterdir())

    def record(self):
        return json.loads((self.out / "record.json").read_text())


class Captures(ProgramTest):
    def test_a_capture_leaves_its_photograph_its_record_and_a_page_of_itself(self):
        code, lines, messages = self.capture("--countdown-time", 2, "--image-quality", 80, "--report")
        self.assertEqual((code, self.results()), (0, ["record.json", "report.html", "selfie.jpg"]), messages)
        record = self.record()
        self.assertEqual(
            (record["SelvioResultCode"], record["Autocapture"], record["Parameters"]["ImageQuality"]),
            ("SuccessVideo", "1", "80"),
        )
        self.assertLessEqual({"startCountdown", "detectionResults"}, {line["event"] for line in lines})
        self.assertEqual((lines[-1]["event"], lines[-1]["statuses"]), ("detectionSuccess", [GOOD]))
        times = [line["time"] for line in lines]
        self.assertEqual(times, sorted(times))
        self.assertGreaterEqual(times[-1], 2)  # the countdown
        photograph, text = (self.out / "selfie.jpg").read_bytes(), (self.out / "record.json").read_text()
        height = subprocess.run(
            ["identify", "-format", "%h", self.out / "selfie.jpg"], capture_output=True, check=True
        ).stdout
        self.assertEqual(height, b"1280")
        for file in self.out / "selfie.jpg", self.out / "record.json":
            self.assertEqual(file.stat().st_mode & 0o777, 0o600)
            self.assertEqual(self.program("show", "--json", file).stdout, text)
            shown = self.program("show", file)
            self.assertEqual(shown.returncode, 0)
            self.assertRegex(shown.stdout, r"\n  SelvioResultCode +SuccessVideo\n")
            self.assertRegex(
                shown.stdout, r"\n  ImageQuality +80  \(default 95\)\n(.*\n)* +\d+\.\d{3} s  FHS  Stay like that\n"
            )
        with open("/dev/full", "w") as full:
            self.assertEqual(
                subprocess.call([PROGRAM, "show", self.out / "selfie.jpg"], stdout=full, stderr=subprocess.DEVNULL), 6
            )

        text = (self.out / "report.html").read_text()
        self.assertEqual(self.program("report", self.out / "selfie.jpg", "-o", "-").stdout, text)
        page = Page(text)
        self.assertEqual((page.images, page.foreign, page.tags - page.ALLOWED), ([photograph], [], set()))
        self.assertIn("Picture selected automatically", text)
        for row in ["ImageQuality", "80", "95", "changed"], ["Roll", "500", "500", ""], ["Model", record["Model"]]:
            self.assertIn(row, page.rows)
        self.assertEqual(self.program("report", self.out / "record.json", language="de_DE.UTF-8").returncode, 0)
        page = Page((self.out / "record.html").read_text())
        self.assertEqual(page.images, [])
        self.assertIn(["ImageQuality", "80", "95", "geändert"], page.rows)

    def test_a_countdown_that_is_broken_off_begins_again(self):
        face = {"visible": True, "center": [0.5, 0.46], "jawWidth": 0.63, "second": None, "noise": 1.5}
        two = {"center": [0.26, 0.45], "jawWidth": 0.37, "second": {"center": [0.76, 0.45], "jawWidth": 0.37}}
        for status, disturbance in (NOBODY, {"visible": False}), (SEVERAL, two):
            frames = (
                {"at": 0, "hold": 1.5 * SLOWER, **face},
                {"at": 1.5 * SLOWER, "hold": SLOWER, **disturbance},
                {"at": 2.5 * SLOWER, **face},
            )
            script = self.write("script.json", json.dumps({"keyFrames": frames}))
            code, lines, messages = self.capture(
                "--countdown-time", min(3 * SLOWER, 5), "--timeout", 10 * SLOWER, script=script
            )
            self.assertEqual(code, 0, messages)
            self.assertIn([status], [line["statuses"] for line in lines])
            for line in lines:
                self.assertEqual(line["statuses"] == [], line["event"] == "startCountdown", line)

    def test_a_recording_is_kept_however_the_capture_ends(self):
        documents = self.folder / "SelvioFacialCapture/Documents"
        for script, interrupt in (self.empty, signal.SIGINT), (STEADY, 0):

            def act(process, interrupt=interrupt):
                (documents / "selvio_left over.mp4").touch()
                process.send_signal(interrupt)

            code, _, messages = self.capture("--record-video", "--record-audio", script=script, act=act)
            self.assertEqual(code, 3 if interrupt else 0, messages)
            self.assertEqual(self.record()["Parameters"]["RecordVideo"], "1")
            recording = (self.out / "recording.mp4").read_bytes()
            self.assertEqual(recording[4:8], b"ftyp")
            self.assertLess(recording.index(b"moov"), recording.index(b"mdat"))
            self.assertEqual(list(documents.iterdir()), [])  # neither the component's own copy nor what was left over

        video = (self.out / "recording.mp4").rename(self.folder / "short.mp4")  # its frames come to an end
        shutil.rmtree(self.out)
        code, lines, messages = self.capture(
            "--source", f"video:{video}", "--countdown-time", 5, "--record-video", script=None
        )
        self.assertEqual((code, lines[-1]["event"]), (4, "detectionCancelled"))
        self.assertIn("The camera has stopped delivering frames", messages)
        self.assertEqual(self.results(), ["record.json", "recording.mp4"])

    def test_that_a_recording_was_lost_is_said_soon(self):
        def act(process):
            for folder in (self.folder / "SelvioFacialCapture/Documents").iterdir():
                shutil.rmtree(folder)
            process.send_signal(signal.SIGINT)
            self.interrupted = time.monotonic()

        code, _, messages = self.capture("--record-video", script=self.empty, act=act)
        self.assertLess(time.monotonic() - self.interrupted, 14)  # no wait for what cannot come
        self.assertEqual((code, self.results()), (3, ["record.json"]))
        self.assertIn("the recording could not be finished", messages)

    def test_the_record_stays_when_the_capture_is_interrupted_or_times_out(self):
        for interrupt, message in (signal.SIGINT, "Cancelled"), (signal.SIGTERM, "Cancelled"), (0, "Timed out"):
            code, lines, messages = self.capture(
                "--timeout",
                30 if interrupt else 3,
                script=self.empty,
                line=1,
                act=lambda process, interrupt=interrupt: process.send_signal(interrupt),
            )
            self.assertEqual((code, lines[-1]["event"], self.results()), (3, "detectionCancelled", ["record.json"]))
            self.assertEqual(self.record()["SelvioResultCode"], "Cancelled")
            self.assertIn(message, messages)
            shutil.rmtree(self.out)

    def test_by_hand_the_first_good_face_or_enter_on_a_terminal_takes_the_picture(self):
        code, _, messages = self.capture("--mode", "manual")
        self.assertEqual((code, self.record()["Autocapture"]), (0, "0"), messages)
        self.assertLessEqual({"SS", "ST"}, {code for event in self.record()["UXP"] for code in event})

        shutil.rmtree(self.out)
        person, terminal = pty.openpty()
        command = [PROGRAM, "--mode", "manual", "--script", self.empty, "--out", self.out]
        with subprocess.Popen(
            command, env=self.environment, stdin=terminal, stdout=terminal, stderr=terminal
        ) as process:
            os.close(terminal)
            shown, entered = b"", 0
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
        run = ["--out", self.out]
        for arguments, code, message in (
            (["--out", file / "out", "--source", "simulated"], 6, "file/out"),
            ([*run, "--source", "camera:no such camera"], 4, "camera"),
            ([*run, "--photo", gone], 5, "gone"),
            ([*run, "--photo", alone], 5, "alone.json"),
            ([*run, "--script", bad], 5, "bad.json"),
            ([*run, "--source", f"video:{gone}"], 5, "gone"),
            ([*run, "--source", f"video:{file}"], 5, "file: cannot be played"),
            ([*run, "--source", f"video:{self.folder}"], 5, "cannot be read as a file"),
            (["show", gone], 5, "gone"),
            (["show", file], 5, "neither a JPEG"),
            (["show", cut], 5, "damaged"),
            (["show", SAMPLES / "astronaut.jpg"], 5, "no data record"),
            (["show", self.folder], 5, str(self.folder)),
            (["report", gone], 5, "gone"),
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
        alone, together = (
            "-crop 140x249+56+0",
            "-crop 125x249+63+0 +repage ( +clone ) +append -gravity center -extent 250x444",
        )
        distant = "-crop 200x300+26+0 +repage -gravity south -extent 200x356"

        def picture(options):
            return subprocess.check_output(
                ["convert", SAMPLES / "astronaut.jpg", *options.split(), "-resize", "720x1280!", "jpg:-"]
            )

        good = picture(alone)
        nobody = subprocess.check_output(["convert", "-size", "360x640", "xc:gray", "png:-"])
        # In the order of a walk, with the number of faces and what is to be found there.
        tree = [
            ("a.d/2.jpg", good, 1, GOOD),
            ("a.d/b/DAMAGED.JPEG", good[:3000], None, None),
            ("a.d/b/nobody.PNG", nobody, 0, NOBODY),
            ('a.d/c, "c".jpg', good, 1, GOOD),
            ("a.d/d.jpeg", b"", None, None),
            ("a.d/far.jpg", picture(distant), 1, FAR),
            ("a.d/two.jpg", picture(together), 2, SEVERAL),
        ]
        self.expected = [
            (str(self.write(f"all/{name}", content)), faces, status and [status])
            for name, content, faces, status in tree
        ]
        self.write("all/a.d/notes.txt", "no picture")
        (self.folder / "all/a.d/b/loop").symlink_to(self.folder / "all")

    def test_folders_are_judged_in_order_whatever_is_damaged(self):
        single, several = (self.program("check", "--json", "--jobs", jobs, self.folder / "all") for jobs in (1, 5))
        self.assertEqual((single.returncode, single.stdout), (5, several.stdout))
        lines = [json.loads(line) for line in single.stdout.splitlines()]
        self.assertEqual([(line["image"], line.get("faces"), line.get("statuses")) for line in lines], self.expected)
        for line in lines:
            self.assertEqual(line["image"] in line.get("error", ""), "statuses" not in line)
            self.assertEqual(line.get("measures") is not None, line.get("faces") == 1)
        fill, jaw = lines[0]["measures"]["fill"], json.loads((SAMPLES / "astronaut.json").read_text())
        self.assertEqual((fill["min"], fill["max"]), (0.55, 0.725))
        self.assertAlmostEqual(fill["value"], (jaw["jawRight"][0] - jaw["jawLeft"][0]) / 140, delta=0.03)
        self.assertRegex(
            several.stderr, r"^7 pictures in [0-9.]+ s \([0-9.]+ a second\): 2 good, 2 unreadable\n +1  Show your face"
        )

        table = self.program("check", "--csv", self.folder / "all")
        self.assertEqual(table.returncode, 5)
        self.assertEqual({len(row) for row in csv.reader(table.stdout.splitlines())}, {14})
        for line, row in zip(lines, csv.DictReader(table.stdout.splitlines()), strict=True):
            self.assertEqual((row["image"], row["error"]), (line["image"], line.get("error", "")))
            self.assertEqual(row["statuses"], " ".join(map(str, line.get("statuses", []))))
            if line.get("measures"):
                self.assertEqual([float(row[name]) for name in ("x", "y", "width", "height")], line["faceRect"])
                for name, measure in line["measures"].items():
                    self.assertEqual(float(row[name]), measure["value"], name)

        people = self.program("check", self.folder / "all", self.folder / "gone.jpg", language="de_DE.UTF-8")
        self.assertRegex(people.stderr, r"(?s)DAMAGED.JPEG.*8 Bilder")
        self.assertIn("far.jpg: 1 face: Kommen Sie näher\n", people.stdout)
        strict = self.program("check", "--json", "--min-fill", 750, "--max-fill", 850, self.folder / "all/a.d/2.jpg")
        self.assertEqual((strict.returncode, json.loads(strict.stdout)["statuses"]), (0, [FAR]))

    def test_each_line_is_answered_before_the_next_one_comes(self):
        for form in "--json", "--csv":
            with subprocess.Popen(
                [PROGRAM, "check", form, "-"],
                text=True,
                stdin=subprocess.PIPE,
                stdout=subprocess.PIPE,
                stderr=subprocess.DEVNULL,
            ) as judging:
                watchdog = threading.Timer(60, judging.kill)  # an answer that never comes ends the test
                self.addCleanup(watchdog.cancel)
                watchdog.start()
                for path, _, statuses in [*self.expected, ("", None, None)]:
                    print(path, file=judging.stdin, flush=True)
                    line = judging.stdout.readline()
                    if form == "--json":
                        answer = json.loads(line)
                        self.assertEqual((answer["image"], answer.get("statuses")), (path, statuses))
                    else:
                        answer = next(csv.reader([line]))
                        self.assertEqual((answer[0], answer[2]), (path, str(statuses[0]) if statuses else ""))
                judging.stdin.close()
                self.assertEqual((judging.stdout.read(), judging.wait(60)), ("", 5))

    def test_parallel_spreads_an_archive(self):
        paths = [path for path, _, statuses in self.expected if statuses] * 3
        command = ["parallel", "--will-cite", "--pipe", "--keep-order", "-N3", "-j2", PROGRAM, "check", "-"]
        spread = subprocess.run(command, input="\n".join(paths) + "\n", capture_output=True, text=True, timeout=120)
        self.assertEqual(spread.returncode, 0, spread.stderr)
        self.assertEqual([json.loads(line)["image"] for line in spread.stdout.splitlines()], paths)


class Page(html.parser.HTMLParser):
    """What a browser makes of a page: its text by rows of cells, and whatever it would load or run."""

    ALLOWED = {
        "html",
        "meta",
        "style",
        "title",
        "h1",
        "h2",
        "p",
        "div",
        "section",
        "img",
        "table",
        "tr",
        "th",
        "td",
        "svg",
        "rect",
    }

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
        hostile = "</td></style><script>alert(1)</script><img src=x onerror='a()'>&amp;\"\u202e\x00\x1b[2J"
        frames = [{code: [time]} for time in (1000, 1070, 1150) for code in ("FETC", "FENC")]
        record = {
            "SelvioResultCode": hostile,
            hostile: hostile,
            "Parameters": {hostile: hostile, "Yaw": {"a": [1]}},
            "UXP": [
                {"SA": [0]},
                {"FENF": [500]},
                *frames,
                {hostile: [2000, hostile]},
                {"FS": ["x"]},
                5,
                {"C": [1500]},
                {"IS": [-1e300]},
            ],
        }
        odd = self.write("odd.json", json.dumps(record))
        page = Page(self.program("report", odd, "-o", "-").stdout)
        shown = hostile.replace("\x00", "?").replace("\x1b", "?")
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
        for file in odd, self.write("7.json", '{"Parameters":7,"UXP":[{"FS":"x"}]}'):
            self.assertRegex(self.program("show", file).stdout, r"^[^\x00\x1b]*Very good[^\x00\x1b]*$")

    def test_manual_and_completions_name_what_help_names(self):
        self.assertIn("selvio-capture 3.2.1", self.program("--version").stdout)
        manual, script = self.program("reference", "man").stdout, self.program("reference", "bash").stdout
        sections = re.split(r"\n\.SS ", manual.replace("\\-", "-"))[1:]
        commands = {section.split('"')[1].split()[1]: section for section in sections}
        listed = self.program("--help").stdout.partition("Subcommands:")[2]
        self.assertEqual(list(commands), re.findall(r"^  (\w+)", listed, re.MULTILINE))
        ask = '''eval "$0"; COMP_WORDS=(selvio-capture "$@"); COMP_CWORD=$#; _selvio_capture; printf '%s\\n' "${COMPREPLY[@]}"'''

        def completed(*words):
            return set(
                subprocess.run(
                    ["bash", "-c", ask, script, *words], capture_output=True, text=True, check=True
                ).stdout.split()
            )

        self.assertTrue(set(commands) <= completed(""))
        for command, section in commands.items():
            options = set(re.findall(r"^  (?:-\w,)?(--[a-z-]+)", self.program(command, "--help").stdout, re.MULTILINE))
            options |= set(re.findall(r",(--[a-z-]+)", self.program(command, "--help").stdout))
            self.assertEqual(
                set(re.findall(r"--[a-z-]+\w", " ".join(re.findall(r"\\fB(.*?)\\fR", section)))), options, command
            )
            self.assertEqual({word for word in completed(command, "--") if word.startswith("--")}, options, command)
        self.assertEqual(completed("run", "--mode", ""), {"auto", "manual"})
        self.assertEqual(completed("--mode", "m"), {"manual"})
        self.assertEqual(completed("check", ""), set())
        warnings = subprocess.run(
            ["man", "--warnings", "-l", "-"],
            input=manual,
            capture_output=True,
            text=True,
            env={**os.environ, "MANPAGER": "cat"},
        )
        self.assertEqual((warnings.returncode, warnings.stderr), (0, ""))


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


class View(ProgramTest):
    """The program's window, for an X display: where it is, its keys, and closing it."""

    CUT = "cut off its display"
    PHOTOGRAPH, RECORD = (0, ["record.json", "selfie.jpg"]), (3, ["record.json"])
    # Over somebody (or nobody): what the person does after which output, and what is left in the end.
    CASES = {
        "a face, accepted": (True, [], [("detectionSuccess", "Return")], PHOTOGRAPH),
        "accepted without asking": (True, ["--accept"], [], PHOTOGRAPH),
        "refused once, then accepted": (True, [], [("detectionSuccess", "r"), ("detectionSuccess", "Return")], PHOTOGRAPH),
        "not accepted": (True, [], [("detectionSuccess", "Escape")], RECORD),
        "closed over the photograph": (True, [], [("detectionSuccess", "ctrl+w")], RECORD),
        "closed while it runs": (False, [], [("detectionResults", "ctrl+w")], RECORD),
        "cancelled": (False, [], [("detectionResults", "Escape")], RECORD),
        "begun again, then cancelled": (
            False, [], [("detectionResults", "r"), ("detectionCancelled", None), ("detectionResults", "Escape")], RECORD),
        "by hand, paused between": (
            False, ["--mode", "manual"],
            [("detectionResults", "p"), (None, "p"), ("detectionResults", "space"), ("detectionSuccess", "Return")], PHOTOGRAPH),
        "no picture while it is paused": (
            False, ["--mode", "manual", "--accept"],
            [("detectionResults", "p"), (None, "space"), (None, "p"), ("detectionResults", "Escape")], RECORD),
        "the display is gone": (True, [], [("detectionResults", CUT)], PHOTOGRAPH),
        "the display is gone over the photograph": (True, [], [("detectionSuccess", CUT)], PHOTOGRAPH),
        "timed out": (False, ["--timeout", "3"], [], RECORD),
    }  # fmt: skip

    def test_the_window_does_what_the_person_asks(self):
        for name, (somebody, options, steps, left) in self.CASES.items():
            with self.subTest(name):
                self.follow(STEADY if somebody else self.empty, options, steps, left)
                shutil.rmtree(self.out)

    def follow(self, script, options, steps, left):
        command = [PROGRAM, "run", "--preview", "--json", "--script", script, "--out", self.out, *options]
        with subprocess.Popen(
            command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=os.environ | self.environment
        ) as process:
            watchdog = threading.Timer(30, process.kill)
            watchdog.start()
            size = None
            for event, action in steps:
                for line in process.stdout if event else ():
                    if json.loads(line)["event"] == event:
                        break
                size = size or xdotool("getwindowgeometry", "--shell", window())
                if action == self.CUT:
                    xdotool("windowkill", window())
                elif action:
                    xdotool("windowfocus", window(), "key", action)
            while steps and steps[-1][1] == "Return":  # as a person would who sees no button yet
                try:
                    process.wait(timeout=0.5)
                    break
                except subprocess.TimeoutExpired:
                    xdotool("key", "Return")
            _, messages = process.communicate()
            watchdog.cancel()
        self.assertEqual((process.returncode, self.results()), left, messages)
        self.assertNotRegex(messages, "CRITICAL|WARNING")
        if size:
            x, y, width, height = (
                int(re.search(rf"\b{name}=(-?\d+)", size)[1]) for name in ("X", "Y", "WIDTH", "HEIGHT")
            )
            most = [int(number) for number in xdotool("getdisplaygeometry").split()]
            self.assertTrue(0 <= x <= most[0] - width and 0 <= y <= most[1] - height and height >= most[1] / 2, size)


unittest.main(argv=[sys.argv[0], *sys.argv[4:]])
