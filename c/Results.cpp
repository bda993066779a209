#include <SelvioFacialCapture/imaging/Base64.h>
#include <SelvioFacialCapture/rules/FaceChecks.h>

#include <algorithm>
#include <array>
#include <string>

#include "c/Support.h"

using namespace selvio::c;
using Results = SelvioFacialCaptureResults;

namespace {

const Results& objectOf(const selvio_results* results) {
    return *required(results, "results").object;
}

/// The texts of an enumeration's values from 0 on, kept for ever.
template <std::size_t count, typename Enumeration>
std::array<std::string, count> texts(std::optional<std::string> (*textOf)(Enumeration)) {
    std::array<std::string, count> all;
    for (std::size_t i = 0; i < count; ++i) all[i] = textOf(static_cast<Enumeration>(i)).value_or("");
    return all;
}

template <std::size_t count>
const char* entry(const std::array<std::string, count>& texts, std::int64_t value) {
    if (value < 0 || value >= static_cast<std::int64_t>(count)) return nullptr;
    return texts[static_cast<std::size_t>(value)].c_str();
}

Results::Points pointsOf(const Results& results, std::int32_t part) {
    switch (part) {
        case SELVIO_POINTS_FACE_CONTOUR:
            return results.faceContourPoints();
        case SELVIO_POINTS_NOSE:
            return results.nosePoints();
        case SELVIO_POINTS_OUTER_LIPS:
            return results.outerLipsPoints();
        default:
            throw Failure("there are no points " + std::to_string(part));
    }
}

/// Where up to `capacity` values go.
template <typename T>
T* destination(T* values, std::size_t capacity, const char* name) {
    if (capacity > 0) (void)required(values, name);
    return values;
}

}  // namespace

const char* selvio_status_key(int64_t status) {
    return guarded(nullptr, [&] {
        static const auto keys = texts<SELVIO_STATUS_GOOD_FRAME + 1>(&Results::localizeKeyFrom);
        return entry(keys, status);
    });
}

const char* selvio_result_code_name(int64_t code) {
    return guarded(nullptr, [&] {
        static const auto names = texts<SELVIO_RESULT_CANCELLED + 1>(&Results::stringFrom);
        return entry(names, code);
    });
}

selvio_results* selvio_results_retain(const selvio_results* results, char** error) {
    return guarded(error, [&] { return new selvio_results(required(results, "results")); });
}

void selvio_results_destroy(selvio_results* results) {
    guarded(nullptr, [&] { delete results; });
}

int64_t selvio_results_status(const selvio_results* results, char** error) {
    return guardedOr(std::int64_t{-1}, error,
                     [&] { return static_cast<std::int64_t>(objectOf(results).highestPriorityStatus()); });
}

size_t selvio_results_get_statuses(const selvio_results* results, int64_t* statuses, size_t capacity, char** error) {
    return guarded(error, [&] {
        const auto all = objectOf(results).orderedStatuses().value_or(std::vector<SelvioFacialCaptureStatus>());
        std::copy_n(all.begin(), std::min(capacity, all.size()), destination(statuses, capacity, "statuses"));
        return all.size();
    });
}

int64_t selvio_results_code(const selvio_results* results, char** error) {
    return guardedOr(std::int64_t{-1}, error,
                     [&] { return static_cast<std::int64_t>(objectOf(results).resultCode()); });
}

bool selvio_results_get_face_rect(const selvio_results* results, selvio_rect* rect, char** error) {
    return guarded(error, [&] {
        const selvio::Rect face = objectOf(results).faceRect();
        required(rect, "rect") = {face.x, face.y, face.width, face.height};
    });
}

size_t selvio_results_get_points(const selvio_results* results, int32_t part, double* xy, size_t capacity,
                                 char** error) {
    return guarded(error, [&] {
        const auto points = pointsOf(objectOf(results), part).value_or(std::vector<selvio::Point>());
        double* next = destination(xy, capacity, "xy");
        for (std::size_t i = 0; i < std::min(capacity, points.size()); ++i) {
            *next++ = points[i].x;
            *next++ = points[i].y;
        }
        return points.size();
    });
}

uint8_t* selvio_results_copy_jpeg(const selvio_results* results, size_t* size, char** error) {
    return guarded(error, [&]() -> uint8_t* {
        std::size_t& length = required(size, "size");
        length = 0;
        const auto encoded = objectOf(results).encodedSelectedImage();
        const auto jpeg = encoded ? selvio::base64::decode(*encoded) : std::nullopt;
        if (!jpeg) return nullptr;
        auto* const bytes = static_cast<uint8_t*>(copyForCaller(jpeg->data(), jpeg->size()));
        length = jpeg->size();
        return bytes;
    });
}

char* selvio_results_copy_record(const selvio_results* results, char** error) {
    return guarded(error, [&]() -> char* {
        const auto record = objectOf(results).obixDataString();
        return record ? static_cast<char*>(copyForCaller(record->c_str(), record->size() + 1)) : nullptr;
    });
}

selvio_results* selvio_judge(selvio_platform* platform, const selvio_parameters* parameters, const selvio_frame* frame,
                             char** error) {
    return guarded(error, [&] {
        const selvio::Platform& ports = required(platform, "platform").ports;
        const auto& pixels = required(frame, "frame").object->imageBuffer();
        const auto limits = parameters ? selvio::rules::limitsOf(*parameters->object) : selvio::rules::FaceLimits();
        const auto answer = selvio::rules::judgePicture(pixels, *ports.makeSequenceRequestHandler(), limits);
        if (!answer) throw Failure(answer.error().localizedDescription);
        const auto& judged = answer.value();

        auto results = std::make_unique<selvio_results>(selvio_results{std::make_shared<Results>()});
        results->object->setOrderedStatuses(judged.statuses);
        if (judged.face) {
            results->object->setFaceRect(judged.face->rect);
            results->object->setFaceContourPoints(judged.face->points.contour);
            results->object->setNosePoints(judged.face->points.nose);
            results->object->setOuterLipsPoints(judged.face->points.outerLips);
        }
        return results.release();
    });
}
