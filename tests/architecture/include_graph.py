#!/usr/bin/env python3
"""Checks every #include of the source tree, and the table in docs/architecture.md, against the links of the folders'
targets; then that it finds what is wrong with a copy. Usage: include_graph.py ROOT"""
import pathlib
import re
import shutil
import sys
import tempfile

# The rules decide and nothing else: no threads, no clocks, no queues, no log.
PURE = {"analyzer/rules", "camera/rules"}
IMPURE = re.compile(r"thread|mutex|atomic|condition_variable|future|SelvioFacialCapture/base/(.*Queue|Clock|Log)\.h")

# Public headers of one folder stand side by side in include/SelvioFacialCapture/, or in a folder there.
PUBLIC = {
    "": "umbrella",
    "ImageUtilities": "imaging",
    **dict.fromkeys(("Status", "Results", "Parameters", "CameraParameters", "UxpEvent"), "model"),
    **dict.fromkeys(("UxpEventManager", "ObixData", "Version"), "telemetry"),
    **dict.fromkeys(("Analyzer", "AnalyzerDelegate"), "analyzer"),
    **dict.fromkeys(("Camera", "CameraDelegate"), "camera"),
}
PUBLIC_FOLDERS = {"rules": "analyzer/rules", **{name: f"platform/{name}" for name in ("linux", "gtk", "simulated")}}

FOLDER = re.compile(r"^selvio_folder\(\s*(\w+)([^)]*)\)", re.MULTILINE)
LIBRARY = re.compile(r"^selvio_shared\(\s*(\w+)\s+\w+\s+FOLDERS([^)]*?)(?:LINKS[^)]*)?\)", re.MULTILINE)
ROW = re.compile(r"^\| `([\w/-]+)/` \|.*\|([^|]*)\|$", re.MULTILINE)
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.MULTILINE)
SYSTEM = re.compile(
    r"[a-z_0-9]+|(sys|linux)/.*|(assert|errno|fcntl|poll|signal|std(bool|def|int|lib)|string|unistd|dlfcn|pthread)\.h"
)


class Tree:
    """What the CMakeLists.txt files say: `links` of a folder, all that it `may_include`, and the `libraries` it is in."""

    def __init__(self, root):
        self.root = root.resolve()
        targets, links, libraries = {}, {}, []
        for file in self.files("CMakeLists.txt"):
            text = file.read_text(encoding="utf-8")
            libraries += LIBRARY.findall(text)
            for target, body in FOLDER.findall(text):
                # The adapters of one system share a library, and their headers.
                targets[target] = "/".join(file.parent.relative_to(self.root).parts[:2])
                links[target] = body.partition("LINKS")[2].split()
        self.links = {folder: set() for folder in targets.values()}
        for target, names in links.items():
            self.links[targets[target]] |= {targets[name] for name in names if name in targets} - {targets[target]}
        self.libraries = {folder: set() for folder in self.links}
        for library, names in libraries:
            for name in names.split():
                self.libraries[targets[name]].add(library)
        self.may_include = {folder: self.reached_from(folder) for folder in self.links}
        self.may_include["umbrella"] = {f for f, names in self.libraries.items() if "SelvioFacialCapture" in names}
        self.may_include["apps"] = set(self.may_include)

    def reached_from(self, folder):
        return self.links[folder].union(*(self.reached_from(link) for link in self.links[folder]))

    def folder_of(self, path):
        """The folder that a file (relative to the root) belongs to; None if it is not part of the graph."""
        parts = path.parts
        if parts[:2] == ("include", "SelvioFacialCapture"):
            if len(parts) > 3:
                return PUBLIC_FOLDERS.get(parts[2], parts[2])
            own = re.fullmatch(r"SelvioFacialCapture(\w*)\.h", parts[2])
            return PUBLIC.get(own and own[1], f"unknown public header {parts[2]}")
        folders = ("/".join(parts[:length]) for length in (2, 1) if len(parts) > length)
        return next((folder for folder in folders if folder in self.may_include), None)

    def target_of(self, file, style, name):
        """The folder an include leads to, "system", "json" or "third-party"; and whether it is a private header."""
        if name.startswith("SelvioFacialCapture/"):
            return self.folder_of(pathlib.Path("include") / name), False
        for candidate in (file.parent / name, self.root / name) if style == '"' else ():
            if candidate.is_file():
                return self.folder_of(candidate.resolve().relative_to(self.root)), True
        other = "json" if name.startswith("nlohmann/") else "third-party"
        return "system" if SYSTEM.fullmatch(name) else other, False

    def files(self, pattern):
        """But for those under build/, where a copy of the tree may lie."""
        return (file for file in self.root.rglob(pattern) if file.relative_to(self.root).parts[0] != "build")

    def faults(self):
        for folder in sorted(f for f, names in self.libraries.items() if not names):
            yield f"{folder}: in no library"
        for file in sorted(self.files("*")):
            if file.suffix in (".h", ".cpp") and self.folder_of(file.relative_to(self.root)):
                yield from self.faults_of(file, file.relative_to(self.root))

    def faults_of(self, file, path):
        folder = self.folder_of(path)
        if folder not in self.may_include:
            yield f"{path}: {folder}: give it a folder in {pathlib.Path(__file__).name}"
            return
        public, adapter = path.parts[0] == "include", folder in ("platform/linux", "platform/gtk", "apps")
        for style, name in INCLUDE.findall(file.read_text(encoding="utf-8")):
            target, private = self.target_of(file, style, name)
            if folder in PURE and IMPURE.fullmatch(name):
                yield f"{path}: {folder} decides only; it has no use for {name}"
            elif public and name == "nlohmann/json.hpp":
                yield f"{path}: a public header gets by with nlohmann/json_fwd.hpp"
            elif target == "third-party" and (public or not adapter):
                yield f"{path}: <{name}> is a third-party header; only adapters' and the program's own files include those"
            elif target not in (folder, "system", "json", "third-party", *self.may_include[folder]):
                yield f"{path}: {folder} may not include {target} ({name})"
            elif private and target != folder and not self.libraries.get(folder, set()) & self.libraries[target]:
                yield f"{path}: {name} is a private header of another library"

    def faults_in_table(self):
        path = "docs/architecture.md"
        rows = ROW.findall((self.root / path).read_text(encoding="utf-8"))
        told = {folder: set(re.findall("`([^`]*)`", includes)) for folder, includes in rows}
        for folder, links in sorted(self.links.items()):
            if told.get(folder) != links:
                yield f"{path}: {folder} includes {sorted(links)}, not {sorted(told.get(folder, []))}"


def faults_in(root):
    tree = Tree(root)
    return [*tree.faults(), *tree.faults_in_table()]


# Each of these lines, at the end of that file, breaks one rule.
WRONG = {
    "analyzer/Gating.cpp": "#include <SelvioFacialCapture/SelvioFacialCaptureCamera.h>",
    "camera/VideoRecorder.cpp": '#include "analyzer/rules/StatusEvents.h"',
    "analyzer/rules/StatusEvents.h": '# include "analyzer/FrameHistory.h"',
    "camera/rules/SessionRules.cpp": "#include <mutex>",
    "imaging/Base64.cpp": "#include <jpeglib.h>",
    "include/SelvioFacialCapture/linux/Codec.h": "#include <gst/gst.h>",
    "include/SelvioFacialCapture/New.h": "#include <string>",
    "include/SelvioFacialCapture/SelvioFacialCaptureCamera.h": "#include <nlohmann/json.hpp>",
    "platform/linux/codec/PngFile.cpp": '#include "imaging/PixelConversion.h"',
    "apps/selvio-capture/main.cpp": '#include "analyzer/rules/StatusEvents.h"',
    "docs/architecture.md": "| `model/` | parameters | `imaging` |",
}


def self_test(root):
    with tempfile.TemporaryDirectory() as directory:
        copy = pathlib.Path(directory) / "copy"
        shutil.copytree(root, copy, ignore=shutil.ignore_patterns(".git", "build", "models"))
        for name, line in WRONG.items():
            with (copy / name).open("a", encoding="utf-8") as file:
                file.write(f"\n{line}\n")
        found = {fault.split(":")[0] for fault in faults_in(copy)}
    for name in sorted(set(WRONG) ^ found):
        yield f"self-test: {name}: {'not found' if name in WRONG else 'found without reason'}"


source = pathlib.Path(sys.argv[1])
faults = [*faults_in(source), *self_test(source)]
print("\n".join(faults) or "no faults")
sys.exit(bool(faults))
