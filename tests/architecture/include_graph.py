#!/usr/bin/env python3
"""Checks every #include of the source tree against the dependency graph. Usage: include_graph.py ROOT | --self-test"""
import pathlib
import re
import sys
import tempfile

# What each folder may include besides itself and the C++ standard library.
PORTS = {"base", "imaging", "platform"}
GRAPH = {
    "base": set(),
    "imaging": {"base"},
    "platform": {"base", "imaging"},
    "model": PORTS,
    "telemetry": PORTS | {"model"},
    "analyzer/rules": PORTS | {"model"},
    "analyzer": PORTS | {"model", "telemetry", "analyzer/rules"},
    "camera/rules": PORTS | {"model"},
    "camera": PORTS | {"model", "camera/rules"},
    "platform/capture": PORTS,
    "platform/simulated": PORTS | {"platform/capture"},
    "platform/linux": PORTS | {"platform/capture"},
}
GRAPH["umbrella"] = PORTS | {"model", "telemetry", "analyzer", "camera"}
GRAPH["apps"] = set(GRAPH)

# The rules decide and nothing else: no threads, no clocks, no queues, no log.
PURE = {"analyzer/rules", "camera/rules"}
IMPURE = re.compile(r"^(thread|mutex|atomic|condition_variable|future|SelvioFacialCapture/base/(.*Queue|Clock|Log)\.h)$")

# Public headers of one folder stand side by side in include/SelvioFacialCapture/.
PUBLIC = {
    "SelvioFacialCapture.h": "umbrella",
    "SelvioFacialCaptureImageUtilities.h": "imaging",
    "SelvioFacialCaptureStatus.h": "model",
    "SelvioFacialCaptureResults.h": "model",
    "SelvioFacialCaptureParameters.h": "model",
    "SelvioFacialCaptureCameraParameters.h": "model",
    "SelvioFacialCaptureUxpEvent.h": "model",
    "SelvioFacialCaptureUxpEventManager.h": "telemetry",
    "SelvioFacialCaptureObixData.h": "telemetry",
    "SelvioFacialCaptureVersion.h": "telemetry",
    "SelvioFacialCaptureAnalyzer.h": "analyzer",
    "SelvioFacialCaptureAnalyzerDelegate.h": "analyzer",
    "SelvioFacialCaptureCamera.h": "camera",
    "SelvioFacialCaptureCameraDelegate.h": "camera",
}
PUBLIC_FOLDERS = {"rules": "analyzer/rules", "linux": "platform/linux", "simulated": "platform/simulated"}

INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.MULTILINE)
STANDARD = re.compile(r"^[a-z_0-9]+$")
C_STANDARD = {"assert.h", "errno.h", "fcntl.h", "poll.h", "signal.h", "stdint.h", "stdlib.h", "string.h", "unistd.h", "dlfcn.h", "pthread.h"}
JSON = re.compile(r"^nlohmann/")


def folder_of(path):
    """The folder that a file (relative to the root) belongs to; None if it is not part of the graph."""
    parts = path.parts
    if parts[:2] == ("include", "SelvioFacialCapture"):
        if len(parts) == 3:
            return PUBLIC.get(parts[2], f"unknown public header {parts[2]}")
        return PUBLIC_FOLDERS.get(parts[2], parts[2])
    for length in (2, 1):
        name = "/".join(parts[:length])
        if len(parts) > length and name in GRAPH:
            return name
    return None


def target_of(root, file, style, name):
    """The folder an include leads to, "system", "json" or "third-party"."""
    if name.startswith("SelvioFacialCapture/"):
        return folder_of(pathlib.Path("include") / name)
    if style == '"':
        for candidate in (file.parent / name, root / name):
            if candidate.is_file():
                return folder_of(candidate.resolve().relative_to(root.resolve()))
    if STANDARD.match(name) or name in C_STANDARD or name.startswith(("sys/", "linux/")):
        return "system"
    return "json" if JSON.match(name) else "third-party"


def faults_in(root):
    files = sorted(p for p in root.rglob("*") if p.suffix in (".h", ".cpp") and folder_of(p.relative_to(root)))
    for file in files:
        path = file.relative_to(root)
        folder = folder_of(path)
        if folder not in GRAPH:
            yield f"{path}: {folder}: give it a folder in {pathlib.Path(__file__).name}"
            continue
        for style, name in INCLUDE.findall(file.read_text(encoding="utf-8")):
            if folder in PURE and IMPURE.match(name):
                yield f"{path}: {folder} decides only; it has no use for {name}"
                continue
            target = target_of(root, file, style, name)
            if target in (folder, "system", "json"):
                continue
            if target == "third-party":
                if folder not in ("platform/linux", "apps"):
                    yield f"{path}: <{name}> is a third-party header; only adapters and the program include those"
                elif file.suffix == ".h" and path.parts[0] == "include":
                    yield f"{path}: <{name}> is a third-party header in a public header"
            elif target not in GRAPH[folder]:
                yield f"{path}: {folder} may not include {target} ({name})"
    if not files:
        yield f"{root}: no source files"


def self_test():
    """Each of these files breaks one rule; the last one none."""
    wrong = {
        "analyzer/A.cpp": "#include <SelvioFacialCapture/SelvioFacialCaptureCamera.h>",
        "camera/C.cpp": '#include "analyzer/rules/R.h"',
        "analyzer/rules/R.h": '# include "analyzer/B.h"',
        "camera/rules/P.h": "#include <mutex>",
        "imaging/I.cpp": "#include <jpeglib.h>",
        "include/SelvioFacialCapture/linux/L.h": "#include <gst/gst.h>",
        "include/SelvioFacialCapture/New.h": "#include <string>",
    }
    right = {
        "analyzer/B.h": '#include "analyzer/rules/R.h"\n#include <vector>\n#include <nlohmann/json.hpp>',
        "platform/linux/G.cpp": "#include <gst/gst.h>\n#include <sys/stat.h>",
    }
    with tempfile.TemporaryDirectory() as directory:
        root = pathlib.Path(directory)
        for name, text in {**wrong, **right}.items():
            (root / name).parent.mkdir(parents=True, exist_ok=True)
            (root / name).write_text(text + "\n", encoding="utf-8")
        found = {fault.split(":")[0] for fault in faults_in(root)}
    for name in sorted(set(wrong) ^ found):
        yield f"self-test: {name}: {'not found' if name in wrong else 'found without reason'}"


def main(arguments):
    if len(arguments) != 1:
        sys.exit(__doc__)
    faults = list(self_test() if arguments[0] == "--self-test" else faults_in(pathlib.Path(arguments[0])))
    print("\n".join(faults) if faults else "no faults")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
