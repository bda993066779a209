// The C interface from C11 alone: errors instead of crashes, what only hosts in C call, the callbacks' threads and
// ends.
#define _DEFAULT_SOURCE
#include <SelvioFacialCapture/c/selvio_facial_capture.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

static _Thread_local char* error;
static atomic_int failures;
#define CHECK(condition) check((condition), __LINE__, #condition)
/// The call must fail, and its text must hold `text`.
#define FAILS(call, text) \
    (error = NULL, CHECK(!(call) && error != NULL && strstr(error, text) != NULL), selvio_free(error), error = NULL)

static void check(bool holds, int line, const char* text) {
    if (holds) return;
    ++failures;
    printf("line %d: %s\n", line, text);
}

static void count(void* user) {
    ++*(atomic_int*)user;
}

struct told {
    selvio_analyzer* analyzer;
    selvio_camera* camera;
    atomic_int begun, ended, others;
};

static void slow_call(struct told* told) {
    ++told->begun;
    usleep(20000);
    ++told->ended;
}

static void slow_results(void* user, const selvio_results* results) {
    CHECK(selvio_results_status(results, NULL) == SELVIO_STATUS_FACE_NOT_FOUND);
    FAILS(selvio_main_queue_drain(&error), "run already");  // from inside a block
    slow_call(user);
}

static void told_cancelled(void* user, const selvio_results* results) {
    struct told* told = user;
    size_t size = 1;
    CHECK(selvio_results_copy_jpeg(results, &size, &error) == NULL && size == 0 && error == NULL);
    selvio_analyzer_destroy(told->analyzer);  // from inside one of its own callbacks
    ++told->others;
}

static void told_ready(void* user) {
    struct told* told = user;
    FAILS(selvio_camera_wait_until_started(told->camera, &error), "cannot wait");
    ++told->others;
}

static void slow_frame(void* user, const selvio_frame* frame) {
    selvio_pixels pixels;
    CHECK(selvio_frame_get_pixels(frame, &pixels, NULL) && pixels.width == 480 && pixels.height == 640 &&
          pixels.format == SELVIO_PIXEL_FORMAT_BGRA);
    slow_call(user);
}

static void* run_main_queue(void* unused) {
    CHECK(selvio_main_queue_run(NULL));
    return unused;
}

static void wrong_arguments(selvio_platform* platform, selvio_parameters* parameters) {
    selvio_platform* machine = selvio_platform_create_linux(&error);
    FAILS(selvio_platform_set_faults(machine, 0, &error), "only a simulated platform");
    selvio_platform_destroy(machine);
    FAILS(selvio_platform_set_faults(platform, 32, &error), "32");
    FAILS(selvio_platform_set_screen_size(platform, 1080, -1, &error), "positive");
    FAILS(selvio_parameters_set(parameters, 15, 1, &error), "no parameter 15");
    FAILS(selvio_parameters_get(parameters, -1, &error) + 1, "no parameter -1");
    FAILS(selvio_main_queue_call_after(0, NULL, NULL, &error), "callback is NULL");
    FAILS(selvio_judge(platform, NULL, NULL, &error), "frame is NULL");
    FAILS(selvio_results_retain(NULL, &error), "results is NULL");
    FAILS(selvio_camera_create(platform, NULL, &(selvio_camera_options){.position = 3}, &error), "position 3");
    FAILS(selvio_camera_create(platform, NULL, &(selvio_camera_options){.preset = 4}, &error), "preset 4");
    FAILS(selvio_camera_create(platform, NULL, &(selvio_camera_options){.pixel_format = 7}, &error), "format 7");
    selvio_camera* camera = selvio_camera_create(platform, NULL, NULL, &error);
    FAILS(selvio_camera_start(camera, &error), "not been configured");
    FAILS(selvio_camera_set_torch(camera, true, &error), "no torch");
    selvio_camera_destroy(camera);
    selvio_camera_destroy(NULL);

    CHECK(selvio_status_key(15) == NULL && selvio_status_key(-1) == NULL && selvio_result_code_name(4) == NULL);
    CHECK(strcmp(selvio_status_key(14), "selvio_facial_capture_status_good_frame") == 0 &&
          strcmp(selvio_result_code_name(3), "Cancelled") == 0);
}

static void frames(void) {
    const uint8_t luma[12] = {0}, chroma[8] = {0};
    selvio_pixels pixels = {3, 3, SELVIO_PIXEL_FORMAT_NV12, {luma, chroma}, {4, 4}}, inside = {0};
    atomic_int released = 0;
    selvio_frame* wrapped = selvio_frame_wrap(&pixels, count, &released, &error);
    FAILS(selvio_frame_get_pixels(wrapped, NULL, &error), "pixels is NULL");
    CHECK(selvio_frame_get_pixels(wrapped, &inside, NULL) && inside.planes[0] == luma && inside.planes[1] == chroma);
    selvio_frame* second = selvio_frame_retain(wrapped, &error);
    selvio_frame_destroy(wrapped);
    CHECK(released == 0);
    selvio_frame_destroy(second);
    CHECK(released == 1);
    pixels.planes[1] = NULL;
    FAILS(selvio_frame_wrap(&pixels, count, &released, &error), "plane is NULL");
    CHECK(released == 1);  // after a failure the memory is still the host's
    pixels.bytes_per_row[0] = 2;
    FAILS(selvio_frame_create(&pixels, &error), "2 bytes");
    pixels.width = 0;
    FAILS(selvio_frame_create(&pixels, &error), "0 x 3");
    pixels.format = 32;
    FAILS(selvio_frame_create(&pixels, &error), "format 32");
}

/// An empty picture is judged with and without a capture; a callback is waited for, or may end its own analyzer.
static void judging(selvio_platform* platform, selvio_parameters* parameters) {
    static uint8_t black[90 * 160 * 4];
    const selvio_pixels pixels = {90, 160, SELVIO_PIXEL_FORMAT_BGRA, {black, NULL}, {90 * 4, 0}};
    selvio_frame* frame = selvio_frame_create(&pixels, &error);
    selvio_results* first = selvio_judge(platform, parameters, frame, &error);
    selvio_results* judged = selvio_results_retain(first, &error);
    selvio_results_destroy(first);
    int64_t statuses[2] = {-1, -1};
    CHECK(selvio_results_get_statuses(judged, statuses, 2, NULL) == 1 && statuses[0] == SELVIO_STATUS_FACE_NOT_FOUND);
    FAILS(selvio_results_get_points(judged, 3, NULL, 0, &error), "no points 3");
    FAILS(selvio_results_get_statuses(judged, NULL, 1, &error), "statuses is NULL");
    selvio_results_destroy(judged);

    struct told told = {.analyzer = selvio_analyzer_create(platform, parameters, &error)};
    const selvio_analyzer_callbacks ending = {.user = &told, .detection_cancelled = told_cancelled};
    CHECK(selvio_analyzer_set_callbacks(told.analyzer, &ending, &error));
    FAILS(selvio_analyzer_pause(told.analyzer, 5, &error), "reason 5");
    CHECK(selvio_analyzer_pause(told.analyzer, 4, &error) && selvio_analyzer_resume(told.analyzer, &error));
    CHECK(selvio_analyzer_cancel(told.analyzer, &error) && told.others == 1);

    CHECK(selvio_main_queue_call_after(0, count, &told.others, &error) && selvio_main_queue_seconds_until_next() == 0);
    CHECK(selvio_main_queue_drain(&error) == 1 && told.others == 2 && selvio_main_queue_seconds_until_next() == -1);

    told.analyzer = selvio_analyzer_create(platform, parameters, &error);
    const selvio_analyzer_callbacks slow = {.user = &told, .detection_results = slow_results};
    CHECK(selvio_analyzer_set_callbacks(told.analyzer, &slow, &error));
    FAILS(selvio_analyzer_analyze_frame(told.analyzer, NULL, &error), "frame is NULL");
    CHECK(selvio_analyzer_resume(told.analyzer, &error) && selvio_analyzer_analyze_frame(told.analyzer, frame, &error));
    pthread_t thread;
    CHECK(pthread_create(&thread, NULL, run_main_queue, NULL) == 0);
    while (told.begun == 0) usleep(100);
    selvio_analyzer_destroy(told.analyzer);
    CHECK(told.begun == 1 && told.ended == 1);  // the one that ran has been waited for
    selvio_main_queue_quit();
    pthread_join(thread, NULL);
    selvio_frame_destroy(frame);
}

/// A camera delivers what was asked for until it is destroyed and not any more.
static void cameras(selvio_platform* platform) {
    const selvio_camera_options back = {SELVIO_CAMERA_BACK, SELVIO_PRESET_640X480, SELVIO_PIXEL_FORMAT_BGRA, false};
    struct told told = {.camera = selvio_camera_create(platform, NULL, &back, &error)};
    const selvio_camera_callbacks callbacks = {
        .user = &told, .did_finish_configuring = told_ready, .did_receive_frame = slow_frame};
    CHECK(selvio_platform_may_use_camera(platform, &error) && selvio_camera_configure(told.camera, &callbacks, &error));
    CHECK(selvio_camera_start(told.camera, &error) && selvio_camera_wait_until_started(told.camera, &error) &&
          selvio_camera_is_running(told.camera, &error));
    FAILS(selvio_camera_configure(told.camera, NULL, &error), "already");
    CHECK(selvio_camera_set_torch(told.camera, true, &error) && selvio_camera_stop_recording(told.camera, &error));
    while (told.begun < 3 || told.begun == told.ended) usleep(100);
    selvio_camera_destroy(told.camera);
    CHECK(told.begun == told.ended && told.others == 1);
    memset(&told, 0xff, sizeof told);  // nobody may use it any more
}

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    alarm(240);  // what is waited for and does not come ends the program
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
