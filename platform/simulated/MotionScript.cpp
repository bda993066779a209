#include <SelvioFacialCapture/simulated/MotionScript.h>

#include "platform/simulated/StrictJson.h"

#include <algorithm>
#include <cmath>

namespace selvio {
namespace {

using std::chrono::nanoseconds;
using strictjson::ObjectReader;

constexpr std::size_t kMostKeyFrames = 10000;
constexpr double kLongestTime = 86400.0;  // seconds

nanoseconds toNanoseconds(double seconds) {
    return nanoseconds(std::llround(seconds * 1e9));
}

void readPose(ObjectReader& reader, FacePose& pose) {
    pose.center = reader.point("center", -1, 2).value_or(pose.center);
    pose.jawWidth = reader.number("jawWidth", 0.02, 3).value_or(pose.jawWidth);
    pose.roll = reader.number("roll", -180, 180).value_or(pose.roll);
}

// Whether the fields that have no default have been given so far.
struct RequiredFields {
    bool center = false;
    bool jawWidth = false;
};

void readSecond(ObjectReader& reader, std::optional<FacePose>& second) {
    const auto* const value = reader.field("second");
    if (!value) return;
    if (value->is_null()) {
        second.reset();
        return;
    }
    ObjectReader fields(*value, reader.pathOf("second"));
    if (!second) {
        fields.require("center");
        fields.require("jawWidth");
        second.emplace();
    }
    readPose(fields, *second);
    fields.finish();
}

void readBarcode(ObjectReader& reader, std::optional<std::string>& barcode) {
    const auto* const value = reader.field("barcode");
    if (!value) return;
    if (value->is_null()) {
        barcode.reset();
    } else if (value->is_string()) {
        barcode = value->get<std::string>();
    } else {
        reader.fail("barcode", "must be a text or null");
    }
}

// Every field that a key frame leaves out keeps the value of the key frame before.
void readState(ObjectReader& reader, MotionState& state, RequiredFields& given) {
    state.visible = reader.boolean("visible").value_or(state.visible);
    given.center = given.center || reader.field("center");
    given.jawWidth = given.jawWidth || reader.field("jawWidth");
    readPose(reader, state.face);
    readSecond(reader, state.second);
    if (const auto rate = reader.numbers("rotationRate", 3, -100, 100))
        state.rotationRate = {(*rate)[0], (*rate)[1], (*rate)[2]};
    state.smiling = reader.boolean("smiling").value_or(state.smiling);
    state.light = reader.number("light", 0, 4).value_or(state.light);
    state.noise = reader.number("noise", 0, 64).value_or(state.noise);
    readBarcode(reader, state.barcode);
    if (state.visible && !given.center) reader.fail("center", "is missing for a visible face");
    if (state.visible && !given.jawWidth) reader.fail("jawWidth", "is missing for a visible face");
}

FacePose mix(const FacePose& a, const FacePose& b, double t) {
    return {.center = {std::lerp(a.center.x, b.center.x, t), std::lerp(a.center.y, b.center.y, t)},
            .jawWidth = std::lerp(a.jawWidth, b.jawWidth, t),
            .roll = std::lerp(a.roll, b.roll, t)};
}

// Numbers move, everything else stays as it is in `a`.
MotionState mix(const MotionState& a, const MotionState& b, double t) {
    MotionState state = a;
    state.face = mix(a.face, b.face, t);
    if (a.second && b.second) state.second = mix(*a.second, *b.second, t);
    state.rotationRate = {std::lerp(a.rotationRate.x, b.rotationRate.x, t),
                          std::lerp(a.rotationRate.y, b.rotationRate.y, t),
                          std::lerp(a.rotationRate.z, b.rotationRate.z, t)};
    state.light = std::lerp(a.light, b.light, t);
    state.noise = std::lerp(a.noise, b.noise, t);
    return state;
}

}  // namespace

Expected<MotionScript> MotionScript::parse(std::string_view json, const std::string& source) {
    MotionScript script;
    const auto error = strictjson::read(json, source, [&](ObjectReader& reader) {
        script.loop_ = reader.boolean("loop").value_or(false);
        script.seed_ = static_cast<std::uint64_t>(reader.integer("seed", 0, 4294967295).value_or(1));
        const auto* const list = reader.field("keyFrames");
        if (!list || !list->is_array() || list->empty() || list->size() > kMostKeyFrames)
            reader.fail("keyFrames", "must be a list of 1 to 10000 key frames");
        KeyFrame keyFrame;
        RequiredFields given;
        for (std::size_t i = 0; i < list->size(); ++i) {
            ObjectReader fields((*list)[i], "keyFrames[" + std::to_string(i) + "]");
            fields.require("at");
            if (i == 0) fields.require("visible");
            const nanoseconds end = keyFrame.at + keyFrame.hold;
            const nanoseconds before = keyFrame.at;
            keyFrame.at = toNanoseconds(*fields.number("at", 0, kLongestTime));
            keyFrame.hold = toNanoseconds(fields.number("hold", 0, kLongestTime).value_or(0));
            if (i == 0 && keyFrame.at != nanoseconds(0)) fields.fail("at", "must be 0 in the first key frame");
            if (i > 0 && keyFrame.at <= before) fields.fail("at", "must be later than in the key frame before");
            if (i > 0 && keyFrame.at < end) fields.fail("at", "falls into the hold of the key frame before");
            readState(fields, keyFrame.state, given);
            script.tellsSmile_ = script.tellsSmile_ || fields.field("smiling");
            fields.finish();
            script.keyFrames_.push_back(keyFrame);
        }
        if (script.loop_ && script.duration() == nanoseconds(0))
            reader.fail("loop", "needs key frames that last longer than 0 seconds");
    });
    if (error) return *error;
    return script;
}

Expected<MotionScript> MotionScript::load(const std::filesystem::path& path) {
    const auto text = strictjson::readText(path);
    return text ? parse(text.value(), path.string()) : text.error();
}

nanoseconds MotionScript::duration() const {
    return keyFrames_.back().at + keyFrames_.back().hold;
}

MotionState MotionScript::stateAt(nanoseconds time) const {
    if (loop_ && time > nanoseconds(0)) time %= duration();
    const auto next = std::upper_bound(keyFrames_.begin(), keyFrames_.end(), time,
                                       [](nanoseconds t, const KeyFrame& k) { return t < k.at; });
    if (next == keyFrames_.begin()) return next->state;
    const KeyFrame& last = *std::prev(next);
    const nanoseconds start = last.at + last.hold;
    if (next == keyFrames_.end() || time <= start) return last.state;
    return mix(last.state, next->state,
               static_cast<double>((time - start).count()) / static_cast<double>((next->at - start).count()));
}

}  // namespace selvio
