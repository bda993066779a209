#include "GstAssetWriter.h"

#include <SelvioFacialCapture/base/Log.h>

#include <fcntl.h>
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

int frameRateOf(const std::shared_ptr<SampleBuffer>& sample) {
    const auto duration = sample->timing().duration.value_or(nanoseconds(0));
    if (duration <= nanoseconds(0)) return kDefaultFramesPerSecond;
    return static_cast<int>(std::clamp<long>(std::lround(1e9 / static_cast<double>(duration.count())), 1, 240));
}

bool sameShape(const PixelBufferLayout& frame, const VideoSettings& settings) {
    const double frameShape = static_cast<double>(frame.width) / frame.height;
    const double fileShape = static_cast<double>(settings.width) / settings.height;
    return std::abs(frameShape / fileShape - 1.0) <= kShapeTolerance;
}

// The writer itself only passes on; the recording may outlive it while the file is being finished.
class GstAssetWriter final : public AssetWriter {
public:
    GstAssetWriter(fs::path path, RecordingOptions options)
        : recording_(std::make_shared<GstRecording>(std::move(path), std::move(options))) {}
    ~GstAssetWriter() override {
        if (!finishing_) recording_->cancel();
    }

    [[nodiscard]] AssetWriterStatus status() const override { return recording_->status(); }
    [[nodiscard]] bool canAddInput(const AssetWriterInput& input) const override {
        const auto* const own = dynamic_cast<const GstAssetWriterInput*>(&input);
        return own != nullptr && recording_->canAdd(*own);
    }
    void addInput(std::shared_ptr<AssetWriterInput> input) override {
        const auto own = std::dynamic_pointer_cast<GstAssetWriterInput>(input);
        if (!own) return;
        recording_->add(*own);
        own->attach(recording_);
    }
    bool startWriting() override { return recording_->start(); }
    void startSessionAtSourceTime(nanoseconds time) override { recording_->startSession(time); }
    void finishWriting(std::function<void()> completion) override {
        finishing_ = true;
        recording_->finish(std::move(completion));
    }
    void cancelWriting() override { recording_->cancel(); }

private:
    const std::shared_ptr<GstRecording> recording_;
    bool finishing_ = false;
};

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
        return std::make_shared<GstAssetWriterInput>(settings);
    }
    [[nodiscard]] std::shared_ptr<AssetWriterInput> makeAudioInput(const AudioSettings& settings) override {
        return std::make_shared<GstAssetWriterInput>(settings);
    }

private:
    const RecordingOptions options_;
};

}  // namespace

// ---- one track

bool GstAssetWriterInput::isReadyForMoreMediaData() const {
    const auto recording = recording_.lock();
    return recording && recording->isReady(mediaType_);
}

bool GstAssetWriterInput::appendSampleBuffer(const std::shared_ptr<SampleBuffer>& sampleBuffer) {
    const auto recording = recording_.lock();
    if (!recording || !sampleBuffer) return false;
    if (realTime_ && !recording->isReady(mediaType_)) return false;
    return recording->append(mediaType_, sampleBuffer);
}

void GstAssetWriterInput::markAsFinished() {
    if (const auto recording = recording_.lock()) recording->endTrack(mediaType_);
}

// ---- set-up

GstRecording::GstRecording(fs::path path, RecordingOptions options)
    : path_(std::move(path)),
      partPath_(beside(path_, ".part")),
      dataPath_(beside(path_, ".data")),
      options_(std::move(options)) {}

GstRecording::~GstRecording() {
    moveTo(AssetWriterStatus::Cancelled);
    tearDown();
}

bool GstRecording::isAvailable(const std::string& element) const {
    const auto& disabled = options_.disabledElements;
    return std::find(disabled.begin(), disabled.end(), element) == disabled.end() && elementRank(element) >= 0;
}

Expected<const VideoEncoder*> GstRecording::chooseVideoEncoder(const VideoSettings& settings) const {
    const VideoCodec* const codec = findVideoCodec(settings.codec);
    if (codec == nullptr) return Error{"video codec \"" + settings.codec + "\" is not recorded"};
    const bool isSizePossible = settings.width >= 16 && settings.height >= 16 && settings.width <= 8192 &&
                                settings.height <= 8192 && settings.width % 2 == 0 && settings.height % 2 == 0;
    if (!isSizePossible) {
        return Error{"a recording cannot be " + std::to_string(settings.width) + "x" + std::to_string(settings.height) +
                     " pixels in size"};
    }
    if (!isAvailable("mp4mux")) return Error{std::string("no MP4 writer is installed: install ") + kMuxerPackage};
    if (isAvailable(codec->parser)) {
        for (const VideoEncoder* encoder : installedEncoders(
                 *codec, [&](const std::string& name) { return isAvailable(name) ? elementRank(name) : -1; })) {
            if (opens(encoder->element)) return encoder;
        }
    } else {
        return Error{"no " + codec->parser + " is installed: install gstreamer1.0-plugins-bad"};
    }
    return Error{"no " + codec->name + " encoder is installed: install " + codec->packages};
}

Expected<const AudioEncoder*> GstRecording::chooseAudioEncoder() const {
    if (!isAvailable("mp4mux") || !isAvailable("aacparse"))
        return Error{std::string("no MP4 writer is installed: install ") + kMuxerPackage};
    for (const AudioEncoder& encoder : audioEncoders()) {
        if (isAvailable(encoder.element)) return &encoder;
    }
    return Error{std::string("no AAC encoder is installed: install ") + kAacPackage};
}

bool GstRecording::canAdd(const GstAssetWriterInput& input) const {
    if (status_ != AssetWriterStatus::Unknown) return false;
    const bool isVideo = input.mediaType() == MediaType::Video;
    if ((isVideo ? video_ : audio_).added) return false;
    std::string problem;
    if (isVideo) {
        if (const auto encoder = chooseVideoEncoder(input.videoSettings()); !encoder)
            problem = encoder.error().localizedDescription;
    } else {
        if (const auto encoder = chooseAudioEncoder(); !encoder) problem = encoder.error().localizedDescription;
    }
    if (problem.empty()) return true;
    log("Recording: " + problem);
    return false;
}

void GstRecording::add(const GstAssetWriterInput& input) {
    if (input.mediaType() == MediaType::Video) {
        video_.added = true;
        videoSettings_ = input.videoSettings();
    } else {
        audio_.added = true;
        audioSettings_ = input.audioSettings();
    }
}

bool GstRecording::start() {
    if (status_ != AssetWriterStatus::Unknown) return false;
    worker_ = std::make_unique<SerialQueue>("recording");
    status_ = AssetWriterStatus::Writing;
    if (const auto error = build()) {
        fail(error->localizedDescription);
        return false;
    }
    return status_ == AssetWriterStatus::Writing;
}

std::optional<Error> GstRecording::build() {
    if (!video_.added && !audio_.added) return Error{"there is no track to record"};
    std::error_code ignored;
    if (fs::exists(path_, ignored)) return Error{"\"" + path_.string() + "\" exists already"};
    // Found out here rather than by the pipeline, whose message does not name the reason. The muxer cannot cope with a
    // file that it cannot open (1.22 waits for ever), so the media data go into one that is open already and has no
    // name any more.
    const int part = ::open(partPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (part < 0)
        return Error{"could not create \"" + path_.string() + "\": " + std::generic_category().message(errno)};
    ::close(part);
    ownsPart_ = true;
    mediaData_ = ::open(dataPath_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (mediaData_ < 0)
        return Error{"could not create \"" + path_.string() + "\": " + std::generic_category().message(errno)};
    removeQuietly(dataPath_);
    const std::string mediaData = "/proc/self/fd/" + std::to_string(mediaData_);

    pipeline_.reset(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new(nullptr))));
    GstElement* const muxer = makeElement("mp4mux");
    GstElement* const sink = makeElement("filesink");
    if (muxer != nullptr) g_object_set(muxer, "faststart", TRUE, "faststart-file", mediaData.c_str(), nullptr);
    if (sink != nullptr) g_object_set(sink, "location", partPath_.c_str(), "async", FALSE, "sync", FALSE, nullptr);
    if (auto error = addChain(pipeline_.get(), {muxer, sink})) return error;
    if (video_.added) {
        if (auto error = buildVideo(muxer)) return error;
    }
    if (audio_.added) {
        if (auto error = buildAudio(muxer)) return error;
    }
    const GstPtr<GstBus> bus(gst_element_get_bus(pipeline_.get()));
    gst_bus_set_sync_handler(bus.get(), &GstRecording::onMessage, this, nullptr);
    if (gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE)
        return Error{"the pipeline could not start"};
    return std::nullopt;
}

std::optional<Error> GstRecording::buildVideo(GstElement* muxer) {
    const auto encoder = chooseVideoEncoder(videoSettings_);
    if (!encoder) return encoder.error();
    const VideoCodec& codec = *findVideoCodec(videoSettings_.codec);

    GstElement* const encoding = makeElement(encoder.value()->element);
    if (encoding != nullptr) {
        const auto& properties = videoSettings_.compressionProperties;
        const auto asked = properties.find(kVideoAverageBitRateKey);
        const std::int64_t bitRate =
            asked == properties.end() ? kDefaultBitRate : std::clamp<std::int64_t>(asked->second, 50'000, 100'000'000);
        for (const auto& [property, value] : encoder.value()->settings) set(encoding, property, value);
        const auto [property, value] = bitRateSetting(*encoder.value(), bitRate);
        set(encoding, property, value);
    }
    // One element converts and scales in one go; older versions have two.
    const bool oneStep = isAvailable("videoconvertscale");
    GstElement* const scaler = makeElement(oneStep ? "videoconvertscale" : "videoscale");
    const std::string size =
        "width=" + std::to_string(videoSettings_.width) + ",height=" + std::to_string(videoSettings_.height);
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

std::optional<Error> GstRecording::buildAudio(GstElement* muxer) {
    const auto encoder = chooseAudioEncoder();
    if (!encoder) return encoder.error();
    GstElement* const encoding = makeElement(encoder.value()->element);
    if (encoding != nullptr) set(encoding, "bitrate", std::to_string(audioSettings_.bitRate));
    audioDelay_ = nanoseconds(encoder.value()->delay * 1'000'000'000 / std::max(audioSettings_.sampleRate, 1));
    const std::string format = "audio/x-raw,rate=" + std::to_string(audioSettings_.sampleRate) +
                               ",channels=" + std::to_string(audioSettings_.channels);
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

void GstRecording::startSession(nanoseconds time) {
    if (!sessionStart_) sessionStart_ = time;
}

bool GstRecording::isReady(MediaType mediaType) const {
    const Track& track = mediaType == MediaType::Video ? video_ : audio_;
    if (status_ != AssetWriterStatus::Writing || !track.source || track.ended) return false;
    GstAppSrc* const source = GST_APP_SRC(track.source.get());
    if (mediaType == MediaType::Video) return gst_app_src_get_current_level_buffers(source) < kVideoDepth;
    return gst_app_src_get_current_level_time(source) < static_cast<guint64>(nanoseconds(kAudioDepth).count());
}

bool GstRecording::append(MediaType mediaType, const std::shared_ptr<SampleBuffer>& sample) {
    const Track& track = mediaType == MediaType::Video ? video_ : audio_;
    if (status_ != AssetWriterStatus::Writing || !track.source || track.ended || !sessionStart_) return false;
    if (!sample->dataIsReady() || !sample->timing().isValid()) return false;
    const nanoseconds time = *sample->timing().presentationTime - *sessionStart_;
    return mediaType == MediaType::Video ? appendVideo(sample, time) : appendAudio(sample, time);
}

bool GstRecording::appendVideo(const std::shared_ptr<SampleBuffer>& sample, nanoseconds time) {
    if (time < nanoseconds(0)) return true;  // before the session: left out, as asked
    if (time <= lastVideoTime_) return false;
    GstBuffer* const buffer = wrapSample(sample);
    if (buffer == nullptr) return false;

    const PixelBufferLayout& layout = sample->imageBuffer()->layout();
    if (!videoLayout_ || videoLayout_->width != layout.width || videoLayout_->height != layout.height ||
        videoLayout_->format != layout.format) {
        if (framesPerSecond_ == 0) {
            const auto& properties = videoSettings_.compressionProperties;
            const auto expected = properties.find(kVideoExpectedSourceFrameRateKey);
            framesPerSecond_ = expected == properties.end()
                                   ? frameRateOf(sample)
                                   : static_cast<int>(std::clamp<std::int64_t>(expected->second, 1, 240));
        }
        videoLayout_ = layout;
        g_object_set(scaler_.get(), "add-borders", sameShape(layout, videoSettings_) ? FALSE : TRUE, nullptr);
        gst_app_src_set_caps(GST_APP_SRC(video_.source.get()), rawVideoCaps(layout, framesPerSecond_).get());
    }
    const nanoseconds duration = sample->timing().duration.value_or(nanoseconds(1'000'000'000 / framesPerSecond_));
    GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(time.count());
    GST_BUFFER_DURATION(buffer) = static_cast<GstClockTime>(duration.count());
    if (gst_app_src_push_buffer(GST_APP_SRC(video_.source.get()), buffer) != GST_FLOW_OK) return false;
    lastVideoTime_ = time;
    videoEnd_ = time + duration;
    if (audio_.source && !audio_.ended) fillAudioUntil(videoEnd_ - kAudioLag);
    return true;
}

nanoseconds GstRecording::audioEnd() const {
    if (audioRate_ == 0) return audioBase_;
    const std::int64_t seconds = audioFrames_ / audioRate_;
    return audioBase_ + nanoseconds(seconds * 1'000'000'000 + audioFrames_ % audioRate_ * 1'000'000'000 / audioRate_);
}

void GstRecording::adoptAudioFormat(int sampleRate, int channels) {
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

void GstRecording::pushAudio(GstBuffer* buffer, std::int64_t frames) {
    const nanoseconds start = audioEnd();
    audioFrames_ += frames;
    GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(start.count());
    GST_BUFFER_DURATION(buffer) = static_cast<GstClockTime>((audioEnd() - start).count());
    gst_app_src_push_buffer(GST_APP_SRC(audio_.source.get()), buffer);
}

void GstRecording::pushSilence(std::int64_t frames) {
    while (frames > 0) {
        const std::int64_t block = std::min<std::int64_t>(frames, audioRate_);
        const gsize bytes = static_cast<gsize>(block * audioChannels_) * sizeof(std::int16_t);
        GstBuffer* const buffer = gst_buffer_new_allocate(nullptr, bytes, nullptr);
        gst_buffer_memset(buffer, 0, 0, bytes);
        pushAudio(buffer, block);
        frames -= block;
    }
}

void GstRecording::fillAudioUntil(nanoseconds time) {
    if (audioEnd() >= time) return;
    if (audioRate_ == 0) adoptAudioFormat(audioSettings_.sampleRate, audioSettings_.channels);
    pushSilence(audioFrameAt(time - audioBase_, audioRate_) - audioFrames_);
}

bool GstRecording::appendAudio(const std::shared_ptr<SampleBuffer>& sample, nanoseconds time) {
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

void GstRecording::endTrack(MediaType mediaType) {
    Track& track = mediaType == MediaType::Video ? video_ : audio_;
    if (!track.source || track.ended || status_ != AssetWriterStatus::Writing) return;
    if (mediaType == MediaType::Audio) fillAudioUntil(videoEnd_);
    track.ended = true;
    // The muxer does not take the end of a track that never began; such a recording fails when it is finished.
    const bool began = mediaType == MediaType::Video ? videoLayout_.has_value() : audioRate_ != 0;
    if (began) gst_app_src_end_of_stream(GST_APP_SRC(track.source.get()));
}

// ---- the end

bool GstRecording::moveTo(AssetWriterStatus status) {
    AssetWriterStatus writing = AssetWriterStatus::Writing;
    if (!status_.compare_exchange_strong(writing, status)) return false;
    const std::lock_guard lock(mutex_);  // so that no one who is about to wait misses it
    changed_.notify_all();
    return true;
}

void GstRecording::fail(const std::string& reason) {
    if (!moveTo(AssetWriterStatus::Failed)) return;
    log("Recording failed: " + reason);
    // Called on GStreamer's threads too, which cannot end themselves.
    worker_->async([weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->tearDown();
    });
}

GstBusSyncReply GstRecording::onMessage(GstBus*, GstMessage* message, gpointer recording) {
    auto* const self = static_cast<GstRecording*>(recording);
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) {
        const std::lock_guard lock(self->mutex_);
        self->ended_ = true;
        self->changed_.notify_all();
    } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
        self->fail(describe(message));
    }
    gst_message_unref(message);
    return GST_BUS_DROP;
}

void GstRecording::finish(std::function<void()> completion) {
    if (status_ == AssetWriterStatus::Writing) {
        if (video_.added ? lastVideoTime_ < nanoseconds(0) : audioFrames_ == 0) fail("nothing was recorded");
        endTrack(MediaType::Video);
        endTrack(MediaType::Audio);
    }
    if (!worker_) worker_ = std::make_unique<SerialQueue>("recording");
    // Holds the recording: a new one may take this one's place while its file is being finished.
    worker_->async([self = shared_from_this(), completion = std::move(completion)] {
        if (self->status_ == AssetWriterStatus::Writing) self->waitForEnd();
        if (self->status_ == AssetWriterStatus::Writing) self->completeFile();
        if (self->status_ != AssetWriterStatus::Unknown) self->tearDown();
        if (completion) completion();
    });
}

void GstRecording::waitForEnd() {
    std::unique_lock lock(mutex_);
    const bool inTime =
        changed_.wait_for(lock, kLongestFinishing, [this] { return ended_ || status_ != AssetWriterStatus::Writing; });
    lock.unlock();
    if (!inTime) fail("the encoder did not finish");
}

void GstRecording::completeFile() {
    gst_element_set_state(pipeline_.get(), GST_STATE_NULL);  // closes the file
    std::error_code error;
    fs::rename(partPath_, path_, error);
    if (error) {
        fail("could not move the recording to \"" + path_.string() + "\": " + error.message());
    } else if (!moveTo(AssetWriterStatus::Completed)) {
        removeQuietly(path_);  // cancelled at the last moment
    }
}

void GstRecording::cancel() {
    AssetWriterStatus unknown = AssetWriterStatus::Unknown;
    status_.compare_exchange_strong(unknown, AssetWriterStatus::Cancelled);
    moveTo(AssetWriterStatus::Cancelled);
    if (status_ == AssetWriterStatus::Completed) return;
    if (!worker_ || worker_->isCurrent()) return;
    worker_->async([self = shared_from_this()] { self->tearDown(); });
    worker_->drain();
}

void GstRecording::tearDown() {
    {
        const std::lock_guard lock(mutex_);
        if (std::exchange(tornDown_, true)) return;
    }
    if (pipeline_) {
        gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
        const GstPtr<GstBus> bus(gst_element_get_bus(pipeline_.get()));
        gst_bus_set_sync_handler(bus.get(), nullptr, nullptr, nullptr);
    }
    if (mediaData_ >= 0) ::close(mediaData_);
    if (ownsPart_) removeQuietly(partPath_);
}

// ---- public

std::shared_ptr<AssetWriterFactory> makeGstAssetWriterFactory(RecordingOptions options) {
    return std::make_shared<GstAssetWriterFactory>(std::move(options));
}

std::string recommendedVideoCodec(const RecordingOptions& options) {
    if (!options.preferHEVC || !startGStreamer()) return kVideoCodecTypeH264;
    // Asked of a writer that never writes, so that the answer is the one that recording will get.
    const auto disabled = [&](const std::string& name) {
        return std::find(options.disabledElements.begin(), options.disabledElements.end(), name) !=
               options.disabledElements.end();
    };
    const VideoCodec& codec = *findVideoCodec(kVideoCodecTypeHEVC);
    const bool hasParser = !disabled(codec.parser) && elementRank(codec.parser) >= 0;
    const auto encoders =
        installedEncoders(codec, [&](const std::string& name) { return disabled(name) ? -1 : elementRank(name); });
    const bool canRecord = hasParser && std::any_of(encoders.begin(), encoders.end(),
                                                    [](const auto* encoder) { return opens(encoder->element); });
    return canRecord ? kVideoCodecTypeHEVC : kVideoCodecTypeH264;
}

}  // namespace selvio
