// The C interface from C11 alone: errors instead of crashes, values there and back, the callbacks' threads and ends.
#define _POSIX_C_SOURCE 200809L
#include <SelvioFacialCapture/c/selvio_facial_capture.h>
#include <pthread.h>
#include <sched.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static atomic_int failures;
#define CHECK(condition) check((condition), __LINE__, #condition)

static void check(bool holds, int line, const char* text) {
    if (holds) return;
    atomic_fetch_add(&failures, 1);
    printf("line %d: %s\n", line, text);
}

/// The call must fail, and its text must hold `text`.
#define FAILS(call, text) (error = NULL, CHECK(!(call)), check_error(__LINE__, error, text))

static char* error;  // the main thread's

static void check_error(int line, char* error, const char* text) {
    if (error == NULL || strstr(error, text) == NULL) {
        atomic_fetch_add(&failures, 1);
        printf("line %d: \"%s\" instead of \"%s\"\n", line, error != NULL ? error : "(null)", text);
    }
    selvio_free(error);
}

struct slow_calls {
    atomic_int begun, ended;
};

static void slow_call(struct slow_calls* calls) {
    atomic_fetch_add(&calls->begun, 1);
    nanosleep(&(struct timespec){.tv_nsec = 20000000}, NULL);
    atomic_fetch_add(&calls->ended, 1);
}

static void slow_line(void* user, const char* message) {
    if (message[0] != 0) slow_call(user);
}

struct told {
    pthread_t main_thread;
    selvio_analyzer* analyzer;
    int64_t statuses[16];
    size_t count;
    int reports, elsewhere, cancelled, blocks;
};

static void told_results(void* user, const selvio_results* results) {
    struct told* told = user;
    ++told->reports;
    told->elsewhere += !pthread_equal(told->main_thread, pthread_self());
    told->count = selvio_results_get_statuses(results, told->statuses, 16, NULL);
    FAILS(selvio_main_queue_drain(&error), "run already");  // from inside a block
    selvio_main_queue_quit();
}

static void told_cancelled(void* user, const selvio_results* results) {
    struct told* told = user;
    char* record = selvio_results_copy_record(results, &error);
    told->cancelled += record != NULL && strstr(record, "{\"RS\":") != NULL && error == NULL;  // the pause stands there
    selvio_free(record);
    size_t size = 1;
    CHECK(selvio_results_copy_jpeg(results, &size, &error) == NULL && size == 0 && error == NULL);
    selvio_analyzer_destroy(told->analyzer);  // from inside one of its own callbacks
}

static void count_block(void* user) {
    ++((struct told*)user)->blocks;
}

static void count_release(void* user) {
    atomic_fetch_add((atomic_int*)user, 1);
}

static void slow_report(void* user, const selvio_results* results) {
    (void)results;
    slow_call(user);
}

static void* run_main_queue(void* unused) {
    (void)unused;
    CHECK(selvio_main_queue_run(NULL));
    return NULL;
}

static void wrong_arguments(selvio_platform* platform, selvio_parameters* parameters) {
    uint8_t bytes[64] = {0};
    selvio_pixels pixels = {2, 2, SELVIO_PIXEL_FORMAT_BGRA, {bytes, NULL}, {8, 0}};
    selvio_frame* frame = selvio_frame_create(&pixels, &error);
    selvio_analyzer* analyzer = selvio_analyzer_create(platform, parameters, &error);
    selvio_camera* camera = selvio_camera_create(platform, NULL, NULL, &error);
    CHECK(frame != NULL && analyzer != NULL && camera != NULL && error == NULL);

    FAILS(selvio_platform_set_faults(platform, 32, &error), "32");
    FAILS(selvio_platform_set_screen_size(platform, 1080, -1, &error), "positive");
    FAILS(selvio_parameters_set(parameters, 15, 1, &error), "no parameter 15");
    FAILS(selvio_parameters_get(parameters, -1, &error) + 1, "no parameter -1");
    FAILS(selvio_analyzer_create(platform, NULL, &error), "parameters is NULL");
    FAILS(selvio_analyzer_analyze_frame(analyzer, NULL, &error), "frame is NULL");
    FAILS(selvio_analyzer_pause(analyzer, 5, &error), "reason 5");
    FAILS(selvio_camera_create(platform, NULL, &(selvio_camera_options){3, 0, SELVIO_PIXEL_FORMAT_BGRA, 0}, &error),
          "position 3");
    FAILS(selvio_camera_create(platform, NULL, &(selvio_camera_options){0, 4, SELVIO_PIXEL_FORMAT_BGRA, 0}, &error),
          "preset 4");
    FAILS(selvio_camera_create(platform, NULL, &(selvio_camera_options){0, 0, 7, 0}, &error), "format 7");
    FAILS(selvio_camera_start(camera, &error), "not been configured");
    FAILS(selvio_camera_set_torch(camera, true, &error), "no torch");
    FAILS(selvio_main_queue_call_after(0, NULL, NULL, &error), "callback is NULL");
    FAILS(selvio_judge(platform, NULL, NULL, &error), "frame is NULL");
    FAILS(selvio_results_retain(NULL, &error), "results is NULL");
    FAILS(selvio_frame_get_pixels(frame, NULL, &error), "pixels is NULL");
    pixels.bytes_per_row[0] = 7;
    FAILS(selvio_frame_create(&pixels, &error), "7 bytes");
    pixels.width = 0;
    FAILS(selvio_frame_create(&pixels, &error), "0 x 2");
    pixels.format = 32;
    FAILS(selvio_frame_create(&pixels, &error), "format 32");
    pixels = (selvio_pixels){2, 2, SELVIO_PIXEL_FORMAT_NV12, {bytes, NULL}, {2, 2}};
    FAILS(selvio_frame_wrap(&pixels, count_release, NULL, &error), "plane is NULL");

    CHECK(selvio_status_key(15) == NULL && selvio_status_key(-1) == NULL && selvio_result_code_name(4) == NULL);
    CHECK(strcmp(selvio_status_key(0), "selvio_facial_capture_status_none") == 0);
    CHECK(strcmp(selvio_status_key(14), "selvio_facial_capture_status_good_frame") == 0);
    CHECK(strcmp(selvio_result_code_name(3), "Cancelled") == 0);
    selvio_camera_destroy(camera);
    selvio_analyzer_destroy(analyzer);
    selvio_frame_destroy(frame);
    selvio_camera_destroy(NULL);
}

static void frames(void) {
    const uint8_t luma[12] = {0}, chroma[8] = {0};
    const selvio_pixels pixels = {3, 3, SELVIO_PIXEL_FORMAT_NV12, {luma, chroma}, {4, 4}};
    atomic_int released = 0;
    selvio_frame* wrapped = selvio_frame_wrap(&pixels, count_release, &released, &error);
    selvio_pixels inside = {0};
    CHECK(selvio_frame_get_pixels(wrapped, &inside, NULL) && inside.planes[0] == luma && inside.planes[1] == chroma);
    selvio_frame* second = selvio_frame_retain(wrapped, &error);
    selvio_frame_destroy(wrapped);
    CHECK(released == 0);
    selvio_frame_destroy(second);
    CHECK(released == 1);
}

/// An empty picture is judged with and without a capture; a cancelled capture is told on this thread and never again.
static void judging(selvio_platform* platform, selvio_parameters* parameters) {
    enum { width = 90, height = 160 };
    static uint8_t grey[width * height * 4];
    memset(grey, 128, sizeof grey);
    const selvio_pixels pixels = {width, height, SELVIO_PIXEL_FORMAT_BGRA, {grey, NULL}, {width * 4, 0}};
    selvio_frame* frame = selvio_frame_create(&pixels, &error);
    selvio_results* judged = selvio_judge(platform, parameters, frame, &error);
    int64_t statuses[2] = {-1, -1};
    CHECK(selvio_results_get_statuses(judged, statuses, 2, NULL) == 1 && statuses[0] == SELVIO_STATUS_FACE_NOT_FOUND);
    CHECK(selvio_results_status(judged, NULL) == SELVIO_STATUS_FACE_NOT_FOUND);
    FAILS(selvio_results_get_points(judged, 3, NULL, 0, &error), "no points 3");
    FAILS(selvio_results_get_statuses(judged, NULL, 1, &error), "statuses is NULL");
    selvio_results_destroy(judged);

    struct told told = {.main_thread = pthread_self(),
                        .analyzer = selvio_analyzer_create(platform, parameters, &error)};
    const selvio_analyzer_callbacks callbacks = {&told, told_results, NULL, NULL, told_cancelled};
    CHECK(selvio_analyzer_set_callbacks(told.analyzer, &callbacks, &error));
    CHECK(selvio_analyzer_pause(told.analyzer, 4, &error));
    CHECK(selvio_analyzer_resume(told.analyzer, &error) && selvio_analyzer_analyze_frame(told.analyzer, frame, &error));
    CHECK(selvio_main_queue_run(&error) && told.reports == 1 && told.elsewhere == 0);
    CHECK(told.count == 1 && told.statuses[0] == SELVIO_STATUS_FACE_NOT_FOUND);
    CHECK(selvio_main_queue_call_after(0, count_block, &told, &error));
    CHECK(selvio_main_queue_seconds_until_next() == 0 && selvio_main_queue_drain(&error) == 1 && told.blocks == 1);
    CHECK(selvio_main_queue_seconds_until_next() == -1);
    CHECK(selvio_analyzer_cancel(told.analyzer, &error) && told.cancelled == 1);

    struct slow_calls reports = {0, 0};
    selvio_analyzer* analyzer = selvio_analyzer_create(platform, parameters, &error);
    const selvio_analyzer_callbacks slow = {.user = &reports, .detection_results = slow_report};
    CHECK(selvio_analyzer_set_callbacks(analyzer, &slow, &error) && selvio_analyzer_resume(analyzer, &error));
    pthread_t thread;
    CHECK(pthread_create(&thread, NULL, run_main_queue, NULL) == 0);
    CHECK(selvio_analyzer_analyze_frame(analyzer, frame, &error));
    while (reports.begun == 0) sched_yield();
    selvio_analyzer_destroy(analyzer);
    CHECK(reports.begun == 1 && reports.ended == 1);  // the one that ran has been waited for
    selvio_main_queue_quit();
    pthread_join(thread, NULL);
    selvio_frame_destroy(frame);
}

struct camera_told {
    selvio_camera* camera;
    struct slow_calls frames;
    atomic_int ready, wrong;
};

static void told_ready(void* user) {
    struct camera_told* told = user;
    char* error;
    FAILS(selvio_camera_wait_until_started(told->camera, &error), "cannot wait");
    atomic_fetch_add(&told->ready, 1);
}

static void told_frame(void* user, const selvio_frame* frame) {
    struct camera_told* told = user;
    selvio_pixels pixels;
    const bool portrait = selvio_frame_get_pixels(frame, &pixels, NULL) && pixels.width == 480 &&
                          pixels.height == 640 && pixels.format == SELVIO_PIXEL_FORMAT_BGRA;
    atomic_fetch_add(&told->wrong, !portrait);
    slow_call(&told->frames);
}

/// A camera opens, delivers until it is destroyed and not any more, says when it is lost, and is refused without one.
static void cameras(selvio_platform* platform) {
    struct camera_told told = {.camera = NULL};
    const selvio_camera_callbacks callbacks = {
        .user = &told, .did_finish_configuring = told_ready, .did_receive_frame = told_frame};
    const selvio_camera_options options = {SELVIO_CAMERA_BACK, SELVIO_PRESET_640X480, SELVIO_PIXEL_FORMAT_BGRA, false};
    CHECK(selvio_platform_may_use_camera(platform, &error) && error == NULL);
    told.camera = selvio_camera_create(platform, NULL, &options, &error);
    CHECK(selvio_camera_configure(told.camera, &callbacks, &error) && selvio_camera_start(told.camera, &error));
    CHECK(selvio_camera_wait_until_started(told.camera, &error) && selvio_camera_is_running(told.camera, &error));
    FAILS(selvio_camera_configure(told.camera, NULL, &error), "already");
    CHECK(selvio_camera_set_torch(told.camera, true, &error));
    while (told.frames.begun < 3) sched_yield();
    while (told.frames.begun == told.frames.ended) sched_yield();
    selvio_camera_destroy(told.camera);
    CHECK(told.frames.begun == told.frames.ended && told.ready == 1 && told.wrong == 0);
    memset(&told, 0xff, sizeof told);  // nobody may use it any more

    CHECK(selvio_platform_set_faults(platform, SELVIO_FAULT_NO_CAMERA, &error));
    selvio_camera* none = selvio_camera_create(platform, NULL, NULL, &error);
    struct slow_calls lines = {0, 0};
    CHECK(selvio_set_log_callback(slow_line, &lines, &error));
    CHECK(selvio_camera_configure(none, NULL, &error) && selvio_camera_start(none, &error));
    while (lines.begun == 0) sched_yield();
    CHECK(selvio_set_log_callback(NULL, NULL, &error));
    CHECK(lines.begun == 1 && lines.ended == 1);  // the one that ran has been waited for
    FAILS(selvio_camera_wait_until_started(none, &error), "could not be opened");
    selvio_camera_destroy(none);
}

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    CHECK(strchr(selvio_version(), '.') != NULL);
    selvio_platform* platform = selvio_platform_create_simulated(argv[1], argv[2], &error);
    selvio_parameters* parameters = selvio_parameters_create(&error);
    CHECK(platform != NULL && parameters != NULL && selvio_platform_wait_for_models(platform, &error));
    wrong_arguments(platform, parameters);
    frames();
    judging(platform, parameters);
    cameras(platform);
    selvio_parameters_destroy(parameters);
    selvio_platform_destroy(platform);
    printf("%d failures\n", failures);
    return failures == 0 ? 0 : 1;
}
