#!/usr/bin/env python3
"""The program's pages, batches and references, as a person or a script gets them. Usage: reports_and_batches.py PROGRAM SOURCE_DIR"""
import base64
import csv
import html.parser
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import threading
import unittest

PROGRAM, SOURCE = sys.argv[1], pathlib.Path(sys.argv[2])
SAMPLES = SOURCE / "samples"
GOOD, NOBODY = 14, 1


def run(*arguments, stdin=None, language="C"):
    return subprocess.run([PROGRAM, *map(str, arguments)], input=stdin, capture_output=True, text=True, timeout=120,
                          env={**os.environ, "LC_ALL": language})


class InFolder(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def write(self, name, content):
        path = self.folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content if isinstance(content, bytes) else content.encode())
        return path


class Batches(InFolder):
    def setUp(self):
        super().setUp()
        convert = ["convert", SAMPLES / "astronaut.jpg", "-crop", "140x249+56+0", "-resize", "720x1280!", "jpg:-"]
        self.good = subprocess.run(convert, check=True, capture_output=True).stdout
        nobody = subprocess.run(["convert", "-size", "360x640", "xc:gray", "png:-"], check=True, capture_output=True).stdout
        # In the order of a walk, with what is to be found there.
        tree = [("a.d/2.jpg", self.good, GOOD), ("a.d/b/DAMAGED.JPEG", self.good[:3000], None), ("a.d/b/nobody.PNG", nobody, NOBODY),
                ('a.d/c, "c".jpg', self.good, GOOD), ("a.d/d.jpeg", b"", None)]
        self.expected = [(str(self.write(f"all/{name}", content)), status) for name, content, status in tree]
        self.write("all/a.d/notes.txt", "no picture")
        (self.folder / "all/a.d/b/loop").symlink_to(self.folder / "all")

    def test_folders_are_judged_in_order_whatever_is_damaged(self):
        single, several = (run("check", "--json", "--jobs", jobs, self.folder / "all") for jobs in (1, 5))
        self.assertEqual(single.stdout, several.stdout)
        self.assertEqual((single.returncode, several.returncode), (5, 5))
        lines = [json.loads(line) for line in single.stdout.splitlines()]
        self.assertEqual([(line["image"], line.get("statuses", [None])) for line in lines],
                         [(path, [status]) for path, status in self.expected])
        for line in lines:
            self.assertEqual("error" in line, "statuses" not in line)
        self.assertRegex(several.stderr, r"^5 pictures in [0-9.]+ s \([0-9.]+ a second\): 2 good, 2 unreadable\n +1  Show your face")

        table = run("check", "--csv", self.folder / "all")
        self.assertEqual(table.returncode, 5)
        rows = list(csv.reader(table.stdout.splitlines()))
        self.assertEqual({len(row) for row in rows}, {len(rows[0])})
        for line, row in zip(lines, csv.DictReader(table.stdout.splitlines()), strict=True):
            self.assertEqual((row["image"], row["error"]), (line["image"], line.get("error", "")))
            self.assertEqual(row["statuses"], " ".join(map(str, line.get("statuses", []))))
            if line.get("measures"):
                self.assertEqual([float(row[name]) for name in ("x", "y", "width", "height")], line["faceRect"])
                for name, measure in line["measures"].items():
                    self.assertEqual(float(row[name]), measure["value"], name)

        people = run("check", self.folder / "all", self.folder / "gone.jpg", language="de_DE.UTF-8")
        self.assertIn("6 Bilder", people.stderr)
        self.assertIn("DAMAGED.JPEG", people.stderr)

    def test_each_line_is_answered_before_the_next_one_comes(self):
        for form in ("--json", "--csv"):
            with subprocess.Popen([PROGRAM, "check", form, "-"], text=True, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                  stderr=subprocess.DEVNULL) as judging:
                watchdog = threading.Timer(60, judging.kill)  # an answer that never comes ends the test
                self.addCleanup(watchdog.cancel)
                watchdog.start()
                for path, status in [*self.expected, ("", None)]:
                    judging.stdin.write(path + "\n")
                    judging.stdin.flush()
                    line = judging.stdout.readline()
                    if form == "--json":
                        answer = json.loads(line)
                        self.assertEqual((answer["image"], answer.get("statuses", [None])), (path, [status]))
                    else:
                        answer = next(csv.reader([line]))
                        self.assertEqual((answer[0], answer[2]), (path, "" if status is None else str(status)))
                judging.stdin.close()
                self.assertEqual(judging.stdout.read(), "")
                self.assertEqual(judging.wait(60), 5)
        self.assertEqual(run("check", "-", "a.jpg").returncode, 2)

    def test_parallel_spreads_an_archive(self):
        paths = [path for path, status in self.expected if status is not None] * 4
        command = ["parallel", "--will-cite", "--pipe", "--keep-order", "-N3", "-j2", PROGRAM, "check", "-"]
        spread = subprocess.run(command, input="\n".join(paths) + "\n", capture_output=True, text=True, timeout=120)
        self.assertEqual(spread.returncode, 0, spread.stderr)
        self.assertEqual([json.loads(line)["image"] for line in spread.stdout.splitlines()], paths)


class Page(html.parser.HTMLParser):
    """What a browser makes of a page: its text by rows of cells, and whatever it would load or run."""

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


class Reports(InFolder):
    ALLOWED = {"html", "meta", "style", "title", "h1", "h2", "p", "div", "section", "img", "table", "tr", "th", "td", "svg", "rect"}

    def test_a_capture_leaves_a_page_of_itself(self):
        ended = run("run", "--source", "simulated", "--script", SAMPLES / "scripts/steady.json", "--countdown-time", 0, "--report",
                    "--out", self.folder)
        self.assertEqual(ended.returncode, 0, ended.stderr)
        text = (self.folder / "report.html").read_text()
        self.assertEqual(run("report", self.folder / "selfie.jpg", "-o", "-").stdout, text)
        page, record = Page(text), json.loads((self.folder / "record.json").read_text())
        self.assertEqual(page.images, [(self.folder / "selfie.jpg").read_bytes()])
        self.assertEqual((page.foreign, page.tags - self.ALLOWED), ([], set()))
        self.assertIn("Picture selected automatically", text)
        self.assertIn(["CountdownTime", "0", "2", "changed"], page.rows)
        self.assertIn(["Roll", "500", "500", ""], page.rows)
        self.assertIn(["Model", record["Model"]], page.rows)

        self.assertEqual(run("report", self.folder / "record.json", language="de_DE.UTF-8").returncode, 0)
        page = Page((self.folder / "record.html").read_text())
        self.assertEqual(page.images, [])
        self.assertIn(["CountdownTime", "0", "2", "geändert"], page.rows)

    def test_what_a_record_says_stays_text(self):
        hostile = "</td></style><script>alert(1)</script><img src=x onerror='a()'>&amp;\"\u202e\x00\x1b[2J"
        frames = [{code: [time]} for time in (1000, 1070, 1150) for code in ("FETC", "FENC")]
        record = {"SelvioResultCode": hostile, hostile: hostile, "Parameters": {hostile: hostile, "Yaw": {"a": [1]}},
                  "UXP": [{"SA": [0]}, {"FENF": [500]}, *frames, {hostile: [2000, hostile]}, {"FS": ["x"]}, 5, {"C": [1500]}, {"IS": [-1e300]}]}
        page = Page(run("report", self.write("odd.json", json.dumps(record)), "-o", "-").stdout)
        shown = hostile.replace("\x00", "?").replace("\x1b", "?")
        self.assertEqual((page.foreign, page.tags - self.ALLOWED), ([], set()))
        self.assertIn([shown, shown], page.rows)
        self.assertIn(["0.00", "0.50", "Capture started", "SA", ""], page.rows)
        self.assertIn(["0.50", "0.50", "Show your face to the camera", "FENF", ""], page.rows)
        self.assertIn(["1.00", "1.00", "Move back a little", "FETC FENC", ""], page.rows)
        self.assertIn(["2.00", "–", "", shown, ""], page.rows)
        self.assertIn(["–", "–", "Very good", "FS", ""], page.rows)
        self.assertIn(["Yaw", '{"a":[1]}', "500", "changed"], page.rows)

    def test_what_cannot_be_reported_is_said(self):
        fine = self.write("fine.html", "{}")
        for arguments, code, message in (
                ([self.write("cut.json", '{"UXP":[')], 5, "damaged"),
                ([self.folder / "gone.jpg"], 5, "gone.jpg"),
                ([SAMPLES / "astronaut.jpg"], 5, "no data record"),
                ([fine], 2, "would replace"),
                ([fine, "-o", self.folder / "none/page.html"], 6, "none/page.html")):
            ended = run("report", *arguments)
            self.assertEqual((ended.returncode, ended.stdout), (code, ""), arguments)
            self.assertIn(message, ended.stderr)
        self.assertEqual(fine.read_text(), "{}")


class References(unittest.TestCase):
    def test_manual_and_completions_name_what_help_names(self):
        manual, script = run("reference", "man").stdout, run("reference", "bash").stdout
        sections = re.split(r"\n\.SS ", manual.replace("\\-", "-"))[1:]
        commands = {section.split('"')[1].split()[1]: section for section in sections}
        listed = run("--help").stdout.partition("Subcommands:")[2]
        self.assertEqual(list(commands), re.findall(r"^  (\w+)", listed, re.MULTILINE))
        ask = '''eval "$0"; COMP_WORDS=(selvio-capture "$@"); COMP_CWORD=$#; _selvio_capture; printf '%s\\n' "${COMPREPLY[@]}"'''

        def completed(*words):
            return set(subprocess.run(["bash", "-c", ask, script, *words], capture_output=True, text=True, check=True).stdout.split())

        self.assertTrue(set(commands) <= completed(""))
        for command, section in commands.items():
            options = set(re.findall(r"(?<![\w-])--[a-z-]+\w", run(command, "--help").stdout.partition("Options:")[2]))
            usage = {option for option in options if re.search(rf"^  .*{option}(\s|,|{{|$)", run(command, "--help").stdout, re.MULTILINE)}
            self.assertEqual(set(re.findall(r"--[a-z-]+\w", " ".join(re.findall(r"\\fB(.*?)\\fR", section)))), usage, command)
            self.assertEqual({word for word in completed(command, "--") if word.startswith("--")}, usage, command)
        self.assertEqual(completed("run", "--mode", ""), {"auto", "manual"})
        self.assertEqual(completed("--mode", "m"), {"manual"})
        self.assertEqual(completed("check", ""), set())
        warnings = subprocess.run(["man", "--warnings", "-l", "-"], input=manual, capture_output=True, text=True,
                                  env={**os.environ, "MANPAGER": "cat"})
        self.assertEqual((warnings.returncode, warnings.stderr), (0, ""))


unittest.main(argv=sys.argv[:1])
