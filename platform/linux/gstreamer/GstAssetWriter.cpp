#include "GstAssetWriter.h"

#include "Mp4Index.h"

#include <SelvioFacialCapture/base/Log.h>

#include <fcntl.h>
#include <gst/video/video.h>
#include <unistd.h>
#include <algorithm>
#include <cmath>
#include <system_error>

namespace selvio {
namespace {

using std::chrono::nanoseconds;
namespace fs = std::filesystem;

constexpr std::int64_t kDefaultBitRate = 7'250'000;
constexpr int kDefaultFramesPerSecond = 30;
constexpr auto kKeyFrameDistance = std::chrono::seconds(2);  // at most, so that a player can seek
constexpr guint64 kVideoDepth = 12;  // frames that may wait for the encoder in real time: less than half a second
constexpr auto kAudioDepth = std::chrono::seconds(2);  // sound that may wait for the encoder in real time
constexpr auto kAudioLag =
    std::chrono::seconds(1);  // how far sound may stay behind the picture before silence stands in for it
constexpr double kShapeTolerance = 0.02;
constexpr const char* kAacPackage = "gstreamer1.0-libav (avenc_aac) or gstreamer1.0-plugins-bad (voaacenc)";
constexpr const char* kMuxerPackage = "gstreamer1.0-plugins-good (mp4mux, aacparse)";

fs::path beside(const fs::path& path, const char* middle) {
    fs::path other = path;
    other.replace_filename(path.stem().string() + middle + path.extension().string());
    return other;
}

void removeQuietly(const fs::path& path) {
    std::error_code ignored;
    fs::remove(path, ignored);
}

void set(GstElement* element, const std::string& property, const std::string& value) {
    // Encoders differ between versions; a setting that one does not know is not worth a failure.
    if (g_object_class_find_property(G_OBJECT_GET_CLASS(element), property.c_str()) == nullptr) return;
    gst_util_set_object_arg(G_OBJECT(element), property.c_str(), value.c_str());
}

GstElement* makeSource() {
    GstElement* const source = makeElement("appsrc");
    if (source != nullptr) {
        g_object_set(source, "format", GST_FORMAT_TIME, "max-bytes", guint64{0}, "block", FALSE, "emit-signals", FALSE,
                     nullptr);
    }
    return source;
}

// A thread boundary. `buffers` of 0 lets it grow: encoded data is small, and the muxer waits for the slower track.
GstElement* makeQueue(int buffers) {
    GstElement* const queue = makeElement("queue");
    if (queue != nullptr) {
        g_object_set(queue, "max-size-buffers", static_cast<guint>(buffers), "max-size-bytes", 0U, "max-size-time",
                     guint64{0}, "silent", TRUE, nullptr);
    }
    return queue;
}

// Whether the element's device or library opens.
bool opens(const std::string& element) {
    GstElement* const candidate = makeElement(element);
    if (candidate == nullptr) return false;
    gst_object_ref_sink(candidate);
    const bool ready = gst_element_set_state(candidate, GST_STATE_READY) != GST_STATE_CHANGE_FAILURE;
    gst_element_set_state(candidate, GST_STATE_NULL);
    gst_object_unref(candidate);
    return ready;
}

// What a frame says of itself comes first: the settings were made before the camera was opened.
int frameRateOf(const SampleBuffer& sample, const VideoSettings& settings) {
    const auto duration = sample.timing().duration.value_or(nanoseconds(0));
    const auto expected = settings.compressionProperties.find(kVideoExpectedSourceFrameRateKey);
    std::int64_t rate = kDefaultFramesPerSecond;
    if (duration > nanoseconds(0)) {
        rate = std::llround(1e9 / static_cast<double>(duration.count()));
    } else if (expected != settings.compressionProperties.end()) {
        rate = expected->second;
    }
    return static_cast<int>(std::clamp<std::int64_t>(rate, 1, 240));
}

// An error of the pipeline: GStreamer's text, with the system's reason where that stands in the details alone.
std::string reasonOf(GstMessage* message) {
    GError* failure = nullptr;
    gchar* details = nullptr;
    gst_message_parse_error(message, &failure, &details);
    const GstPtr<GError> error(failure);
    const std::string text = details != nullptr ? details : "";
    g_free(details);
    if (error && g_error_matches(error.get(), GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_NO_SPACE_LEFT))
        return "no space is left on the disk";
    const bool isWriteError = error && g_error_matches(error.get(), GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_WRITE);
    const auto lastLine = text.rfind('\n');
    return describe(message) + (isWriteError && lastLine != std::string::npos ? " " + text.substr(lastLine + 1) : "");
}

bool sameShape(const PixelBufferLayout& frame, const VideoSettings& settings) {
    const double frameShape = static_cast<double>(frame.width) / frame.height;
    const double fileShape = static_cast<double>(settings.width) / settings.height;
    return std::abs(frameShape / fileShape - 1.0) <= kShapeTolerance;
}

int rankOf(const std::string& element, const RecordingOptions& options) {
    return std::ranges::count(options.disabledElements, element) > 0 ? -1 : elementRank(element);
}

// The first encoder that opens.
Expected<const VideoEncoder*> chooseVideoEncoder(const std::string& codecName, const RecordingOptions& options) {
    if (!startGStreamer()) return Error{"GStreamer could not start"};
    const VideoCodec* const codec = findVideoCodec(codecName);
    if (codec == nullptr) return Error{"video codec \"" + codecName + "\" is not recorded"};
    const auto rank = [&](const std::string& element) { return rankOf(element, options); };
    if (rank("mp4mux") < 0) return Error{std::string("no MP4 writer is installed: install ") + kMuxerPackage};
    if (rank(codec->parser) < 0)
        return Error{"no " + codec->parser + " is installed: install gstreamer1.0-plugins-bad"};
    for (const VideoEncoder* const encoder : installedEncoders(*codec, rank)) {
        if (opens(encoder->element)) return encoder;
    }
    return Error{"no " + codec->name + " encoder is installed: install " + codec->packages};
}

Expected<const AudioEncoder*> chooseAudioEncoder(const RecordingOptions& options) {
    if (!startGStreamer()) return Error{"GStreamer could not start"};
    if (rankOf("mp4mux", options) < 0 || rankOf("aacparse", options) < 0)
        return Error{std::string("no MP4 writer is installed: install ") + kMuxerPackage};
    for (const AudioEncoder& encoder : audioEncoders()) {
        if (rankOf(encoder.element, options) >= 0) return &encoder;
    }
    return Error{std::string("no AAC encoder is installed: install ") + kAacPackage};
}

std::optional<Error> sizeProblem(const VideoSettings& settings) {
    const auto isPossible = [](int side) { return side >= 16 && side <= 8192 && side % 2 == 0; };
    if (isPossible(settings.width) && isPossible(settings.height)) return std::nullopt;
    return Error{"a recording cannot be " + std::to_string(settings.width) + "x" + std::to_string(settings.height) +
                 " pixels in size"};
}

class GstAssetWriterFactory final : public AssetWriterFactory {
public:
    explicit GstAssetWriterFactory(RecordingOptions options) : options_(std::move(options)) {}

    [[nodiscard]] Expected<std::shared_ptr<AssetWriter>> makeAssetWriter(const fs::path& path,
                                                                         const std::string& fileType) override {
        if (fileType != kFileTypeMPEG4) return Error{"files of type \"" + fileType + "\" cannot be written"};
        if (!path.has_filename()) return Error{"\"" + path.string() + "\" does not name a file"};
        if (!startGStreamer()) return Error{"GStreamer could not start"};
        return std::shared_ptr<AssetWriter>(std::make_shared<GstAssetWriter>(path, options_));
    }
    [[nodiscard]] std::shared_ptr<AssetWriterInput> makeVideoInput(const VideoSettings& settings) override {
        return std::make_shared<GstAssetWriterInput>(settings, chooseVideoEncoder(settings.codec, options_));
    }
    [[nodiscard]] std::shared_ptr<AssetWriterInput> makeAudioInput(const AudioSettings& settings) override {
        return std::make_shared<GstAssetWriterInput>(settings, chooseAudioEncoder(options_));
    }

private:
    const RecordingOptions options_;
};

}  // namespace

// ---- one track

bool GstAssetWriterInput::isReadyForMoreMediaData() const {
    const auto writer = writer_.lock();
    return writer && writer->isReady(mediaType_);
}

bool GstAssetWriterInput::appendSampleBuffer(const std::shared_ptr<SampleBuffer>& sampleBuffer) {
    const auto writer = writer_.lock();
    if (!writer || !sampleBuffer) return false;
    if (realTime_ && !writer->isReady(mediaType_)) return false;
    return writer->append(mediaType_, sampleBuffer);
}

void GstAssetWriterInput::markAsFinished() {
    if (const auto writer = writer_.lock()) writer->endTrack(mediaType_);
}

// ---- set-up

GstAssetWriter::GstAssetWriter(fs::path path, RecordingOptions options)
    : path_(std::move(path)), partPath_(beside(path_, ".part")), options_(std::move(options)) {}

GstAssetWriter::~GstAssetWriter() {
    moveTo(AssetWriterStatus::Cancelled);
    tearDown();
}

bool GstAssetWriter::canAddInput(const AssetWriterInput& input) const {
    const auto* const own = dynamic_cast<const GstAssetWriterInput*>(&input);
    if (own == nullptr || status_ != AssetWriterStatus::Unknown || track(own->mediaType_).input) return false;
    std::optional<Error> problem;
    if (own->mediaType_ == MediaType::Video) {
        problem = own->videoEncoder_ ? sizeProblem(own->videoSettings_) : own->videoEncoder_.error();
    } else if (!own->audioEncoder_) {
        problem = own->audioEncoder_.error();
    }
    if (problem) log("Recording: " + problem->localizedDescription);
    return !problem;
}

void GstAssetWriter::addInput(std::shared_ptr<AssetWriterInput> input) {
    const auto own = std::dynamic_pointer_cast<GstAssetWriterInput>(input);
    if (!own || !canAddInput(*own)) return;
    own->writer_ = weak_from_this();
    (own->mediaType_ == MediaType::Video ? video_ : audio_).input = own;
}

bool GstAssetWriter::startWriting() {
    if (status_ != AssetWriterStatus::Unknown) return false;
    worker_ = std::make_unique<SerialQueue>("recording");
    status_ = AssetWriterStatus::Writing;
    if (const auto error = build()) {
        fail(error->localizedDescription);
        return false;
    }
    return status_ == AssetWriterStatus::Writing;
}

std::optional<Error> GstAssetWriter::build() {
    if (!video_.input && !audio_.input) return Error{"there is no track to record"};
    std::error_code ignored;
    if (fs::exists(path_, ignored)) return Error{"\"" + path_.string() + "\" exists already"};
    // Found out here rather than by the pipeline, whose message does not name the reason.
    const int part = ::open(partPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (part < 0)
        return Error{"could not create \"" + path_.string() + "\": " + std::generic_category().message(errno)};
    ::close(part);
    ownsPart_ = true;

    pipeline_.reset(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new(nullptr))));
    GstElement* const muxer = makeElement("mp4mux");
    GstElement* const sink = makeElement("filesink");
    if (sink != nullptr) g_object_set(sink, "location", partPath_.c_str(), "async", FALSE, "sync", FALSE, nullptr);
    if (auto error = addChain(pipeline_.get(), {muxer, sink})) return error;
    if (video_.input) {
        if (auto error = buildVideo(muxer)) return error;
    }
    if (audio_.input) {
        if (auto error = buildAudio(muxer)) return error;
    }
    const GstPtr<GstBus> bus(gst_element_get_bus(pipeline_.get()));
    gst_bus_set_sync_handler(bus.get(), &GstAssetWriter::onMessage, this, nullptr);
    if (gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE)
        return Error{"the pipeline could not start"};
    return std::nullopt;
}

std::optional<Error> GstAssetWriter::buildVideo(GstElement* muxer) {
    const VideoSettings& settings = video_.input->videoSettings_;
    const VideoEncoder& encoder = *video_.input->videoEncoder_.value();
    const VideoCodec& codec = *findVideoCodec(settings.codec);
    GstElement* const encoding = makeElement(encoder.element);
    if (encoding != nullptr) {
        const auto& properties = settings.compressionProperties;
        const auto asked = properties.find(kVideoAverageBitRateKey);
        const std::int64_t bitRate =
            asked == properties.end() ? kDefaultBitRate : std::clamp<std::int64_t>(asked->second, 50'000, 100'000'000);
        for (const auto& [property, value] : encoder.settings) set(encoding, property, value);
        const auto [property, value] = bitRateSetting(encoder, bitRate);
        set(encoding, property, value);
    }
    // One element converts and scales in one go; older versions have two.
    const bool oneStep = rankOf("videoconvertscale", options_) >= 0;
    GstElement* const scaler = makeElement(oneStep ? "videoconvertscale" : "videoscale");
    const std::string size = "width=" + std::to_string(settings.width) + ",height=" + std::to_string(settings.height);
    std::vector<GstElement*> chain{makeSource()};
    if (!oneStep) chain.push_back(makeElement("videoconvert"));
    // 4:2:0 only: from BGRA some encoders would choose 4:4:4, which hardly any player shows.
    chain.insert(chain.end(),
                 {scaler, makeCapsFilter("video/x-raw,format={NV12,I420}," + size + ",pixel-aspect-ratio=1/1"),
                  makeQueue(2), encoding, makeElement(codec.parser), makeCapsFilter(codec.muxedCaps), makeQueue(0)});
    if (scaler != nullptr) scaler_.reset(GST_ELEMENT(gst_object_ref(scaler)));
    if (chain.front() != nullptr) video_.source.reset(GST_ELEMENT(gst_object_ref(chain.front())));
    if (auto error = addChain(pipeline_.get(), chain)) return error;
    if (gst_element_link_pads(chain.back(), "src", muxer, "video_%u") == FALSE)
        return Error{"could not link the video track"};
    return std::nullopt;
}

std::optional<Error> GstAssetWriter::buildAudio(GstElement* muxer) {
    const AudioSettings& settings = audio_.input->audioSettings_;
    const AudioEncoder& encoder = *audio_.input->audioEncoder_.value();
    GstElement* const encoding = makeElement(encoder.element);
    if (encoding != nullptr) set(encoding, "bitrate", std::to_string(settings.bitRate));
    audioDelay_ = nanoseconds(encoder.delay * 1'000'000'000 / std::max(settings.sampleRate, 1));
    const std::string format =
        "audio/x-raw,rate=" + std::to_string(settings.sampleRate) + ",channels=" + std::to_string(settings.channels);
    std::vector<GstElement*> chain{makeSource(),
                                   makeElement("audioconvert"),
                                   makeElement("audioresample"),
                                   makeCapsFilter(format),
                                   encoding,
                                   makeElement("aacparse"),
                                   makeQueue(0)};
    if (chain.front() != nullptr) audio_.source.reset(GST_ELEMENT(gst_object_ref(chain.front())));
    if (auto error = addChain(pipeline_.get(), chain)) return error;
    if (gst_element_link_pads(chain.back(), "src", muxer, "audio_%u") == FALSE)
        return Error{"could not link the audio track"};
    return std::nullopt;
}

// ---- samples

void GstAssetWriter::startSessionAtSourceTime(nanoseconds time) {
    if (!sessionStart_) sessionStart_ = time;
}

bool GstAssetWriter::isReady(MediaType mediaType) const {
    const Track& asked = track(mediaType);
    if (status_ != AssetWriterStatus::Writing || !asked.source || asked.ended) return false;
    GstAppSrc* const source = GST_APP_SRC(asked.source.get());
    if (mediaType == MediaType::Video) return gst_app_src_get_current_level_buffers(source) < kVideoDepth;
    return gst_app_src_get_current_level_time(source) < static_cast<guint64>(nanoseconds(kAudioDepth).count());
}

bool GstAssetWriter::append(MediaType mediaType, const std::shared_ptr<SampleBuffer>& sample) {
    const Track& to = track(mediaType);
    if (status_ != AssetWriterStatus::Writing || !to.source || to.ended || !sessionStart_) return false;
    if (!sample->dataIsReady() || !sample->timing().isValid()) return false;
    const nanoseconds time = *sample->timing().presentationTime - *sessionStart_;
    return mediaType == MediaType::Video ? appendVideo(sample, time) : appendAudio(sample, time);
}

bool GstAssetWriter::appendVideo(const std::shared_ptr<SampleBuffer>& sample, nanoseconds time) {
    if (time < nanoseconds(0)) return true;  // before the session: left out, as asked
    if (time <= lastVideoTime_) return false;
    GstBuffer* const buffer = wrapSample(sample);
    if (buffer == nullptr) return false;

    const PixelBufferLayout& layout = sample->imageBuffer()->layout();
    if (!videoLayout_ || videoLayout_->width != layout.width || videoLayout_->height != layout.height ||
        videoLayout_->format != layout.format) {
        if (framesPerSecond_ == 0) framesPerSecond_ = frameRateOf(*sample, video_.input->videoSettings_);
        videoLayout_ = layout;
        g_object_set(scaler_.get(), "add-borders", sameShape(layout, video_.input->videoSettings_) ? FALSE : TRUE,
                     nullptr);
        gst_app_src_set_caps(GST_APP_SRC(video_.source.get()), rawVideoCaps(layout, framesPerSecond_).get());
    }
    const nanoseconds duration = sample->timing().duration.value_or(nanoseconds(1'000'000'000 / framesPerSecond_));
    GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(time.count());
    GST_BUFFER_DURATION(buffer) = static_cast<GstClockTime>(duration.count());
    // The encoders count key frames in frames, so the time is kept here. The next frame would come too late.
    if (time + std::max(duration, time - lastVideoTime_) - keyFrameTime_ > kKeyFrameDistance) {
        keyFrameTime_ = time;
        gst_element_send_event(video_.source.get(),
                               gst_video_event_new_downstream_force_key_unit(
                                   GST_BUFFER_PTS(buffer), GST_CLOCK_TIME_NONE, GST_CLOCK_TIME_NONE, FALSE, 0));
    }
    if (gst_app_src_push_buffer(GST_APP_SRC(video_.source.get()), buffer) != GST_FLOW_OK) return false;
    lastVideoTime_ = time;
    videoEnd_ = time + duration;
    if (audio_.source && !audio_.ended) fillAudioUntil(videoEnd_ - kAudioLag);
    return true;
}

nanoseconds GstAssetWriter::audioEnd() const {
    if (audioRate_ == 0) return audioBase_;
    const std::int64_t seconds = audioFrames_ / audioRate_;
    return audioBase_ + nanoseconds(seconds * 1'000'000'000 + audioFrames_ % audioRate_ * 1'000'000'000 / audioRate_);
}

void GstAssetWriter::adoptAudioFormat(int sampleRate, int channels) {
    if (sampleRate == audioRate_ && channels == audioChannels_) return;
    audioBase_ = audioEnd();
    audioFrames_ = 0;
    audioRate_ = sampleRate;
    audioChannels_ = channels;
    const GstPtr<GstCaps> caps(gst_caps_new_simple(
        "audio/x-raw", "format", G_TYPE_STRING, G_BYTE_ORDER == G_LITTLE_ENDIAN ? "S16LE" : "S16BE", "layout",
        G_TYPE_STRING, "interleaved", "rate", G_TYPE_INT, sampleRate, "channels", G_TYPE_INT, channels, nullptr));
    if (channels > 2) gst_caps_set_simple(caps.get(), "channel-mask", GST_TYPE_BITMASK, guint64{0}, nullptr);
    gst_app_src_set_caps(GST_APP_SRC(audio_.source.get()), caps.get());
}

void GstAssetWriter::pushAudio(GstBuffer* buffer, std::int64_t frames) {
    const nanoseconds start = audioEnd();
    audioFrames_ += frames;
    GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(start.count());
    GST_BUFFER_DURATION(buffer) = static_cast<GstClockTime>((audioEnd() - start).count());
    gst_app_src_push_buffer(GST_APP_SRC(audio_.source.get()), buffer);
}

void GstAssetWriter::pushSilence(std::int64_t frames) {
    while (frames > 0) {
        const std::int64_t block = std::min<std::int64_t>(frames, audioRate_);
        const gsize bytes = static_cast<gsize>(block * audioChannels_) * sizeof(std::int16_t);
        GstBuffer* const buffer = gst_buffer_new_allocate(nullptr, bytes, nullptr);
        gst_buffer_memset(buffer, 0, 0, bytes);
        pushAudio(buffer, block);
        frames -= block;
    }
}

void GstAssetWriter::fillAudioUntil(nanoseconds time) {
    if (audioEnd() >= time) return;
    if (audioRate_ == 0)
        adoptAudioFormat(audio_.input->audioSettings_.sampleRate, audio_.input->audioSettings_.channels);
    pushSilence(audioFrameAt(time - audioBase_, audioRate_) - audioFrames_);
}

bool GstAssetWriter::appendAudio(const std::shared_ptr<SampleBuffer>& sample, nanoseconds time) {
    const AudioData* const data = sample->audio();
    if (data == nullptr || data->sampleRate < 1 || data->channels < 1 || data->channels > 8) return false;
    const auto frames = static_cast<std::int64_t>(data->samples.size()) / data->channels;
    if (frames == 0) return true;
    adoptAudioFormat(data->sampleRate, data->channels);
    // The encoder's delay is made up for by putting the sound in so much earlier.
    const AudioPlacement place = placeAudio(audioFrames_, time - audioDelay_ - audioBase_, frames, audioRate_);
    pushSilence(place.silence);
    if (place.skip >= frames) return true;
    const std::size_t frameBytes = static_cast<std::size_t>(data->channels) * sizeof(std::int16_t);
    const gsize bytes = static_cast<gsize>(frames) * frameBytes;
    const gsize skipped = static_cast<gsize>(place.skip) * frameBytes;
    const auto release = [](gpointer keeper) { delete static_cast<std::shared_ptr<SampleBuffer>*>(keeper); };
    GstBuffer* const buffer =
        gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, const_cast<std::int16_t*>(data->samples.data()), bytes,
                                    skipped, bytes - skipped, new std::shared_ptr<SampleBuffer>(sample), release);
    pushAudio(buffer, frames - place.skip);
    return true;
}

void GstAssetWriter::endTrack(MediaType mediaType) {
    Track& ending = mediaType == MediaType::Video ? video_ : audio_;
    if (!ending.source || ending.ended || status_ != AssetWriterStatus::Writing) return;
    if (mediaType == MediaType::Audio) fillAudioUntil(videoEnd_);
    ending.ended = true;
    // The muxer does not take the end of a track that never began; such a recording fails when it is finished.
    const bool began = mediaType == MediaType::Video ? videoLayout_.has_value() : audioRate_ != 0;
    if (began) gst_app_src_end_of_stream(GST_APP_SRC(ending.source.get()));
}

// ---- the end

bool GstAssetWriter::moveTo(AssetWriterStatus status) {
    AssetWriterStatus writing = AssetWriterStatus::Writing;
    if (!status_.compare_exchange_strong(writing, status)) return false;
    const std::lock_guard lock(mutex_);  // so that no one who is about to wait misses it
    changed_.notify_all();
    return true;
}

void GstAssetWriter::fail(const std::string& reason) {
    if (!moveTo(AssetWriterStatus::Failed)) return;
    log("Recording failed: " + reason);
    // Called on GStreamer's threads too, which cannot end themselves.
    worker_->async([weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->tearDown();
    });
}

GstBusSyncReply GstAssetWriter::onMessage(GstBus*, GstMessage* message, gpointer writer) {
    auto* const self = static_cast<GstAssetWriter*>(writer);
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) {
        const std::lock_guard lock(self->mutex_);
        self->ended_ = true;
        self->changed_.notify_all();
    } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
        self->fail(reasonOf(message));
    }
    gst_message_unref(message);
    return GST_BUS_DROP;
}

void GstAssetWriter::finishWriting(std::function<void()> completion) {
    if (status_ == AssetWriterStatus::Writing) {
        if (video_.input ? lastVideoTime_ < nanoseconds(0) : audioFrames_ == 0) fail("nothing was recorded");
        endTrack(MediaType::Video);
        endTrack(MediaType::Audio);
    }
    if (!worker_) worker_ = std::make_unique<SerialQueue>("recording");
    // Holds the writer: a new one may take its place while its file is being finished.
    worker_->async([self = shared_from_this(), completion = std::move(completion)] {
        if (self->status_ == AssetWriterStatus::Writing) self->waitForEnd();
        if (self->status_ == AssetWriterStatus::Writing) self->completeFile();
        if (self->status_ != AssetWriterStatus::Unknown) self->tearDown();
        if (completion) completion();
    });
}

void GstAssetWriter::waitForEnd() {
    std::unique_lock lock(mutex_);
    const bool inTime =
        changed_.wait_for(lock, kLongestFinishing, [this] { return ended_ || status_ != AssetWriterStatus::Writing; });
    lock.unlock();
    if (!inTime) fail("the encoder did not finish");
}

void GstAssetWriter::completeFile() {
    gst_element_set_state(pipeline_.get(), GST_STATE_NULL);  // closes the file
    if (const auto error = moveIndexToFront(partPath_)) {
        return fail("could not finish the recording \"" + path_.string() + "\": " + error->localizedDescription);
    }
    std::error_code error;
    fs::rename(partPath_, path_, error);
    if (error) {
        fail("could not move the recording to \"" + path_.string() + "\": " + error.message());
    } else if (!moveTo(AssetWriterStatus::Completed)) {
        removeQuietly(path_);  // cancelled at the last moment
    }
}

void GstAssetWriter::cancelWriting() {
    AssetWriterStatus unknown = AssetWriterStatus::Unknown;
    status_.compare_exchange_strong(unknown, AssetWriterStatus::Cancelled);
    moveTo(AssetWriterStatus::Cancelled);
    if (status_ == AssetWriterStatus::Completed) return;
    if (!worker_ || worker_->isCurrent()) return;
    worker_->async([self = shared_from_this()] { self->tearDown(); });
    worker_->drain();
}

void GstAssetWriter::tearDown() {
    {
        const std::lock_guard lock(mutex_);
        if (std::exchange(tornDown_, true)) return;
    }
    if (pipeline_) {
        gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
        const GstPtr<GstBus> bus(gst_element_get_bus(pipeline_.get()));
        gst_bus_set_sync_handler(bus.get(), nullptr, nullptr, nullptr);
    }
    if (ownsPart_) removeQuietly(partPath_);
}

// ---- public

std::shared_ptr<AssetWriterFactory> makeGstAssetWriterFactory(RecordingOptions options) {
    return std::make_shared<GstAssetWriterFactory>(std::move(options));
}

std::string recommendedVideoCodec(const RecordingOptions& options) {
    return options.preferHEVC && chooseVideoEncoder(kVideoCodecTypeHEVC, options) ? kVideoCodecTypeHEVC
                                                                                  : kVideoCodecTypeH264;
}

}  // namespace selvio
