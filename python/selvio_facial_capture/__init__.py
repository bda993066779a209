"""Takes one good photograph of a person's face.

A camera delivers frames, an analyzer judges them, guides the person and selects one. The analyzer's callbacks run on
the main queue: in `run`, or in `drain` for a program with a loop of its own. What such a callback raises is raised by
that call, after the other callbacks that were due; what a camera's callback raises, on a thread of the camera's, goes
to `sys.unraisablehook`. In both cases the capture continues.

Objects with a `close` are context managers; a closed one raises ValueError. What is forgotten is closed when it is
garbage, or at the interpreter's end. Callbacks are given when an object is made and may call everything, `close`
included. Any thread may call everything, but only one at a time runs the main queue.
"""

import atexit
import contextlib
import ctypes
import dataclasses
import enum
import itertools
import os
import threading
import time
import weakref
from collections.abc import Callable
from typing import TYPE_CHECKING, Any, Self

from ._library import (
    PLAIN,
    WITH_BYTES,
    WITH_HANDLE,
    WITH_TEXT,
    AnalyzerCallbacks,
    CameraCallbacks,
    CameraOptions,
    Error,
    Handle,
    Pixels,
    guarding,
    library,
    raising,
)
from ._library import Rect as _Rect

if TYPE_CHECKING:
    import numpy

__all__ = [
    "Analyzer", "Camera", "Error", "Fault", "Frame", "Mode", "Parameters", "PixelFormat", "Platform", "Position", "Preset",
    "Rect", "ResultCode", "Results", "Status", "call_after", "drain", "quit", "run", "seconds_until_next", "set_log",
    "set_wake_up", "version",
]  # fmt: skip


class Status(enum.IntEnum):
    """What is wrong with a frame; the lower number is the more important one."""

    (
        NONE, FACE_NOT_FOUND, MORE_THAN_ONE_FACE, FACE_ROLL, FACE_PITCH, FACE_YAW, MOVE_CLOSER, TOO_CLOSE, NOT_CENTERED,
        HOLD_STILL, COUNTDOWN, TOO_DARK, NON_UNIFORM_LIGHT, STOP_SMILING, GOOD_FRAME,
    ) = range(15)  # fmt: skip

    @property
    def key(self) -> str:
        """The localisation key."""
        key: bytes = library.status_key(self)
        return key.decode()


class ResultCode(enum.IntEnum):
    """How a capture ended."""

    NONE, SUCCESS_STILL_CAMERA, SUCCESS_VIDEO, CANCELLED = range(4)


class Mode(enum.IntEnum):
    """Who takes the picture."""

    MANUAL, AUTO = 1, 2


class Position(enum.IntEnum):
    """In which direction a camera looks."""

    ANY, BACK, FRONT = range(3)


class Preset(enum.IntEnum):
    """A camera's frame size. HIGH is the largest up to 1920 x 1080. Frames come in portrait."""

    HIGH, SIZE_640X480, SIZE_1280X720, SIZE_1920X1080 = range(4)


class PixelFormat(enum.IntEnum):
    """BGRA: one plane. NV12: a plane of luma and one of interleaved chroma at half size; BT.601, video range."""

    BGRA = 0x42475241
    NV12 = 0x34323076


class Fault(enum.IntFlag):
    """What goes wrong with simulated cameras."""

    NO_CAMERA, NO_MICROPHONE, START_FAILS, DEVICE_LOST, FRAMES_STALL = 1, 2, 4, 8, 16


@dataclasses.dataclass(frozen=True)
class Rect:
    """In screen points, origin at the top left; of a judged picture in its pixels."""

    x: float
    y: float
    width: float
    height: float


Points = tuple[tuple[float, float], ...]


@dataclasses.dataclass(frozen=True)
class Results:
    """What is known of a frame, and in the end the photograph."""

    status: Status
    """The one to show."""
    statuses: tuple[Status, ...]
    """All of them, the most important first."""
    code: ResultCode
    face_rect: Rect | None
    """None without exactly one face."""
    face_contour: Points
    nose: Points
    outer_lips: Points
    jpeg: bytes | None = dataclasses.field(repr=False)
    """The photograph: a JPEG file that carries the data record in its EXIF user comment."""
    record: str | None = dataclasses.field(repr=False)
    """The data record as JSON."""


def _plane_sizes(pixels: Pixels) -> list[tuple[int, int]]:
    """The bytes of a row without padding, and how many rows, of each plane."""
    if pixels.format == PixelFormat.BGRA:
        return [(4 * pixels.width, pixels.height)]
    return [(pixels.width, pixels.height), (2 * ((pixels.width + 1) // 2), (pixels.height + 1) // 2)]


class Frame:
    """A picture in memory, upright, in portrait and not mirrored. Never changes."""

    def __init__(self, address: int) -> None:
        """For this package: takes a handle of the library over."""
        self._address = address

    def __del__(self, _destroy: Callable[[int], None] = library.frame_destroy) -> None:  # also when modules have gone
        if hasattr(self, "_address"):
            _destroy(self._address)

    @classmethod
    def from_bgra(cls, pixels: Any, width: int, height: int, bytes_per_row: int | None = None) -> Self:
        """A copy of BGRA bytes in any object with a buffer (bytes, bytearray, memoryview, an array)."""
        return cls._copy(PixelFormat.BGRA, width, height, (pixels, bytes_per_row))

    @classmethod
    def from_nv12(
        cls,
        luma: Any,
        chroma: Any,
        width: int,
        height: int,
        luma_bytes_per_row: int | None = None,
        chroma_bytes_per_row: int | None = None,
    ) -> Self:
        """A copy of the two planes of an NV12 picture."""
        return cls._copy(PixelFormat.NV12, width, height, (luma, luma_bytes_per_row), (chroma, chroma_bytes_per_row))

    @classmethod
    def from_array(cls, array: "numpy.ndarray", channels: str = "RGB") -> Self:
        """A copy of a numpy array of bytes, height x width x channels; "RGB", "BGR", "RGBA" or "BGRA" names them."""
        import numpy

        if sorted(channels) not in (sorted("RGB"), sorted("RGBA")):
            raise ValueError(f"channels cannot be {channels!r}")
        if array.dtype != numpy.uint8 or array.ndim != 3 or array.shape[2] != len(channels):
            raise ValueError(
                f"the array must hold bytes in height x width x {len(channels)}, not {array.dtype} in {array.shape}"
            )
        height, width, _ = array.shape
        bgra = numpy.full((height, width, 4), 255, numpy.uint8)
        for index, channel in enumerate(channels):
            bgra[:, :, "BGRA".index(channel)] = array[:, :, index]
        return cls.from_bgra(bgra, width, height)

    @classmethod
    def _copy(cls, pixel_format: PixelFormat, width: int, height: int, *planes: tuple[Any, int | None]) -> Self:
        if width < 1 or height < 1:
            raise ValueError(f"a picture cannot have {width} x {height} pixels")
        pixels = Pixels(width=width, height=height, format=pixel_format)
        kept = []  # until the library has copied them
        for index, ((plane, bytes_per_row), (row, rows)) in enumerate(zip(planes, _plane_sizes(pixels))):
            view = memoryview(plane)
            if not view.c_contiguous:
                raise ValueError("the pixels must be contiguous")
            stride = row if bytes_per_row is None else bytes_per_row
            if stride < row or view.nbytes < stride * (rows - 1) + row:
                raise ValueError(f"{view.nbytes} bytes in rows of {stride} do not hold {width} x {height} pixels")
            array = ctypes.c_uint8 * view.nbytes
            data = array.from_buffer_copy(view.cast("B")) if view.readonly else array.from_buffer(view)
            kept.append(data)
            pixels.planes[index] = ctypes.addressof(data)
            pixels.bytes_per_row[index] = stride
        return cls(library.frame_create(ctypes.byref(pixels)))

    def _pixels(self) -> Pixels:
        pixels = Pixels()
        library.frame_get_pixels(self._address, ctypes.byref(pixels))
        return pixels

    @property
    def width(self) -> int:
        """Pixels."""
        return self._pixels().width

    @property
    def height(self) -> int:
        """Pixels."""
        return self._pixels().height

    @property
    def pixel_format(self) -> PixelFormat:
        return PixelFormat(self._pixels().format)

    def to_array(self) -> "numpy.ndarray":
        """A copy of a BGRA frame as a numpy array, height x width x 4."""
        import numpy

        if self.pixel_format is not PixelFormat.BGRA:
            raise ValueError("only BGRA frames make an array")
        return numpy.frombuffer(self.planes()[0], numpy.uint8).reshape(self.height, self.width, 4)

    def planes(self) -> tuple[bytes, ...]:
        """A copy of each plane's samples, row by row without padding."""
        pixels = self._pixels()
        return tuple(
            b"".join(ctypes.string_at(pixels.planes[plane] + i * pixels.bytes_per_row[plane], row) for i in range(rows))
            for plane, (row, rows) in enumerate(_plane_sizes(pixels))
        )


def _results(address: int) -> Results:
    statuses = (ctypes.c_int64 * 16)()
    count = library.results_get_statuses(address, statuses, 16)
    rect = _Rect()
    library.results_get_face_rect(address, ctypes.byref(rect))
    code = ResultCode(library.results_code(address))

    def points(part: int) -> Points:
        xy = (ctypes.c_double * 64)()
        number = library.results_get_points(address, part, xy, 32)
        return tuple(zip(xy[0 : 2 * number : 2], xy[1 : 2 * number : 2]))

    jpeg = record = None
    if code is not ResultCode.NONE:
        size = ctypes.c_size_t()
        data = library.results_copy_jpeg(address, ctypes.byref(size))
        if data:
            jpeg = ctypes.string_at(data, size.value)
            library.free(data)
        text = library.results_copy_record(address)
        record = library.take_text(text) if text else None
    return Results(
        status=Status(library.results_status(address)),
        statuses=tuple(Status(status) for status in statuses[:count]),
        code=code,
        face_rect=Rect(rect.x, rect.y, rect.width, rect.height) if rect.width > 0 else None,
        face_contour=points(0),
        nose=points(1),
        outer_lips=points(2),
        jpeg=jpeg,
        record=record,
    )


# What callbacks lead to, by number. An owner that is garbage gets no calls.
_owners: weakref.WeakValueDictionary[int, "_Owner"] = weakref.WeakValueDictionary()
_numbers = itertools.count(1)


class _Owner:
    """An object with callbacks, and with a handle that ends with it."""

    def __init__(self, handle: Handle, **callbacks: Callable[..., Any] | None) -> None:
        self._handle = handle
        self._callbacks = {name: callback for name, callback in callbacks.items() if callback is not None}
        self._number = next(_numbers)
        _owners[self._number] = self
        self._finalizer = weakref.finalize(self, handle.close)  # runs at the interpreter's end, too

    def _fill(self, callbacks: ctypes.Structure, thunks: dict[str, Any]) -> ctypes.Structure:
        callbacks.user = self._number
        for name in self._callbacks:
            setattr(callbacks, name, thunks[name])
        return callbacks

    def _call(self, function: Callable[..., Any], *arguments: Any) -> Any:
        with self._handle as address:
            return function(address, *arguments)

    def close(self) -> None:
        """Ends it. On return none of its callbacks begins any more, and one on another thread has ended. While another
        thread is inside one of its calls, it ends when that call returns."""
        self._finalizer.detach()
        self._handle.close()

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


def _thunk(kind: Any, name: str, convert: Callable[..., Any] | None = None) -> Any:
    """What the library calls for a callback of this name, for ever; `convert` makes its argument."""

    def call(user: int, *arguments: Any) -> None:
        with guarding():
            owner = _owners.get(user)
            if owner is not None:
                owner._callbacks[name](*([convert(*arguments)] if convert else []))

    return kind(call)


_analyzer_thunks = {
    "results": _thunk(WITH_HANDLE, "results", _results),
    "countdown": _thunk(PLAIN, "countdown"),
    "success": _thunk(WITH_HANDLE, "success", _results),
    "cancelled": _thunk(WITH_HANDLE, "cancelled", _results),
}
_camera_thunks = {
    "ready": _thunk(PLAIN, "ready"),
    "frame": _thunk(WITH_HANDLE, "frame", lambda address: Frame(library.frame_retain(address))),
    "dropped": _thunk(PLAIN, "dropped"),
    "barcode": _thunk(WITH_TEXT, "barcode", lambda text: text.decode(errors="replace")),
    "recording": _thunk(WITH_BYTES, "recording", lambda data, size: ctypes.string_at(data, size)),
}


class _Parameter:
    """A parameter of the capture, kept by the library."""

    def __init__(self, number: int, kind: Callable[[int], Any] = int) -> None:
        self._number, self._kind = number, kind

    def __get__(self, parameters: "Parameters | None", _: Any = None) -> Any:
        return self if parameters is None else self._kind(library.parameters_get(parameters._address, self._number))

    def __set__(self, parameters: "Parameters", value: int) -> None:
        library.parameters_set(parameters._address, self._number, max(-(2**63), min(int(value), 2**63 - 1)))


class Parameters:
    """The settings of a capture, shared with the analyzers and cameras that were made with them: a change takes effect
    with the next frame. A number outside its range is brought to the nearer end, and the fill bounds keep a distance of
    100: read it to see what has been stored."""

    __slots__ = ("_address",)

    mode: Mode = _Parameter(0, Mode)  # type: ignore[assignment]
    timeout: int = _Parameter(1)  # type: ignore[assignment]
    """Seconds, 3 to 30; enforced by the host."""
    min_fill: int = _Parameter(2)  # type: ignore[assignment]
    """Smallest width of the face in thousandths of the screen's, 400 to 800."""
    max_fill: int = _Parameter(3)  # type: ignore[assignment]
    """Largest width of the face in thousandths of the screen's, 500 to 900."""
    roll: int = _Parameter(4)  # type: ignore[assignment]
    """Strictness, 0 to 1000, as of pitch and yaw."""
    pitch: int = _Parameter(5)  # type: ignore[assignment]
    yaw: int = _Parameter(6)  # type: ignore[assignment]
    image_quality: int = _Parameter(7)  # type: ignore[assignment]
    """Of the JPEG, percent, 5 to 100."""
    select_on_smile: bool = _Parameter(8, bool)  # type: ignore[assignment]
    countdown_time: int = _Parameter(9)  # type: ignore[assignment]
    """Seconds, 0 to 5."""
    record_video: bool = _Parameter(10, bool)  # type: ignore[assignment]
    record_audio: bool = _Parameter(11, bool)  # type: ignore[assignment]
    video_quality: int = _Parameter(12)  # type: ignore[assignment]
    """10 to 100."""
    show_recording_ui: bool = _Parameter(13, bool)  # type: ignore[assignment]
    highlight_landmarks: bool = _Parameter(14, bool)  # type: ignore[assignment]

    def __init__(self, **values: int) -> None:
        """The defaults, but for the values given."""
        self._address = library.parameters_create()
        for name, value in values.items():
            if name not in _PARAMETER_NAMES:
                raise TypeError(f"there is no parameter {name!r}")
            setattr(self, name, value)

    def __del__(self, _destroy: Callable[[int], None] = library.parameters_destroy) -> None:
        if hasattr(self, "_address"):
            _destroy(self._address)


_PARAMETER_NAMES = frozenset(name for name, value in vars(Parameters).items() if isinstance(value, _Parameter))


class Platform(_Owner):
    """What camera and analyzer run on. Objects that were made on it continue when it is closed."""

    def __init__(self, address: int | None = None) -> None:
        """This machine: its cameras, microphones and sensors. The face models start to load in the background."""
        if address is None:
            address = library.platform_create_linux()
        super().__init__(Handle("platform", address, library.platform_destroy))

    @classmethod
    def simulated(
        cls, photograph: str | os.PathLike[str] | None = None, script: str | os.PathLike[str] | None = None
    ) -> Self:
        """The same with a simulated camera: a photograph, with its geometry beside it, moved about by a script."""
        paths = [None if path is None else os.fsencode(path) for path in (photograph, script)]
        return cls(library.platform_create_simulated(*paths))

    def wait_for_models(self) -> None:
        """Returns when the face models are loaded."""
        self._call(library.platform_wait_for_models)

    def set_screen_size(self, width: float, height: float) -> None:
        """In points, of the portrait screen that faces are measured against; for objects made afterwards."""
        self._call(library.platform_set_screen_size, width, height)

    def may_use_camera(self) -> bool:
        return bool(self._call(library.platform_may_use_camera))

    def set_faults(self, faults: Fault) -> None:
        """What goes wrong with the cameras of a simulated platform, until the next call."""
        self._call(library.platform_set_faults, faults)

    def judge(self, frame: Frame, parameters: Parameters | None = None) -> Results:
        """Judges one picture without a capture, with the whole picture as the screen. Only GOOD_FRAME is reported of a good
        face, smiling or not."""
        results = self._call(library.judge, parameters._address if parameters else None, frame._address)
        try:
            return _results(results)
        finally:
            library.results_destroy(results)


def _end_analyzer(address: int) -> None:
    library.analyzer_stop(address)  # or its events would stay for the next capture's record
    library.analyzer_destroy(address)


class Analyzer(_Owner):
    """Judges frames, guides the person and selects the photograph of one capture.

    on_results: of each analysed frame that was not selected.
    on_countdown: show a countdown and call `select_frame` at its end; a status other than COUNTDOWN breaks it off.
    on_success: a frame was selected; without it none ever is by hand.
    on_cancelled: called by `cancel`; what it raises, `cancel` raises.
    """

    def __init__(
        self,
        platform: Platform,
        parameters: Parameters | None = None,
        *,
        on_results: Callable[[Results], Any] | None = None,
        on_countdown: Callable[[], Any] | None = None,
        on_success: Callable[[Results], Any] | None = None,
        on_cancelled: Callable[[Results], Any] | None = None,
    ) -> None:
        self.parameters = parameters if parameters is not None else Parameters()
        made = platform._call(library.analyzer_create, self.parameters._address)
        super().__init__(
            Handle("analyzer", made, _end_analyzer),
            results=on_results,
            countdown=on_countdown,
            success=on_success,
            cancelled=on_cancelled,
        )
        self._call(library.analyzer_set_callbacks, ctypes.byref(self._fill(AnalyzerCallbacks(), _analyzer_thunks)))

    def analyze(self, frame: Frame) -> None:
        """Takes a frame; it is ignored while another one is held."""
        self._call(library.analyzer_analyze_frame, frame._address)

    def resume(self) -> None:
        """Starts or restarts the analysis, also after a selection."""
        self._call(library.analyzer_resume)

    def pause(self, reason: int = 0) -> None:
        """Reasons 1 to 4 are written to the record's event log."""
        self._call(library.analyzer_pause, reason)

    def select_frame(self) -> None:
        """Asks for the photograph: the next frame in manual mode, the next one with exactly one face in automatic mode."""
        self._call(library.analyzer_select_frame)

    def stop(self) -> None:
        """Ends the capture without a callback. The analyzer is then spent."""
        self._call(library.analyzer_stop)

    def cancel(self) -> None:
        """Ends the capture as cancelled: calls on_cancelled, then does what `stop` does."""
        with raising():
            self._call(library.analyzer_cancel)

    def close(self) -> None:
        """Stops, and ends the analyzer."""
        if self._finalizer.detach() is not None:
            self.stop()
        self._handle.close()


class Camera(_Owner):
    """Live frames, and a recording if the parameters ask for one. The callbacks run on threads of the camera's.

    on_frame: return quickly, or frames are dropped. For the analysis alone `set_analyzer` costs less.
    on_recording: the bytes of the finished MP4 file. `stop` and wait for it: `close` may lose one that is not finished.
    """

    def __init__(
        self,
        platform: Platform,
        parameters: Parameters | None = None,
        *,
        position: Position = Position.FRONT,
        preset: Preset = Preset.SIZE_1280X720,
        pixel_format: PixelFormat = PixelFormat.NV12,
        detect_barcodes: bool = False,
        on_ready: Callable[[], Any] | None = None,
        on_frame: Callable[[Frame], Any] | None = None,
        on_dropped: Callable[[], Any] | None = None,
        on_barcode: Callable[[str], Any] | None = None,
        on_recording: Callable[[bytes], Any] | None = None,
    ) -> None:
        options = CameraOptions(position, preset, pixel_format, detect_barcodes)
        made = platform._call(library.camera_create, parameters._address if parameters else None, ctypes.byref(options))
        super().__init__(
            Handle("camera", made, library.camera_destroy),
            ready=on_ready,
            frame=on_frame,
            dropped=on_dropped,
            barcode=on_barcode,
            recording=on_recording,
        )
        self._configured = False

    def set_analyzer(self, analyzer: Analyzer | None) -> None:
        """Hands every frame to this analyzer, without a detour through Python."""
        with analyzer._handle if analyzer else contextlib.nullcontext() as to:
            self._call(library.camera_set_analyzer, to)

    def start(self, wait: bool = True) -> None:
        """Opens and starts the camera. Waits until it runs and raises Error if it does not; without `wait`, at once."""
        with self._handle as address:
            if not self._configured:
                self._configured = True
                callbacks = self._fill(CameraCallbacks(), _camera_thunks)
                library.camera_configure(address, ctypes.byref(callbacks))
            library.camera_start(address)
            if wait:
                library.camera_wait_until_started(address)

    @property
    def is_running(self) -> bool:
        """False once it was stopped, unplugged or fell silent."""
        return bool(self._call(library.camera_is_running))

    def stop(self) -> None:
        """Stops frames and recording, which is finished in the background. Some frames may still come."""
        self._call(library.camera_stop)

    def stop_recording(self) -> None:
        """Finishes the recording now, also of a camera that was lost."""
        self._call(library.camera_stop_recording)

    def set_torch(self, on: bool) -> None:
        """Raises Error if the camera has no torch."""
        self._call(library.camera_set_torch, on)


# ---- The main queue ----

_woken = threading.Event()
_quitting = threading.Event()
_host_wake_up: Callable[[], Any] | None = None
_log: Callable[[str], Any] | None = None
_later: dict[int, Callable[[], Any]] = {}


@PLAIN
def _wake(_: int) -> None:
    _woken.set()
    host = _host_wake_up
    if host is not None:
        host()


@PLAIN
def _call_later(number: int) -> None:
    with guarding():
        _later.pop(number)()


@WITH_TEXT
def _receive_log(_: int, message: bytes) -> None:
    receive = _log
    if receive is not None:
        receive(message.decode(errors="replace"))


def drain() -> int:
    """Runs what is due now and returns how many blocks that were. Raises what callbacks raised."""
    with raising():
        count: int = library.main_queue_drain()
    return count


def run(timeout: float | None = None) -> bool:
    """Runs what comes until `quit`: True; or until so many seconds have passed: False. Raises what callbacks raised."""
    library.main_queue_set_wake_up(_wake, None)
    end = None if timeout is None else time.monotonic() + timeout
    while True:
        _woken.clear()
        drain()
        if _quitting.is_set():
            _quitting.clear()
            return True
        left = None if end is None else end - time.monotonic()
        if left is not None and left <= 0:
            return False
        due = library.main_queue_seconds_until_next()
        waits = [seconds for seconds in (left, due if due >= 0 else None) if seconds is not None]
        _woken.wait(min(waits, default=None))


def quit() -> None:
    """Makes `run` return True; one that begins later, if none runs."""
    _quitting.set()
    _woken.set()


def call_after(seconds: float, callback: Callable[[], Any]) -> None:
    """Has the callback called on the main queue, no sooner than after these seconds."""
    number = next(_numbers)
    _later[number] = callback
    try:
        library.main_queue_call_after(seconds, _call_later, number)
    except BaseException:
        del _later[number]
        raise


def seconds_until_next() -> float | None:
    """When `drain` has something to do: 0.0 for now, None for nothing to come."""
    seconds: float = library.main_queue_seconds_until_next()
    return seconds if seconds >= 0 else None


def set_wake_up(callback: Callable[[], Any] | None) -> None:
    """Has the callback called, on any thread, whenever something is submitted to the main queue: for a program with a loop
    of its own, which then calls `drain` there."""
    global _host_wake_up
    _host_wake_up = callback
    library.main_queue_set_wake_up(_wake, None)


def set_log(receive: Callable[[str], Any] | None) -> None:
    """Hands every line of the log to this function, on the thread that logs; None: to standard error, as at first."""
    global _log
    _log = receive
    library.set_log_callback(_receive_log if receive is not None else WITH_TEXT(), None)


def version() -> str:
    """The version of the library."""
    text: bytes = library.version()
    return text.decode()


@atexit.register
def _end() -> None:
    """A thread of the library that enters an interpreter which ends would not come back."""
    library.main_queue_set_wake_up(PLAIN(), None)
    library.set_log_callback(WITH_TEXT(), None)
