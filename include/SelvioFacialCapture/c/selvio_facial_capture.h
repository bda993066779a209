// The component for hosts in C, and in every language that calls C. Plain C11; also compiles as C++.
//
// Handles. Objects are opaque and made by a function that ends in _create (or _retain, _wrap), which hands over one
// handle; the _destroy function takes it back. Destroying NULL does nothing. A handle must not be used once it has been
// destroyed, nor be destroyed while another thread uses it. What a callback is handed is the caller's, for the length
// of the call: retain it to keep it.
//
// Errors. What can fail takes `char** error` as its last parameter and returns NULL, false, -1 or 0. *error is then a
// text of one line in UTF-8, to be freed with selvio_free; after a success it is NULL. `error` may be NULL. A NULL
// handle and a value outside its enumeration are errors, not crashes. Failures inside the component are lines in the
// log (selvio_set_log_callback). No C++ exception leaves a function, and none may leave a callback.
//
// Text is UTF-8 that ends in a zero. A text or memory that a function hands over is freed with selvio_free; a
// const char* that one returns is the library's and stays for ever.
//
// Threads. Every function may be called on any thread, and several at once on one handle, unless it says otherwise.
// The words "main queue", "session queue" and "video output queue" are those of docs/threading.md. A callback runs
// with no lock of the component held and may call every function, destroying its own object included, unless that
// function says otherwise. When a set of callbacks has been taken away - by destroying its object, or by setting
// another one - none of them begins any more, and one that ran on another thread has ended: do not let a callback wait
// for the thread that takes it away. From inside one of the callbacks nothing is waited for.
#pragma once

#include <SelvioFacialCapture/base/Export.h>

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct selvio_platform selvio_platform;
typedef struct selvio_parameters selvio_parameters;
typedef struct selvio_frame selvio_frame;
typedef struct selvio_results selvio_results;
typedef struct selvio_analyzer selvio_analyzer;
typedef struct selvio_camera selvio_camera;

/// The version of the library that runs: "major.minor.patch".
SELVIO_EXPORT const char* selvio_version(void);

/// Frees a text or bytes that this library handed over. NULL is ignored.
SELVIO_EXPORT void selvio_free(void* memory);

/// Receives every line of the process's log, without a line feed, on the thread that logs, several at once if several
/// threads log.
typedef void (*selvio_log_callback)(void* user, const char* message);
/// Replaces what receives the log; NULL: standard error, as at first.
SELVIO_EXPORT bool selvio_set_log_callback(selvio_log_callback callback, void* user, char** error);

// ---- The main queue: where an analyzer's callbacks run, whenever the host says so. One for the process. ----

/// Runs what is due now and returns how many blocks that were; 0 may be an error. One thread at a time, and not from
/// inside a block.
SELVIO_EXPORT size_t selvio_main_queue_drain(char** error);
/// Runs what comes until selvio_main_queue_quit, waiting in between without using the processor. Otherwise as drain.
SELVIO_EXPORT bool selvio_main_queue_run(char** error);
/// Makes run return once the block that is running has ended. One quit ends one run, also one that begins later.
SELVIO_EXPORT void selvio_main_queue_quit(void);
/// Seconds until drain has something to do: 0 when a block is due, -1 when none waits.
SELVIO_EXPORT double selvio_main_queue_seconds_until_next(void);
/// Has `callback` called on the main queue, once, no sooner than after `seconds` (0 to 1,000,000).
SELVIO_EXPORT bool selvio_main_queue_call_after(double seconds, void (*callback)(void* user), void* user, char** error);
/// `callback` is called after every submission, on the submitting thread, so that a loop of the host's own can drain.
/// NULL: nothing is called, as at first.
SELVIO_EXPORT bool selvio_main_queue_set_wake_up(void (*callback)(void* user), void* user, char** error);

// ---- The platform: what camera and analyzer run on. ----

/// This machine: its cameras, microphones and sensors, faces, pictures, recordings. The face models start to load in
/// the background.
SELVIO_EXPORT selvio_platform* selvio_platform_create_linux(char** error);
/// The same with a simulated camera, microphone and motion sensor in place of the machine's: a photograph that a script
/// moves about (docs/simulated-camera.md). `photograph` has its geometry beside it ("face.jpg": "face.json"). NULL:
/// the sample photograph, the demonstration script. The script starts with the first camera or analyzer that runs.
SELVIO_EXPORT selvio_platform* selvio_platform_create_simulated(const char* photograph, const char* script,
                                                                char** error);
/// Objects that were made on the platform continue.
SELVIO_EXPORT void selvio_platform_destroy(selvio_platform* platform);
/// Waits until the face models are loaded. The error names the file and what installs it.
SELVIO_EXPORT bool selvio_platform_wait_for_models(selvio_platform* platform, char** error);
/// The size in points of the portrait screen that faces are measured against; 1080 x 1920 at first. For analyzers and
/// cameras made afterwards.
SELVIO_EXPORT bool selvio_platform_set_screen_size(selvio_platform* platform, double width, double height,
                                                   char** error);
/// Whether a camera may be used, as far as that is settled: false is an answer, too, and then *error is NULL.
SELVIO_EXPORT bool selvio_platform_may_use_camera(selvio_platform* platform, char** error);

/// What goes wrong with simulated cameras; any of them may be combined.
enum selvio_simulated_fault {
    SELVIO_FAULT_NO_CAMERA = 1,
    SELVIO_FAULT_NO_MICROPHONE = 2,
    SELVIO_FAULT_START_FAILS = 4,
    SELVIO_FAULT_DEVICE_LOST = 8,
    SELVIO_FAULT_FRAMES_STALL = 16
};
/// Sets the faults of a simulated platform until the next call; 0: none.
SELVIO_EXPORT bool selvio_platform_set_faults(selvio_platform* platform, uint32_t faults, char** error);

// ---- Parameters: the host's settings for one capture. ----

/// Units, meanings and ranges as in SelvioFacialCaptureParameters.h and SelvioFacialCaptureCameraParameters.h.
enum selvio_parameter {
    SELVIO_PARAMETER_MODE = 0,                 ///< selvio_mode
    SELVIO_PARAMETER_TIMEOUT = 1,              ///< seconds, 3...30; enforced by the host
    SELVIO_PARAMETER_MIN_FILL = 2,             ///< thousandths of the screen's width, 400...800
    SELVIO_PARAMETER_MAX_FILL = 3,             ///< thousandths of the screen's width, 500...900
    SELVIO_PARAMETER_ROLL = 4,                 ///< strictness, 0...1000
    SELVIO_PARAMETER_PITCH = 5,                ///< strictness, 0...1000
    SELVIO_PARAMETER_YAW = 6,                  ///< strictness, 0...1000
    SELVIO_PARAMETER_IMAGE_QUALITY = 7,        ///< percent, 5...100
    SELVIO_PARAMETER_SELECT_ON_SMILE = 8,      ///< 0 or 1
    SELVIO_PARAMETER_COUNTDOWN_TIME = 9,       ///< seconds, 0...5
    SELVIO_PARAMETER_RECORD_VIDEO = 10,        ///< 0 or 1
    SELVIO_PARAMETER_RECORD_AUDIO = 11,        ///< 0 or 1; without a microphone the camera does not open
    SELVIO_PARAMETER_VIDEO_QUALITY = 12,       ///< 10...100
    SELVIO_PARAMETER_SHOW_RECORDING_UI = 13,   ///< 0 or 1; stored and recorded only
    SELVIO_PARAMETER_HIGHLIGHT_LANDMARKS = 14  ///< 0 or 1; stored only
};
enum selvio_mode { SELVIO_MODE_MANUAL = 1, SELVIO_MODE_AUTO = 2 };

/// New parameters with their defaults.
SELVIO_EXPORT selvio_parameters* selvio_parameters_create(char** error);
/// Analyzers and cameras that were made with them keep them.
SELVIO_EXPORT void selvio_parameters_destroy(selvio_parameters* parameters);
/// Takes effect with the next frame. A number outside its range is brought to the nearer end, and the fill bounds keep
/// a distance of 100: selvio_parameters_get returns what has been stored. A mode other than the two is an error.
SELVIO_EXPORT bool selvio_parameters_set(selvio_parameters* parameters, int32_t parameter, int64_t value, char** error);
/// The value; -1, which no parameter has, is an error.
SELVIO_EXPORT int64_t selvio_parameters_get(const selvio_parameters* parameters, int32_t parameter, char** error);

// ---- Frames: pictures in memory. ----

enum selvio_pixel_format {
    SELVIO_PIXEL_FORMAT_BGRA = 0x42475241,  ///< one plane of bytes B, G, R, A
    /// A plane of Y, and one of interleaved Cb, Cr at half size; BT.601, 16...235.
    SELVIO_PIXEL_FORMAT_NV12 = 0x34323076
};

/// A picture in the host's memory, upright and in portrait, not mirrored.
typedef struct selvio_pixels {
    int32_t width;    ///< pixels, 1...32767
    int32_t height;   ///< pixels, 1...32767
    uint32_t format;  ///< selvio_pixel_format
    const uint8_t* planes[2];
    size_t bytes_per_row[2];  ///< of each plane, with whatever lies behind a row's last sample
} selvio_pixels;

/// A frame with a copy of these pixels.
SELVIO_EXPORT selvio_frame* selvio_frame_create(const selvio_pixels* pixels, char** error);
/// A frame over these pixels, without a copy. They must stay as they are until `release` (which may be NULL) is called:
/// once, on any thread, when nothing uses them any more. After an error it is not called.
SELVIO_EXPORT selvio_frame* selvio_frame_wrap(const selvio_pixels* pixels, void (*release)(void* user), void* user,
                                              char** error);
/// Another handle on the same frame.
SELVIO_EXPORT selvio_frame* selvio_frame_retain(const selvio_frame* frame, char** error);
SELVIO_EXPORT void selvio_frame_destroy(selvio_frame* frame);
/// Where the frame's pixels lie; to be read only, as long as the handle lives.
SELVIO_EXPORT bool selvio_frame_get_pixels(const selvio_frame* frame, selvio_pixels* pixels, char** error);

// ---- Results: what is known of a frame, and in the end the photograph. Never written again once handed over. ----

/// The lower number is the more important status.
enum selvio_status {
    SELVIO_STATUS_NONE = 0,
    SELVIO_STATUS_FACE_NOT_FOUND = 1,
    SELVIO_STATUS_MORE_THAN_ONE_FACE = 2,
    SELVIO_STATUS_FACE_ROLL = 3,
    SELVIO_STATUS_FACE_PITCH = 4,
    SELVIO_STATUS_FACE_YAW = 5,
    SELVIO_STATUS_MOVE_CLOSER = 6,
    SELVIO_STATUS_TOO_CLOSE = 7,
    SELVIO_STATUS_NOT_CENTERED = 8,
    SELVIO_STATUS_HOLD_STILL = 9,
    SELVIO_STATUS_COUNTDOWN = 10,
    SELVIO_STATUS_TOO_DARK = 11,           ///< part of the vocabulary; no check produces it
    SELVIO_STATUS_NON_UNIFORM_LIGHT = 12,  ///< part of the vocabulary; no check produces it
    SELVIO_STATUS_STOP_SMILING = 13,
    SELVIO_STATUS_GOOD_FRAME = 14
};
enum selvio_result_code {
    SELVIO_RESULT_NONE = 0,
    SELVIO_RESULT_SUCCESS_STILL_CAMERA = 1,
    SELVIO_RESULT_SUCCESS_VIDEO = 2,
    SELVIO_RESULT_CANCELLED = 3
};
enum selvio_points { SELVIO_POINTS_FACE_CONTOUR = 0, SELVIO_POINTS_NOSE = 1, SELVIO_POINTS_OUTER_LIPS = 2 };
typedef struct selvio_rect {
    double x, y, width, height;
} selvio_rect;

/// The localisation key of a status; NULL for a number outside the enumeration.
SELVIO_EXPORT const char* selvio_status_key(int64_t status);
/// The word for a result code in the data record; NULL for a number outside the enumeration.
SELVIO_EXPORT const char* selvio_result_code_name(int64_t code);

/// Another handle on the same results.
SELVIO_EXPORT selvio_results* selvio_results_retain(const selvio_results* results, char** error);
SELVIO_EXPORT void selvio_results_destroy(selvio_results* results);
/// The status to show; -1 is an error.
SELVIO_EXPORT int64_t selvio_results_status(const selvio_results* results, char** error);
/// Writes up to `capacity` statuses to `statuses`, the most important first, and returns how many there are; 0 may be
/// an error.
SELVIO_EXPORT size_t selvio_results_get_statuses(const selvio_results* results, int64_t* statuses, size_t capacity,
                                                 char** error);
/// selvio_result_code; -1 is an error.
SELVIO_EXPORT int64_t selvio_results_code(const selvio_results* results, char** error);
/// The face's rectangle in screen points; all zero without exactly one face.
SELVIO_EXPORT bool selvio_results_get_face_rect(const selvio_results* results, selvio_rect* rect, char** error);
/// Writes up to `capacity` points of a part of the face (selvio_points), x and y of each in screen points, and returns
/// how many there are; 0 may be an error.
SELVIO_EXPORT size_t selvio_results_get_points(const selvio_results* results, int32_t part, double* xy, size_t capacity,
                                               char** error);
/// The photograph: the bytes of a JPEG file that carries the data record in its EXIF user comment. NULL and no error if
/// these results have none.
SELVIO_EXPORT uint8_t* selvio_results_copy_jpeg(const selvio_results* results, size_t* size, char** error);
/// The data record as JSON (docs/data-record.md). NULL and no error if these results have none.
SELVIO_EXPORT char* selvio_results_copy_record(const selvio_results* results, char** error);

/// Judges one picture without a capture, by the limits of `parameters` (NULL: the defaults), with the whole picture as
/// the screen. On the calling thread; the first call waits for the face models. The results have statuses (only 14 for
/// a good face, smiling or not), rectangle and points, in pixels, and must be destroyed.
SELVIO_EXPORT selvio_results* selvio_judge(selvio_platform* platform, const selvio_parameters* parameters,
                                           const selvio_frame* frame, char** error);

// ---- The analyzer: judges frames, guides the person, selects the photograph. ----

/// Any member may be NULL. `user` is handed to each.
typedef struct selvio_analyzer_callbacks {
    void* user;
    /// The statuses of an analysed frame that did not end in a selection. Main queue.
    void (*detection_results)(void* user, const selvio_results* results);
    /// Show a countdown of the countdown time's seconds and call selvio_analyzer_select_frame at its end. Any status
    /// other than 10 that is reported meanwhile ends the countdown; the next call of this, or the next status 10,
    /// starts it anew. Main queue.
    void (*start_countdown)(void* user);
    /// A frame has been selected: the results have photograph, record and code. Without this member no frame is ever
    /// selected by hand. Main queue.
    void (*detection_success)(void* user, const selvio_results* results);
    /// The capture was cancelled: the results have record and code. The thread that called selvio_analyzer_cancel,
    /// before that returns.
    void (*detection_cancelled)(void* user, const selvio_results* results);
} selvio_analyzer_callbacks;

/// A new analyzer for one capture. The parameters stay shared with the host.
SELVIO_EXPORT selvio_analyzer* selvio_analyzer_create(selvio_platform* platform, selvio_parameters* parameters,
                                                      char** error);
/// Frames are refused from now on. Does not discard the event log of the process: stop or cancel before.
SELVIO_EXPORT void selvio_analyzer_destroy(selvio_analyzer* analyzer);
/// Copies the struct. NULL: no callbacks, as at first. One thread at a time.
SELVIO_EXPORT bool selvio_analyzer_set_callbacks(selvio_analyzer* analyzer, const selvio_analyzer_callbacks* callbacks,
                                                 char** error);
/// Takes a frame: ignored while another one is held, else its pixels are copied once, and the rest runs elsewhere. The
/// host keeps its frame.
SELVIO_EXPORT bool selvio_analyzer_analyze_frame(selvio_analyzer* analyzer, const selvio_frame* frame, char** error);
/// Starts or restarts the analysis, also after a selection.
SELVIO_EXPORT bool selvio_analyzer_resume(selvio_analyzer* analyzer, char** error);
/// Pauses it. Reasons 1 to 4 are written to the record's event log as "IS", "HS", "MF" and "RS", 0 is not; any other is
/// an error.
SELVIO_EXPORT bool selvio_analyzer_pause(selvio_analyzer* analyzer, int64_t reason, char** error);
/// Asks for the photograph: in manual mode the next frame is selected, in automatic mode the next one with exactly one
/// face.
SELVIO_EXPORT bool selvio_analyzer_select_frame(selvio_analyzer* analyzer, char** error);
/// Ends the capture without a callback, and discards the event log of the process. No callback begins any more once it
/// has returned, and one that ran on another thread has ended. The analyzer is then spent: everything but destroying it
/// does nothing.
SELVIO_EXPORT bool selvio_analyzer_stop(selvio_analyzer* analyzer, char** error);
/// Ends the capture as cancelled: calls detection_cancelled on this thread, then does what stop does.
SELVIO_EXPORT bool selvio_analyzer_cancel(selvio_analyzer* analyzer, char** error);

// ---- The camera: live frames, and a recording if the parameters ask for one. ----

enum selvio_camera_position { SELVIO_CAMERA_ANY = 0, SELVIO_CAMERA_BACK = 1, SELVIO_CAMERA_FRONT = 2 };
enum selvio_camera_preset {
    SELVIO_PRESET_HIGH = 0,  ///< the largest up to 1920 x 1080
    SELVIO_PRESET_640X480 = 1,
    SELVIO_PRESET_1280X720 = 2,
    SELVIO_PRESET_1920X1080 = 3
};

/// Frames come in portrait: of a preset's two numbers the smaller one is the width.
typedef struct selvio_camera_options {
    int32_t position;  ///< selvio_camera_position
    int32_t preset;    ///< selvio_camera_preset; one that the camera has not falls back to 1920x1080, 1280x720, High
    uint32_t pixel_format;  ///< selvio_pixel_format of the frames
    bool detect_barcodes;   ///< look for PDF417 codes
} selvio_camera_options;

/// Any member may be NULL. `user` is handed to each.
typedef struct selvio_camera_callbacks {
    void* user;
    /// The camera is ready. Session queue.
    void (*did_finish_configuring)(void* user);
    /// One frame. Video output queue: return quickly, or frames are dropped.
    void (*did_receive_frame)(void* user, const selvio_frame* frame);
    /// A frame was dropped. Video output queue.
    void (*did_drop_frame)(void* user);
    /// The text of a PDF417 code. A queue of its own.
    void (*did_decode_barcode)(void* user, const char* text);
    /// The MP4 file, which is no longer on disk; the bytes are the caller's. A thread of the writer's.
    void (*did_finish_recording)(void* user, const uint8_t* bytes, size_t size);
} selvio_camera_callbacks;

/// A camera, not yet opened. `parameters` (NULL: none) say what is recorded; `options` NULL: the front camera at 1280 x
/// 720 in NV12.
SELVIO_EXPORT selvio_camera* selvio_camera_create(selvio_platform* platform, const selvio_parameters* parameters,
                                                  const selvio_camera_options* options, char** error);
/// Stops and closes the camera. A recording that is not finished may be lost: stop, and wait for did_finish_recording.
SELVIO_EXPORT void selvio_camera_destroy(selvio_camera* camera);
/// Hands every frame to this analyzer, before did_receive_frame; NULL: to none, as at first. The analyzer may be
/// destroyed before the camera.
SELVIO_EXPORT bool selvio_camera_set_analyzer(selvio_camera* camera, selvio_analyzer* analyzer, char** error);
/// Opens the camera, on the session queue, and returns at once. Copies the struct; NULL: no callbacks. Once for a
/// camera.
SELVIO_EXPORT bool selvio_camera_configure(selvio_camera* camera, const selvio_camera_callbacks* callbacks,
                                           char** error);
/// Starts the frames and, if the parameters say so, a recording, on the session queue, and returns at once. Configure
/// it first.
SELVIO_EXPORT bool selvio_camera_start(selvio_camera* camera, char** error);
/// Waits until what has been asked for is done, which may take seconds. An error says that the camera could not be
/// opened or does not run; the log says why. Not from inside a callback of this camera.
SELVIO_EXPORT bool selvio_camera_wait_until_started(selvio_camera* camera, char** error);
/// False once a camera was stopped, unplugged or fell silent.
SELVIO_EXPORT bool selvio_camera_is_running(const selvio_camera* camera, char** error);
/// Stops frames and recording; the recording is finished in the background. Frames already on their queue may still
/// come. A start that has not been carried out yet comes afterwards: wait for it before.
SELVIO_EXPORT bool selvio_camera_stop(selvio_camera* camera, char** error);
/// Finishes a recording now, also of a camera that was lost.
SELVIO_EXPORT bool selvio_camera_stop_recording(selvio_camera* camera, char** error);
/// Switches the torch. A camera without one is an error.
SELVIO_EXPORT bool selvio_camera_set_torch(selvio_camera* camera, bool on, char** error);

#ifdef __cplusplus
}
#endif
