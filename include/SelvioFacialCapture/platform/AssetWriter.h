// Ports: writing captured samples into an MP4 file.
#pragma once

#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/platform/Capture.h>

#include <filesystem>

namespace selvio {

enum class AssetWriterStatus : std::int64_t { Unknown = 0, Writing = 1, Completed = 2, Failed = 3, Cancelled = 4 };

/// One track. Operations run on the queue that drives the writer.
class SELVIO_EXPORT AssetWriterInput {
public:
    virtual ~AssetWriterInput() = default;
    virtual void setExpectsMediaDataInRealTime(bool expects) = 0;
    [[nodiscard]] virtual bool isReadyForMoreMediaData() const = 0;
    /// Takes a reference to the sample, copies no pixels; false if it could not be taken.
    virtual bool appendSampleBuffer(const std::shared_ptr<SampleBuffer>& sampleBuffer) = 0;
    virtual void markAsFinished() = 0;
};

/// How long a file that is being finished may take, without the time in which the process was stopped. It usually takes
/// about two seconds; longer means that it never will be.
inline constexpr std::chrono::seconds kLongestFinishing{15};

/// One file. `status` may be read on any thread; all else runs on one queue.
class SELVIO_EXPORT AssetWriter {
public:
    virtual ~AssetWriter() = default;
    [[nodiscard]] virtual AssetWriterStatus status() const = 0;
    [[nodiscard]] virtual bool canAddInput(const AssetWriterInput& input) const = 0;
    virtual void addInput(std::shared_ptr<AssetWriterInput> input) = 0;
    virtual bool startWriting() = 0;
    /// Samples before this time of the master clock are left out; the file's time zero.
    virtual void startSessionAtSourceTime(std::chrono::nanoseconds time) = 0;
    /// Finishes in the background and then calls `completion` once, on a thread of its own; `status` then says how it
    /// went: Failed if it takes longer than `kLongestFinishing`. `completion` keeps the writer alive and may hold the
    /// last reference: release it right after the call.
    virtual void finishWriting(std::function<void()> completion) = 0;
    /// Ends without a file; status Cancelled.
    virtual void cancelWriting() = 0;
};

class SELVIO_EXPORT AssetWriterFactory {
public:
    virtual ~AssetWriterFactory() = default;
    [[nodiscard]] virtual Expected<std::shared_ptr<AssetWriter>> makeAssetWriter(const std::filesystem::path& path,
                                                                                 const std::string& fileType) = 0;
    [[nodiscard]] virtual std::shared_ptr<AssetWriterInput> makeVideoInput(const VideoSettings& settings) = 0;
    [[nodiscard]] virtual std::shared_ptr<AssetWriterInput> makeAudioInput(const AudioSettings& settings) = 0;
};

}  // namespace selvio
