// Captures one photograph from the simulated camera. Usage: capture PHOTOGRAPH SCRIPT OUTPUT.jpg
#include <SelvioFacialCapture/c/selvio_facial_capture.h>

#include <stdio.h>
#include <stdlib.h>

struct capture {
    selvio_analyzer* analyzer;
    const char* output;
    unsigned countdowns;  // a countdown that was broken off is not the newest any more
    bool captured;
};

struct countdown {
    struct capture* capture;
    unsigned number;
};

static void countdown_ended(void* user) {
    struct countdown* countdown = user;
    if (countdown->number == countdown->capture->countdowns)
        selvio_analyzer_select_frame(countdown->capture->analyzer, NULL);
    free(countdown);
}

static void start_countdown(void* user) {
    struct capture* capture = user;
    struct countdown* countdown = malloc(sizeof *countdown);
    if (countdown == NULL) return;
    *countdown = (struct countdown){capture, ++capture->countdowns};
    if (!selvio_main_queue_call_after(2, countdown_ended, countdown, NULL)) free(countdown);
}

static void detection_results(void* user, const selvio_results* results) {
    const int64_t status = selvio_results_status(results, NULL);
    if (status != SELVIO_STATUS_COUNTDOWN) ++((struct capture*)user)->countdowns;
    puts(selvio_status_key(status));
}

static void detection_success(void* user, const selvio_results* results) {
    struct capture* capture = user;
    size_t size = 0;
    uint8_t* jpeg = selvio_results_copy_jpeg(results, &size, NULL);
    char* record = selvio_results_copy_record(results, NULL);
    FILE* file = jpeg != NULL ? fopen(capture->output, "wb") : NULL;
    if (file != NULL) {
        const bool written = fwrite(jpeg, 1, size, file) == size;
        capture->captured = fclose(file) == 0 && written;
    }
    if (record != NULL) puts(record);
    selvio_free(record);
    selvio_free(jpeg);
    selvio_main_queue_quit();
}

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    char* error = NULL;
    struct capture capture = {.output = argv[3]};
    selvio_platform* platform = selvio_platform_create_simulated(argv[1], argv[2], &error);
    selvio_parameters* parameters = platform != NULL ? selvio_parameters_create(&error) : NULL;
    selvio_camera* camera = parameters != NULL ? selvio_camera_create(platform, parameters, NULL, &error) : NULL;
    capture.analyzer = camera != NULL ? selvio_analyzer_create(platform, parameters, &error) : NULL;

    const selvio_analyzer_callbacks callbacks = {.user = &capture,
                                                 .detection_results = detection_results,
                                                 .start_countdown = start_countdown,
                                                 .detection_success = detection_success};
    if (capture.analyzer != NULL && selvio_analyzer_set_callbacks(capture.analyzer, &callbacks, &error) &&
        selvio_camera_set_analyzer(camera, capture.analyzer, &error) && selvio_camera_configure(camera, NULL, &error) &&
        selvio_camera_start(camera, &error) && selvio_camera_wait_until_started(camera, &error) &&
        selvio_analyzer_resume(capture.analyzer, &error) && selvio_main_queue_run(&error)) {
        selvio_analyzer_stop(capture.analyzer, NULL);
    }
    if (error != NULL) fprintf(stderr, "capture: %s\n", error);
    selvio_free(error);
    selvio_camera_destroy(camera);
    selvio_analyzer_destroy(capture.analyzer);
    selvio_parameters_destroy(parameters);
    selvio_platform_destroy(platform);
    return capture.captured ? 0 : 1;
}
