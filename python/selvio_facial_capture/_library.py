"""The shared library underneath: where it lies, and its functions."""

import contextlib
import ctypes
import os
import pathlib
import threading
from collections.abc import Callable, Iterator
from ctypes import POINTER, c_bool, c_char_p, c_double, c_int32, c_int64, c_size_t, c_uint8, c_uint32, c_void_p
from typing import Any

_NAME = "libSelvioFacialCaptureC.so.3"


class Error(RuntimeError):
    """What a function of the library says when it fails."""


def _candidates() -> list[str]:
    """Where the library may lie: where SELVIO_LIBRARY_PATH says (a file or a directory) and nowhere else, or in the build
    tree of the clone that this package lies in, or where the system keeps its libraries."""
    setting = os.environ.get("SELVIO_LIBRARY_PATH")
    if setting:
        path = pathlib.Path(setting)
        return [str(path / _NAME if path.is_dir() else path)]
    clone = pathlib.Path(__file__).resolve().parents[2]
    built = [clone / "build" / preset / "lib" / _NAME for preset in ("release", "bench", "dev")]
    return [str(path) for path in built if (clone / "CMakePresets.json").is_file() and path.is_file()][:1] or [_NAME]


def _load() -> ctypes.CDLL:
    path = _candidates()[0]
    try:
        return ctypes.CDLL(path)
    except OSError as error:
        raise ImportError(f"{error}; SELVIO_LIBRARY_PATH may name the directory that holds {_NAME}") from None


class Pixels(ctypes.Structure):
    _fields_ = [
        ("width", c_int32),
        ("height", c_int32),
        ("format", c_uint32),
        ("planes", c_void_p * 2),
        ("bytes_per_row", c_size_t * 2),
    ]


class Rect(ctypes.Structure):
    _fields_ = [("x", c_double), ("y", c_double), ("width", c_double), ("height", c_double)]


class CameraOptions(ctypes.Structure):
    _fields_ = [("position", c_int32), ("preset", c_int32), ("pixel_format", c_uint32), ("detect_barcodes", c_bool)]


# Callbacks. `user` is a number of ours, not an address.
PLAIN = ctypes.CFUNCTYPE(None, c_void_p)
WITH_HANDLE = ctypes.CFUNCTYPE(None, c_void_p, c_void_p)
WITH_TEXT = ctypes.CFUNCTYPE(None, c_void_p, c_char_p)
WITH_BYTES = ctypes.CFUNCTYPE(None, c_void_p, c_void_p, c_size_t)


class AnalyzerCallbacks(ctypes.Structure):
    _fields_ = [
        ("user", c_void_p),
        ("results", WITH_HANDLE),
        ("countdown", PLAIN),
        ("success", WITH_HANDLE),
        ("cancelled", WITH_HANDLE),
    ]


class CameraCallbacks(ctypes.Structure):
    _fields_ = [
        ("user", c_void_p),
        ("ready", PLAIN),
        ("frame", WITH_HANDLE),
        ("dropped", PLAIN),
        ("barcode", WITH_TEXT),
        ("recording", WITH_BYTES),
    ]


# Result and parameters of each function; those that can fail take the error text's address besides, last.
_MAY_FAIL: dict[str, tuple[Any, ...]] = {
    "set_log_callback": (c_bool, WITH_TEXT, c_void_p),
    "main_queue_drain": (c_size_t,),
    "main_queue_call_after": (c_bool, c_double, PLAIN, c_void_p),
    "main_queue_set_wake_up": (c_bool, PLAIN, c_void_p),
    "platform_create_linux": (c_void_p,),
    "platform_create_simulated": (c_void_p, c_char_p, c_char_p),
    "platform_wait_for_models": (c_bool, c_void_p),
    "platform_set_screen_size": (c_bool, c_void_p, c_double, c_double),
    "platform_may_use_camera": (c_bool, c_void_p),
    "platform_set_faults": (c_bool, c_void_p, c_uint32),
    "parameters_create": (c_void_p,),
    "parameters_set": (c_bool, c_void_p, c_int32, c_int64),
    "parameters_get": (c_int64, c_void_p, c_int32),
    "frame_create": (c_void_p, POINTER(Pixels)),
    "frame_retain": (c_void_p, c_void_p),
    "frame_get_pixels": (c_bool, c_void_p, POINTER(Pixels)),
    "results_status": (c_int64, c_void_p),
    "results_get_statuses": (c_size_t, c_void_p, POINTER(c_int64), c_size_t),
    "results_code": (c_int64, c_void_p),
    "results_get_face_rect": (c_bool, c_void_p, POINTER(Rect)),
    "results_get_points": (c_size_t, c_void_p, c_int32, POINTER(c_double), c_size_t),
    "results_copy_jpeg": (c_void_p, c_void_p, POINTER(c_size_t)),
    "results_copy_record": (c_void_p, c_void_p),
    "judge": (c_void_p, c_void_p, c_void_p, c_void_p),
    "analyzer_create": (c_void_p, c_void_p, c_void_p),
    "analyzer_set_callbacks": (c_bool, c_void_p, POINTER(AnalyzerCallbacks)),
    "analyzer_analyze_frame": (c_bool, c_void_p, c_void_p),
    "analyzer_resume": (c_bool, c_void_p),
    "analyzer_pause": (c_bool, c_void_p, c_int64),
    "analyzer_select_frame": (c_bool, c_void_p),
    "analyzer_stop": (c_bool, c_void_p),
    "analyzer_cancel": (c_bool, c_void_p),
    "camera_create": (c_void_p, c_void_p, c_void_p, POINTER(CameraOptions)),
    "camera_set_analyzer": (c_bool, c_void_p, c_void_p),
    "camera_configure": (c_bool, c_void_p, POINTER(CameraCallbacks)),
    "camera_start": (c_bool, c_void_p),
    "camera_wait_until_started": (c_bool, c_void_p),
    "camera_is_running": (c_bool, c_void_p),
    "camera_stop": (c_bool, c_void_p),
    "camera_stop_recording": (c_bool, c_void_p),
    "camera_set_torch": (c_bool, c_void_p, c_bool),
}
_CANNOT_FAIL: dict[str, tuple[Any, ...]] = {
    "version": (c_char_p,),
    "free": (None, c_void_p),
    "main_queue_seconds_until_next": (c_double,),
    "status_key": (c_char_p, c_int64),
    "platform_destroy": (None, c_void_p),
    "parameters_destroy": (None, c_void_p),
    "frame_destroy": (None, c_void_p),
    "results_destroy": (None, c_void_p),
    "analyzer_destroy": (None, c_void_p),
    "camera_destroy": (None, c_void_p),
}


class _Collected(threading.local):
    errors: list[BaseException] | None = None


_collected = _Collected()


@contextlib.contextmanager
def raising() -> Iterator[None]:
    """Raises, at its end, what callbacks raised on this thread meanwhile."""
    outer, errors = _collected.errors, []
    _collected.errors = errors
    try:
        yield
    finally:
        _collected.errors = outer
    if len(errors) > 1:
        raise BaseExceptionGroup("several callbacks raised", errors)
    if errors:
        raise errors[0]


@contextlib.contextmanager
def guarding() -> Iterator[None]:
    """Around what a callback does. On a thread that nobody waits on, an exception goes to sys.unraisablehook."""
    try:
        yield
    except BaseException as error:
        if _collected.errors is None:
            raise  # ctypes reports it
        _collected.errors.append(error)


class _Library:
    """The functions, without their prefix. One that fails raises Error."""

    def __init__(self, loaded: ctypes.CDLL) -> None:
        for name, (result, *parameters) in (_MAY_FAIL | _CANNOT_FAIL).items():
            function = getattr(loaded, "selvio_" + name)
            function.restype = result
            function.argtypes = parameters + ([POINTER(c_void_p)] if name in _MAY_FAIL else [])
            setattr(self, name, self._raising(function) if name in _MAY_FAIL else function)

    def _raising(self, function: Any) -> Callable[..., Any]:
        def call(*arguments: Any) -> Any:
            text = c_void_p()
            result = function(*arguments, ctypes.byref(text))
            if text:
                raise Error(self.take_text(text.value))
            return result

        return call

    def take_text(self, address: int | None) -> str:
        """The text at an address that the library handed over."""
        text = ctypes.string_at(address).decode(errors="replace")
        self.free(address)
        return text

    def __getattr__(self, name: str) -> Any:  # for type checkers; what exists is found before
        raise AttributeError(name)


library = _Library(_load())


class Handle:
    """An object of the library: ended once, and not while a call uses it. `with` gives its address."""

    def __init__(self, name: str, address: int, destroy: Callable[[int], None]) -> None:
        self._name, self._address, self._destroy = name, address, destroy
        self._lock = threading.Lock()
        self._uses = 0
        self._closed = False

    def __enter__(self) -> int:
        with self._lock:
            if self._closed:
                raise ValueError(f"the {self._name} is closed")
            self._uses += 1
        return self._address

    def __exit__(self, *_: object) -> None:
        self._leave(uses=-1)

    def close(self) -> None:
        """Ends it now, or when the last call that uses it returns."""
        self._leave(uses=0, closing=True)

    def _leave(self, uses: int, closing: bool = False) -> None:
        with self._lock:
            if closing and self._closed:
                return
            self._closed |= closing
            self._uses += uses
            ending = self._closed and self._uses == 0
        if ending:
            self._destroy(self._address)
