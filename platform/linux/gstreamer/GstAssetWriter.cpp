#include "platform/linux/gstreamer/CaptureRules.h"
#include "platform/linux/gstreamer/GstSupport.h"
#include "platform/linux/gstreamer/Mp4Index.h"
#include "platform/linux/gstreamer/VideoEncoders.h"

#include <SelvioFacialCapture/base/Log.h>
#include <SelvioFacialCapture/base/SerialQueue.h>
#include <SelvioFacialCapture/linux/Recording.h>

#include <fcntl.h>
#include <gst/app/gstappsrc.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <mutex>
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
// How far sound may stay behind the picture before silence stands in for it.
constexpr auto kAudioLag = std::chrono::seconds(1);
constexpr double kShapeTolerance = 0.02;
constexpr const char* kAacPackage = "gstreamer1.0-libav (avenc_aac) or gstreamer1.0-plugins-bad (voaacenc)";
constexpr const char* kMuxerPackage = "gstreamer1.0-plugins-good (mp4mux, aacparse)";

constexpr const char* kSourceSettings = " format=time max-bytes=0";
// A queue is a thread boundary. Encoded data is small, and the muxer waits for the slower track: it may grow there.
constexpr const char* kQueueSettings = " max-size-bytes=0 max-size-time=0 silent=true";

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
    if (!g_object_class_find_property(G_OBJECT_GET_CLASS(element), property.c_str())) return;
    gst_util_set_object_arg(G_OBJECT(element), property.c_str(), value.c_str());
}

// Whether the element's device or library opens.
bool opens(const std::string& element) {
    GstElement* const candidate = makeElement(element);
    if (!candidate) return false;
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
    g_autoptr(GError) error = nullptr;
    g_autofree char* details = nullptr;
    gst_message_parse_error(message, &error, &details);
    const std::string text = details ? details : "";
    if (g_error_matches(error, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_NO_SPACE_LEFT))
        return "no space is left on the disk";
    const bool isWriteError = g_error_matches(error, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_WRITE);
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
    if (!codec) return Error{"video codec \"" + codecName + "\" is not recorded"};
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

class GstAssetWriter;

/// One track; works once it belongs to a writer that writes.
class GstAssetWriterInput final : public AssetWriterInput {
public:
    /// The encoder, or why there is none.
    GstAssetWriterInput(VideoSettings settings, Expected<const VideoEncoder*> encoder)
        : mediaType_(MediaType::Video), videoSettings_(std::move(settings)), videoEncoder_(std::move(encoder)) {}
    GstAssetWriterInput(AudioSettings settings, Expected<const AudioEncoder*> encoder)
        : mediaType_(MediaType::Audio), audioSettings_(settings), audioEncoder_(std::move(encoder)) {}

    void setExpectsMediaDataInRealTime(bool expects) override { realTime_ = expects; }
    [[nodiscard]] bool isReadyForMoreMediaData() const override;
    bool appendSampleBuffer(const std::shared_ptr<SampleBuffer>& sampleBuffer) override;
    void markAsFinished() override;

private:
    friend class GstAssetWriter;
    const MediaType mediaType_;
    const VideoSettings videoSettings_;
    const AudioSettings audioSettings_;
    const Expected<const VideoEncoder*> videoEncoder_{nullptr};
    const Expected<const AudioEncoder*> audioEncoder_{nullptr};
    bool realTime_ = false;
    std::weak_ptr<GstAssetWriter> writer_;
};

/// The pipeline of one file and what became of it. The work that finishes the file keeps the writer alive.
///
///     Unknown ──startWriting──▶ Writing ──finishWriting──▶ Completed
///        │                        ├── error, any time ──▶ Failed
///        └──── cancelWriting ─────┴── cancelWriting, destruction ──▶ Cancelled
class GstAssetWriter final : public AssetWriter, public std::enable_shared_from_this<GstAssetWriter> {
public:
    GstAssetWriter(fs::path path, RecordingOptions options)
        : path_(std::move(path)), partPath_(beside(path_, ".part")), options_(std::move(options)) {}
    ~GstAssetWriter() override {
        moveTo(AssetWriterStatus::Cancelled);
        tearDown();
    }

    [[nodiscard]] AssetWriterStatus status() const override { return status_; }

    [[nodiscard]] bool canAddInput(const AssetWriterInput& input) const override {
        const auto* const own = dynamic_cast<const GstAssetWriterInput*>(&input);
        if (!own || status_ != AssetWriterStatus::Unknown || track(own->mediaType_).input) return false;
        std::optional<Error> problem;
        if (own->mediaType_ == MediaType::Video) {
            problem = own->videoEncoder_ ? sizeProblem(own->videoSettings_) : own->videoEncoder_.error();
        } else if (!own->audioEncoder_) {
            problem = own->audioEncoder_.error();
        }
        if (problem) log("Recording: " + problem->localizedDescription);
        return !problem;
    }

    void addInput(std::shared_ptr<AssetWriterInput> input) override {
        const auto own = std::dynamic_pointer_cast<GstAssetWriterInput>(input);
        if (!own || !canAddInput(*own)) return;
        own->writer_ = weak_from_this();
        (own->mediaType_ == MediaType::Video ? video_ : audio_).input = own;
    }

    bool startWriting() override {
        if (status_ != AssetWriterStatus::Unknown) return false;
        worker_ = std::make_unique<SerialQueue>("recording");
        status_ = AssetWriterStatus::Writing;
        if (const auto error = build()) {
            fail(error->localizedDescription);
            return false;
        }
        return status_ == AssetWriterStatus::Writing;
    }

    void startSessionAtSourceTime(nanoseconds time) override {
        if (!sessionStart_) sessionStart_ = time;
    }

    void finishWriting(std::function<void()> completion) override {
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

    void cancelWriting() override {
        AssetWriterStatus unknown = AssetWriterStatus::Unknown;
        status_.compare_exchange_strong(unknown, AssetWriterStatus::Cancelled);
        moveTo(AssetWriterStatus::Cancelled);
        if (status_ == AssetWriterStatus::Completed) return;
        if (!worker_ || worker_->isCurrent()) return;
        worker_->async([self = shared_from_this()] { self->tearDown(); });
        worker_->drain();
    }

    [[nodiscard]] bool isReady(MediaType mediaType) const {
        const Track& asked = track(mediaType);
        if (status_ != AssetWriterStatus::Writing || !asked.source || asked.ended) return false;
        GstAppSrc* const source = GST_APP_SRC(asked.source.get());
        if (mediaType == MediaType::Video) return gst_app_src_get_current_level_buffers(source) < kVideoDepth;
        return gst_app_src_get_current_level_time(source) < static_cast<guint64>(nanoseconds(kAudioDepth).count());
    }

    bool append(MediaType mediaType, const std::shared_ptr<SampleBuffer>& sample) {
        const Track& to = track(mediaType);
        if (status_ != AssetWriterStatus::Writing || !to.source || to.ended || !sessionStart_) return false;
        if (!sample->dataIsReady() || !sample->timing().isValid()) return false;
        const nanoseconds time = *sample->timing().presentationTime - *sessionStart_;
        return mediaType == MediaType::Video ? appendVideo(sample, time) : appendAudio(sample, time);
    }

    void endTrack(MediaType mediaType) {
        Track& ending = mediaType == MediaType::Video ? video_ : audio_;
        if (!ending.source || ending.ended || status_ != AssetWriterStatus::Writing) return;
        if (mediaType == MediaType::Audio) fillAudioUntil(videoEnd_);
        ending.ended = true;
        // The muxer does not take the end of a track that never began; such a recording fails when it is finished.
        const bool began = mediaType == MediaType::Video ? videoLayout_.has_value() : audioRate_ != 0;
        if (began) gst_app_src_end_of_stream(GST_APP_SRC(ending.source.get()));
    }

private:
    struct Track {
        std::shared_ptr<const GstAssetWriterInput> input;  ///< null if there is no such track
        bool ended = false;
        GstPtr<GstElement> source;  ///< appsrc
    };

    [[nodiscard]] const Track& track(MediaType mediaType) const {
        return mediaType == MediaType::Video ? video_ : audio_;
    }

    std::optional<Error> build() {
        if (!video_.input && !audio_.input) return Error{"there is no track to record"};
        std::error_code ignored;
        if (fs::exists(path_, ignored)) return Error{"\"" + path_.string() + "\" exists already"};
        // Made here rather than by the pipeline, whose message does not name the reason: for the owner alone. What lies
        // there is left over or a link of somebody else's, and is not written through.
        ::unlink(partPath_.c_str());
        const int part = ::open(partPath_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (part < 0)
            return Error{"could not create \"" + path_.string() + "\": " + std::generic_category().message(errno)};
        ::close(part);
        ownsPart_ = true;

        auto made = makePipeline("mp4mux name=muxer ! filesink name=file async=false sync=false" +
                                 (video_.input ? videoChain() : "") + (audio_.input ? audioChain() : ""));
        if (!made) return Error{"an element of the pipeline could not be made"};
        pipeline_ = std::move(made.value());
        GstElement* const pipeline = pipeline_.get();
        g_object_set(elementNamed("file", pipeline).get(), "location", partPath_.c_str(), nullptr);
        if (video_.input) {
            video_.source = elementNamed("video", pipeline);
            setUpVideoEncoder(elementNamed("videoEncoder", pipeline).get());
        }
        if (audio_.input) {
            audio_.source = elementNamed("audio", pipeline);
            const AudioSettings& settings = audio_.input->audioSettings_;
            audioDelay_ = nanoseconds(audio_.input->audioEncoder_.value()->delay * 1'000'000'000 /
                                      std::max(settings.sampleRate, 1));
            set(elementNamed("audioEncoder", pipeline).get(), "bitrate", std::to_string(settings.bitRate));
        }
        takeMessages(pipeline, [this](GstMessage* message) { take(message); });
        if (gst_element_set_state(pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE)
            return Error{"the pipeline could not start"};
        return std::nullopt;
    }

    [[nodiscard]] std::string videoChain() const {
        const VideoSettings& settings = video_.input->videoSettings_;
        const VideoCodec& codec = *findVideoCodec(settings.codec);
        // One element converts and scales in one go; older versions have two.
        const std::string scaler =
            rankOf("videoconvertscale", options_) >= 0 ? "videoconvertscale" : "videoconvert ! videoscale";
        // 4:2:0 only: from BGRA some encoders would choose 4:4:4, which hardly any player shows.
        return std::string(" appsrc name=video") + kSourceSettings + " ! " + scaler +
               " name=scaler ! capsfilter caps=\"video/x-raw,format={NV12,I420},width=" +
               std::to_string(settings.width) + ",height=" + std::to_string(settings.height) +
               ",pixel-aspect-ratio=1/1\" ! queue max-size-buffers=2" + kQueueSettings + " ! " +
               video_.input->videoEncoder_.value()->element + " name=videoEncoder ! " + codec.parser +
               " ! capsfilter caps=\"" + codec.muxedCaps + "\" ! queue max-size-buffers=0" + kQueueSettings +
               " ! muxer.video_0";
    }

    [[nodiscard]] std::string audioChain() const {
        const AudioSettings& settings = audio_.input->audioSettings_;
        return std::string(" appsrc name=audio") + kSourceSettings +
               " ! audioconvert ! audioresample ! capsfilter caps=\"audio/x-raw,rate=" +
               std::to_string(settings.sampleRate) + ",channels=" + std::to_string(settings.channels) + "\" ! " +
               audio_.input->audioEncoder_.value()->element +
               " name=audioEncoder ! aacparse ! queue max-size-buffers=0" + kQueueSettings + " ! muxer.audio_0";
    }

    void setUpVideoEncoder(GstElement* element) const {
        const auto& properties = video_.input->videoSettings_.compressionProperties;
        const VideoEncoder& encoder = *video_.input->videoEncoder_.value();
        const auto asked = properties.find(kVideoAverageBitRateKey);
        const std::int64_t bitRate =
            asked == properties.end() ? kDefaultBitRate : std::clamp<std::int64_t>(asked->second, 50'000, 100'000'000);
        for (const auto& [property, value] : encoder.settings) set(element, property, value);
        const auto& [property, before] = encoder.bitRate;
        set(element, property, before + std::to_string((bitRate + encoder.bitRateUnit / 2) / encoder.bitRateUnit));
    }

    // ---- samples

    bool appendVideo(const std::shared_ptr<SampleBuffer>& sample, nanoseconds time) {
        if (time < nanoseconds(0)) return true;  // before the session: left out, as asked
        if (time <= lastVideoTime_) return false;
        GstBuffer* const buffer = wrapSample(sample);
        if (!buffer) return false;

        const PixelBufferLayout& layout = sample->imageBuffer()->layout();
        if (!videoLayout_ || videoLayout_->width != layout.width || videoLayout_->height != layout.height ||
            videoLayout_->format != layout.format) {
            if (framesPerSecond_ == 0) framesPerSecond_ = frameRateOf(*sample, video_.input->videoSettings_);
            videoLayout_ = layout;
            g_object_set(elementNamed("scaler", pipeline_.get()).get(), "add-borders",
                         sameShape(layout, video_.input->videoSettings_) ? FALSE : TRUE, nullptr);
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

    [[nodiscard]] nanoseconds audioEnd() const {
        if (audioRate_ == 0) return audioBase_;
        const std::int64_t seconds = audioFrames_ / audioRate_;
        return audioBase_ +
               nanoseconds(seconds * 1'000'000'000 + audioFrames_ % audioRate_ * 1'000'000'000 / audioRate_);
    }

    void adoptAudioFormat(int sampleRate, int channels) {
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

    void pushAudio(GstBuffer* buffer, std::int64_t frames) {
        const nanoseconds start = audioEnd();
        audioFrames_ += frames;
        GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(start.count());
        GST_BUFFER_DURATION(buffer) = static_cast<GstClockTime>((audioEnd() - start).count());
        gst_app_src_push_buffer(GST_APP_SRC(audio_.source.get()), buffer);
    }

    void pushSilence(std::int64_t frames) {
        while (frames > 0) {
            const std::int64_t block = std::min<std::int64_t>(frames, audioRate_);
            const gsize bytes = static_cast<gsize>(block * audioChannels_) * sizeof(std::int16_t);
            GstBuffer* const buffer = gst_buffer_new_allocate(nullptr, bytes, nullptr);
            gst_buffer_memset(buffer, 0, 0, bytes);
            pushAudio(buffer, block);
            frames -= block;
        }
    }

    void fillAudioUntil(nanoseconds time) {
        if (audioEnd() >= time) return;
        if (audioRate_ == 0)
            adoptAudioFormat(audio_.input->audioSettings_.sampleRate, audio_.input->audioSettings_.channels);
        pushSilence(rules::audioFrameAt(time - audioBase_, audioRate_) - audioFrames_);
    }

    bool appendAudio(const std::shared_ptr<SampleBuffer>& sample, nanoseconds time) {
        const AudioData* const data = sample->audio();
        if (!data || data->sampleRate < 1 || data->channels < 1 || data->channels > 8) return false;
        const auto frames = static_cast<std::int64_t>(data->samples.size()) / data->channels;
        if (frames == 0) return true;
        adoptAudioFormat(data->sampleRate, data->channels);
        // The encoder's delay is made up for by putting the sound in so much earlier.
        const rules::AudioPlacement place =
            rules::placeAudio(audioFrames_, time - audioDelay_ - audioBase_, frames, audioRate_);
        pushSilence(place.silence);
        if (place.skip >= frames) return true;
        const std::size_t frameBytes = static_cast<std::size_t>(data->channels) * sizeof(std::int16_t);
        const gsize bytes = static_cast<gsize>(frames) * frameBytes;
        const gsize skipped = static_cast<gsize>(place.skip) * frameBytes;
        GstBuffer* const buffer = gst_buffer_new_wrapped_full(
            GST_MEMORY_FLAG_READONLY, const_cast<std::int16_t*>(data->samples.data()), bytes, skipped, bytes - skipped,
            makeUserData(sample), deleteUserData<std::shared_ptr<SampleBuffer>>);
        pushAudio(buffer, frames - place.skip);
        return true;
    }

    // ---- the end

    bool moveTo(AssetWriterStatus status) {
        AssetWriterStatus writing = AssetWriterStatus::Writing;
        if (!status_.compare_exchange_strong(writing, status)) return false;
        const std::lock_guard lock(mutex_);  // so that no one who is about to wait misses it
        changed_.notify_all();
        return true;
    }

    void fail(const std::string& reason) {
        if (!moveTo(AssetWriterStatus::Failed)) return;
        log("Recording failed: " + reason);
        // Called on GStreamer's threads too, which cannot end themselves.
        worker_->async([weak = weak_from_this()] {
            if (const auto self = weak.lock()) self->tearDown();
        });
    }

    void take(GstMessage* message) {
        if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) {
            const std::lock_guard lock(mutex_);
            ended_ = true;
            changed_.notify_all();
        } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
            fail(reasonOf(message));
        }
    }

    void waitForEnd() {
        constexpr std::chrono::seconds kLook{1};
        const auto now = [] { return std::chrono::steady_clock::now().time_since_epoch(); };
        rules::Wait wait(now(), kLook);
        std::unique_lock lock(mutex_);
        while (!changed_.wait_for(lock, kLook, [this] { return ended_ || status_ != AssetWriterStatus::Writing; })) {
            if (wait.look(now()) < kLongestFinishing) continue;
            lock.unlock();
            return fail("the encoder did not finish");
        }
    }

    void completeFile() {
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

    void tearDown() {
        {
            const std::lock_guard lock(mutex_);
            if (std::exchange(tornDown_, true)) return;
        }
        closePipeline(pipeline_.get());
        if (ownsPart_) removeQuietly(partPath_);
    }

    const fs::path path_;
    const fs::path partPath_;  ///< the finished file until it is moved into place
    const RecordingOptions options_;

    Track video_;
    Track audio_;
    GstPtr<GstElement> pipeline_;
    bool ownsPart_ = false;  ///< the part file is this recording's

    std::optional<std::chrono::nanoseconds> sessionStart_;
    std::optional<PixelBufferLayout> videoLayout_;
    int framesPerSecond_ = 0;
    std::chrono::nanoseconds lastVideoTime_{-1};
    std::chrono::nanoseconds videoEnd_{0};
    std::chrono::nanoseconds keyFrameTime_{0};  ///< of the last key frame that was asked for
    std::chrono::nanoseconds audioDelay_{0};
    int audioRate_ = 0;
    int audioChannels_ = 0;
    std::chrono::nanoseconds audioBase_{0};  ///< where the samples of the present format begin
    std::int64_t audioFrames_ = 0;           ///< written since then

    std::atomic<AssetWriterStatus> status_{AssetWriterStatus::Unknown};
    std::mutex mutex_;
    std::condition_variable changed_;
    bool ended_ = false;     // guarded by mutex_; the end of the stream has reached the file
    bool tornDown_ = false;  // guarded by mutex_; no pipeline runs and no unfinished file lies about
    /// Made by start; ends the pipeline, since that waits for GStreamer's threads.
    std::unique_ptr<SerialQueue> worker_;
};

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

std::shared_ptr<AssetWriterFactory> makeGstAssetWriterFactory(RecordingOptions options) {
    return std::make_shared<GstAssetWriterFactory>(std::move(options));
}

std::string recommendedVideoCodec(const RecordingOptions& options) {
    return options.preferHEVC && chooseVideoEncoder(kVideoCodecTypeHEVC, options) ? kVideoCodecTypeHEVC
                                                                                  : kVideoCodecTypeH264;
}

}  // namespace selvio
