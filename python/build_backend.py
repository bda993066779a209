"""Packs the package for pip: needs nothing that would have to be fetched, and leaves nothing beside the sources."""

import base64
import hashlib
import pathlib
import tomllib
import zipfile
from typing import Any

_HERE = pathlib.Path(__file__).parent


def build_wheel(wheel_directory: str, config_settings: Any = None, metadata_directory: Any = None) -> str:
    """As pip asks for it; returns the wheel's name."""
    project = tomllib.loads((_HERE / "pyproject.toml").read_text())["project"]
    name = project["name"].replace("-", "_")
    info = f"{name}-{project['version']}.dist-info"
    metadata = ["Metadata-Version: 2.1", f"Name: {project['name']}", f"Version: {project['version']}"]
    metadata += [f"Summary: {project['description']}", f"Requires-Python: {project['requires-python']}"]
    metadata += [f"License: {project['license']['text']}"]
    for extra, packages in project["optional-dependencies"].items():
        metadata += [f"Provides-Extra: {extra}"] + [
            f"Requires-Dist: {package}; extra == '{extra}'" for package in packages
        ]
    files = {f"{name}/{file.name}": file.read_bytes() for file in sorted((_HERE / name).iterdir()) if file.is_file()}
    files[f"{info}/METADATA"] = "\n".join(metadata + [""]).encode()
    files[f"{info}/WHEEL"] = b"Wheel-Version: 1.0\nGenerator: build_backend\nRoot-Is-Purelib: true\nTag: py3-none-any\n"
    record = "".join(f"{path},sha256={_digest(content)},{len(content)}\n" for path, content in files.items())
    files[f"{info}/RECORD"] = f"{record}{info}/RECORD,,\n".encode()

    wheel = f"{name}-{project['version']}-py3-none-any.whl"
    with zipfile.ZipFile(pathlib.Path(wheel_directory) / wheel, "w", zipfile.ZIP_DEFLATED) as archive:
        for path, content in files.items():
            archive.writestr(path, content)
    return wheel


def _digest(content: bytes) -> str:
    return base64.urlsafe_b64encode(hashlib.sha256(content).digest()).decode().rstrip("=")
