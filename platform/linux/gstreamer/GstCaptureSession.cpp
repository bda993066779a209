#include "platform/linux/gstreamer/GstCaptureSession.h"

#include <SelvioFacialCapture/SelvioFacialCaptureImageUtilities.h>
#include <SelvioFacialCapture/base/Log.h>

#include <gst/audio/audio.h>

#include <cmath>

namespace selvio {
namespace {

using std::chrono::nanoseconds;

constexpr int kSampleRate = 48000;
// Of the camera's own memory, which has room for about eight frames and stalls when there is none left.
constexpr int kMostLentFrames = 4;
constexpr int kLooksInStall = 4;  // for a frame, in the time that a camera may be silent

nanoseconds now() {
    return std::chrono::steady_clock::now().time_since_epoch();
}

// On the system's monotonic clock, on which a buffer's time is its running time after the pipeline's base time.
bool play(GstElement* pipeline) {
    GstClock* const clock =
        GST_CLOCK(g_object_new(GST_TYPE_SYSTEM_CLOCK, "clock-type", GST_CLOCK_TYPE_MONOTONIC, nullptr));
    gst_object_ref_sink(clock);
    gst_pipeline_use_clock(GST_PIPELINE(pipeline), clock);
    gst_object_unref(clock);
    return gst_element_set_state(pipeline, GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE;
}

// Calls `take` with each sample of the sink, on its streaming thread.
void takeSamples(GstElement* sink, std::function<void(GstSample*, GstElement* sink)> take) {
    using Take = std::function<void(GstSample*, GstElement*)>;
    GstAppSinkCallbacks callbacks{};
    callbacks.new_sample = [](GstAppSink* from, gpointer kept) {
        if (const GstPtr<GstSample> sample(gst_app_sink_pull_sample(from)); sample)
            (*static_cast<Take*>(kept))(sample.get(), GST_ELEMENT(from));
        return GST_FLOW_OK;
    };
    gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, makeUserData(std::move(take)), deleteUserData<Take>);
}

// A source and what follows it, whose first element is named "first" and whose last is an appsink. The sink hands each
// sample on at once; it only keeps time, for files.
std::optional<Error> build(GstPtr<GstElement>& pipeline, const Expected<GstElement*>& source,
                           const std::string& following, bool inRealTime) {
    if (!source) return source.error();
    auto made = makePipeline(following + " ! appsink name=sink max-buffers=2 enable-last-sample=false qos=false " +
                             (inRealTime ? "sync=true drop=false" : "sync=false drop=true"));
    if (!made) {
        gst_object_unref(gst_object_ref_sink(source.value()));
        return Error{"an element of the pipeline could not be made"};
    }
    pipeline = std::move(made.value());
    gst_bin_add(GST_BIN(pipeline.get()), source.value());
    const auto first = elementNamed("first", pipeline.get());
    if (gst_element_link(source.value(), first.get()) == FALSE)
        return Error{std::string("could not link ") + GST_ELEMENT_NAME(source.value()) + " to " +
                     GST_ELEMENT_NAME(first.get())};
    return std::nullopt;
}

void close(GstPtr<GstElement>& pipeline) {
    closePipeline(pipeline.get());
    pipeline.reset();
}

}  // namespace

// ---- configuration

GstCaptureSession::GstCaptureSession(CaptureOptions options, std::shared_ptr<const void> system)
    : CaptureSessionBase(std::move(system)), options_(std::move(options)) {}

GstCaptureSession::~GstCaptureSession() {
    const std::lock_guard lifecycle(lifecycle_);
    stop();
}

void GstCaptureSession::beginConfiguration() {
    const std::lock_guard lock(mutex_);
    ++configuring_;
}

void GstCaptureSession::commitConfiguration() {
    {
        const std::lock_guard lock(mutex_);
        if (configuring_ > 0) --configuring_;
    }
    partsChanged();
}

void GstCaptureSession::partsChanged() {
    if (mutex_.get(configuring_) > 0 || !isRunning()) return;
    // A camera that is being opened is not wanted any more.
    auto interruption = hasCamera() ? nullptr : interruptOpening();
    std::vector<std::string> messages;
    {
        const std::lock_guard lifecycle(lifecycle_);
        interruption.reset();
        if (isRunning() && runningPlan_ != plan()) messages = start();
    }
    for (const std::string& message : messages) log(message);
}

GstCaptureSession::Plan GstCaptureSession::plan() const {
    const auto parts = this->parts();
    Plan plan;
    plan.camera = std::static_pointer_cast<GstCaptureDevice>(parts->camera);
    if (parts->audio) plan.microphone = std::static_pointer_cast<GstCaptureDevice>(parts->microphone);
    if (parts->video) plan.pixelFormat = parts->video->pixelFormat();
    const auto format = plan.camera ? plan.camera->activeFormat() : std::nullopt;
    if (!format) return plan;
    const auto& [subtype, width, height] = format->formatDescription;
    if (const rules::CameraMode* const mode =
            rules::chooseMode(plan.camera->description().modes, width, height, plan.pixelFormat))
        plan.mode = *mode;
    return plan;
}

bool GstCaptureSession::canSetSessionPreset(const std::string& preset) const {
    const auto camera = parts()->camera;
    return camera && rules::formatForPreset(camera->formats(), preset).has_value();
}

void GstCaptureSession::setSessionPreset(const std::string& preset) {
    const auto camera = parts()->camera;
    const auto format = camera ? rules::formatForPreset(camera->formats(), preset) : std::nullopt;
    if (!format) return log("Capture: the preset " + preset + " cannot be set");
    camera->setActiveFormat(*format);
    partsChanged();
}

// ---- running

void GstCaptureSession::startRunning() {
    std::vector<std::string> messages;
    {
        const std::lock_guard lifecycle(lifecycle_);
        if (!isRunning()) messages = start();
    }
    for (const std::string& message : messages) log(message);
}

void GstCaptureSession::stopRunning() {
    const auto interruption = interruptOpening();
    const std::lock_guard lifecycle(lifecycle_);
    stop();
}

std::shared_ptr<void> GstCaptureSession::interruptOpening() {
    const auto count = [this](int more) {
        const std::lock_guard lock(openingMutex_);
        interruptions_ += more;
    };
    count(1);
    opened_.notify_all();
    return {nullptr, [count](void*) { count(-1); }};
}

// With lifecycle_ held. Takes down what runs, or what a run that ended by itself has left, and opens what the
// configuration now says. Returns what is to be logged.
std::vector<std::string> GstCaptureSession::start() {
    closePipelines();
    const Plan plan = this->plan();
    std::vector<std::string> messages;
    std::shared_ptr<Run> run;
    {
        const std::lock_guard lock(openingMutex_);
        firstFrame_ = false;
        failure_.reset();
        run.reset(new Run{*this, ++*run_});
        state_ = plan.camera ? State::Opening : State::Running;
    }
    runningPlan_ = plan;
    if (!plan.camera) return messages;

    std::optional<std::string> reason;
    if (waitForClosing(plan.camera->uniqueId())) {
        if (const auto error = openCamera(plan, run)) reason = error->localizedDescription;
        if (!reason && plan.microphone) {
            if (const auto error = openMicrophone(plan, run))
                messages.push_back("Capture: no sound: " + error->localizedDescription);
        }
    }
    bool runs = false;
    {
        std::unique_lock lock(openingMutex_);
        if (!reason) {
            opened_.wait_for(lock, options_.openingTimeout,
                             [this] { return firstFrame_ || failure_ || interruptions_ > 0; });
            reason = failure_;
            if (!reason && !firstFrame_ && interruptions_ == 0)
                reason = "\"" + plan.camera->localizedName() + "\" delivers no frames";
        }
        runs = !reason && firstFrame_;
        state_ = runs ? State::Running : State::Stopped;
    }
    if (runs) {
        watch(run->number, rules::Wait(now(), options_.stallTimeout / kLooksInStall));
        return messages;
    }
    abandon();
    if (reason) messages.push_back("Capture: could not start: " + *reason);
    return messages;
}

// With lifecycle_ held.
void GstCaptureSession::stop() {
    {
        const std::lock_guard lock(openingMutex_);
        ++*run_;
        state_ = State::Stopped;
    }
    closePipelines();
}

// With lifecycle_ held.
void GstCaptureSession::closePipelines() {
    close(cameraPipeline_);
    close(soundPipeline_);
    runningPlan_.reset();
}

// With lifecycle_ held. A camera that does not answer can take half a minute to be closed; no one but the next start of
// the same camera waits for that, and what it still sends counts no more.
void GstCaptureSession::abandon() {
    const auto self = weak_from_this().lock();
    if (!self) return stop();
    const std::string camera = runningPlan_->camera->uniqueId();
    {
        const std::lock_guard lock(openingMutex_);
        ++*run_;
        closing_.insert(camera);
    }
    runningPlan_.reset();
    closer_.async([self, camera, video = std::shared_ptr<GstElement>(std::move(cameraPipeline_)),
                   sound = std::shared_ptr<GstElement>(std::move(soundPipeline_))]() mutable {
        for (auto* const pipeline : {&video, &sound}) {
            closePipeline(pipeline->get());
            pipeline->reset();
        }
        {
            const std::lock_guard lock(self->openingMutex_);
            self->closing_.erase(self->closing_.find(camera));
        }
        self->opened_.notify_all();
    });
}

// With lifecycle_ held. A camera that is still open, because its opening was given up, would refuse the next.
bool GstCaptureSession::waitForClosing(const std::string& camera) {
    std::unique_lock lock(openingMutex_);
    opened_.wait_for(lock, options_.openingTimeout, [&] { return !closing_.contains(camera) || interruptions_ > 0; });
    return interruptions_ == 0;
}

std::optional<Error> GstCaptureSession::openCamera(const Plan& plan, const std::shared_ptr<Run>& run) {
    const DeviceDescription& device = plan.camera->description();
    if (plan.mode.width == 0) return Error{"\"" + device.name + "\" has no format that can be delivered"};

    const bool native = !plan.mode.jpeg && !device.playsFile && plan.mode.format == gstFormatName(plan.pixelFormat);
    const std::string converter = device.playsFile ? "videoconvert name=first" : "videoconvert";
    // Right behind the source, so that this very mode is opened.
    std::string following = device.playsFile ? "" : "capsfilter name=first caps=\"" + capsOf(plan.mode) + "\"";
    if (plan.mode.jpeg) following += " ! jpegdec";
    if (!native) {
        following += (device.playsFile ? "" : " ! ") + converter +
                     " ! capsfilter caps=video/x-raw,format=" + gstFormatName(plan.pixelFormat);
    }
    if (auto error = build(cameraPipeline_, device.makeSource(), following, device.playsFile)) return error;
    run->memory = !native                  ? FrameMemory::Converter
                  : device.temporaryMemory ? FrameMemory::Temporary
                                           : FrameMemory::Camera;
    if (plan.mode.rate.numerator > 0) run->frameDuration = nanoseconds(std::llround(1e9 / plan.mode.rate.value()));
    if (const auto video = std::static_pointer_cast<GstVideoDataOutput>(parts()->video))
        video->setFrameRate(plan.mode.rate.numerator > 0 ? static_cast<int>(std::lround(plan.mode.rate.value())) : 30);

    GstElement* const pipeline = cameraPipeline_.get();
    takeSamples(elementNamed("sink", pipeline).get(),
                [run](GstSample* sample, GstElement* sink) { run->session.frameArrived(*run, sample, sink); });
    takeMessages(pipeline, [run](GstMessage* message) {
        if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) run->session.fail(run->number, describe(message));
        if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) run->session.fail(run->number, "the video has ended");
    });
    if (!play(pipeline)) {
        const std::lock_guard lock(openingMutex_);
        return Error{failure_.value_or("\"" + device.name + "\" could not be opened")};
    }
    return std::nullopt;
}

std::optional<Error> GstCaptureSession::openMicrophone(const Plan& plan, const std::shared_ptr<Run>& run) {
    const std::string following =
        "audioconvert name=first ! audioresample ! capsfilter "
        "caps=audio/x-raw,layout=interleaved,channels=1,rate=" +
        std::to_string(kSampleRate) + ",format=" + (G_BYTE_ORDER == G_LITTLE_ENDIAN ? "S16LE" : "S16BE");
    if (auto error = build(soundPipeline_, plan.microphone->description().makeSource(), following, false)) return error;
    GstElement* const pipeline = soundPipeline_.get();
    takeSamples(elementNamed("sink", pipeline).get(),
                [run](GstSample* sample, GstElement* sink) { run->session.soundArrived(*run, sample, sink); });
    takeMessages(pipeline, [run](GstMessage* message) {
        // Possibly said while the microphone is opened, under the lock of that.
        if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR)
            run->session.control_.async([text = describe(message)] { log("Capture: no sound: " + text); });
    });
    if (!play(pipeline)) return Error{"\"" + plan.microphone->localizedName() + "\" could not be opened"};
    return std::nullopt;
}

// Any thread, the pipelines' own too, which can neither take them down nor wait for who does: the next start or stop
// does it, or the control queue, which also says why.
void GstCaptureSession::fail(std::uint64_t run, const std::string& reason) {
    {
        const std::lock_guard lock(openingMutex_);
        if (run != *run_ || failure_ || state_ == State::Stopped) return;
        failure_ = reason;
        opened_.notify_all();
        if (state_ == State::Opening) return;  // starting reports it
        state_ = State::Stopped;
    }
    control_.async([self = weak_from_this().lock(), reason] {
        log("Capture: stopped: " + reason);
        if (!self) return;
        const std::lock_guard lifecycle(self->lifecycle_);
        if (!self->isRunning()) self->closePipelines();
    });
}

void GstCaptureSession::watch(std::uint64_t run, rules::Wait silence) {
    control_.asyncAfter(options_.stallTimeout / kLooksInStall, [weak = weak_from_this(), run, silence]() mutable {
        const auto self = weak.lock();
        if (!self || !self->isRunning() || *self->run_ != run) return;
        if (silence.look(now(), nanoseconds(self->lastFrame_)) > self->options_.stallTimeout) {
            self->fail(run, "the camera delivers no more frames");
        } else {
            self->watch(run, silence);
        }
    });
}

// ---- samples

std::optional<nanoseconds> GstCaptureSession::timeOf(GstSample* sample, GstElement* sink) {
    GstBuffer* const buffer = gst_sample_get_buffer(sample);
    const GstSegment* const segment = gst_sample_get_segment(sample);
    if (!buffer || !segment || !GST_BUFFER_PTS_IS_VALID(buffer)) return std::nullopt;
    const guint64 time = gst_segment_to_running_time(segment, GST_FORMAT_TIME, GST_BUFFER_PTS(buffer));
    if (!GST_CLOCK_TIME_IS_VALID(time)) return std::nullopt;
    return nanoseconds(static_cast<std::int64_t>(time + gst_element_get_base_time(sink)));
}

std::shared_ptr<PixelBuffer> GstCaptureSession::borrow(FrameMemory memory, GstBuffer* buffer, const GstVideoInfo& info,
                                                       const FrameCrop& crop) {
    auto pixels = wrapFrame(buffer, info, crop);
    if (!pixels || memory == FrameMemory::Converter) return pixels;
    if (memory == FrameMemory::Temporary || *lentFrames_ >= kMostLentFrames) {
        return SelvioFacialCaptureImageUtilities::copyPixelBuffer(pixels, *copies_);
    }
    ++*lentFrames_;
    PixelBuffer& own = *pixels;
    return PixelBuffer::wrap(own.layout(), {own.data(0), own.planeCount() == 2 ? own.data(1) : nullptr},
                             [lent = lentFrames_, pixels = std::move(pixels)]() mutable {
                                 pixels.reset();
                                 --*lent;
                             });
}

void GstCaptureSession::frameArrived(const Run& run, GstSample* sample, GstElement* sink) {
    if (run.number != *run_) return;
    const nanoseconds arrival = now();
    lastFrame_ = arrival.count();
    GstVideoInfo info;
    GstBuffer* const buffer = gst_sample_get_buffer(sample);
    if (!buffer || !gst_sample_get_caps(sample)) return;
    if (gst_video_info_from_caps(&info, gst_sample_get_caps(sample)) == FALSE) return;
    const int width = GST_VIDEO_INFO_WIDTH(&info);
    const int height = GST_VIDEO_INFO_HEIGHT(&info);

    SampleTiming timing{timeOf(sample, sink).value_or(arrival), run.frameDuration};
    if (GST_VIDEO_INFO_FPS_N(&info) > 0)
        timing.duration = nanoseconds(1'000'000'000LL * GST_VIDEO_INFO_FPS_D(&info) / GST_VIDEO_INFO_FPS_N(&info));
    if (*timing.presentationTime > arrival || *timing.presentationTime < arrival - std::chrono::hours(1))
        timing.presentationTime = arrival;

    {
        const std::lock_guard lock(openingMutex_);
        if (run.number != *run_) return;
        firstFrame_ = true;
    }
    opened_.notify_all();
    const auto parts = this->parts();
    if (const auto& video = parts->video; video && video->isDelivering()) {
        if (auto pixels = borrow(run.memory, buffer, info,
                                 rules::cropFor(width, height, video->connection()->videoOrientation())))
            video->deliver(SampleBuffer::makeVideo(std::move(pixels), timing));
    }
    if (auto* const metadata = static_cast<GstMetadataOutput*>(parts->metadata.get());
        metadata && metadata->wantsFrame()) {
        metadata->search(
            borrow(run.memory, buffer, info, rules::cropFor(width, height, metadata->connection()->videoOrientation())),
            [present = run_, number = run.number] { return *present == number; });
    }
}

void GstCaptureSession::soundArrived(Run& run, GstSample* sample, GstElement* sink) {
    if (run.number != *run_) return;
    const auto output = parts()->audio;
    GstBuffer* const buffer = gst_sample_get_buffer(sample);
    if (!output || !buffer) return;
    AudioData audio{.sampleRate = kSampleRate,
                    .channels = 1,
                    .samples = std::vector<std::int16_t>(gst_buffer_get_size(buffer) / sizeof(std::int16_t))};
    gst_buffer_extract(buffer, 0, audio.samples.data(), audio.samples.size() * sizeof(std::int16_t));
    const auto frames = static_cast<std::int64_t>(audio.samples.size());
    const nanoseconds length(frames * 1'000'000'000 / kSampleRate);
    const nanoseconds time = run.audioClock.place(timeOf(sample, sink).value_or(now() - length), frames, kSampleRate);
    output->deliver(SampleBuffer::makeAudio(std::move(audio), {time, length}));
}

}  // namespace selvio
