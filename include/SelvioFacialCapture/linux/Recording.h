// The asset writer on Linux: MP4 files through GStreamer.
#pragma once

#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/platform/AssetWriter.h>

#include <memory>
#include <string>
#include <vector>

namespace selvio {

/// Compression property: the frames a second to expect, for the encoder's rate control, where frames have no duration.
inline constexpr const char* kVideoExpectedSourceFrameRateKey = "ExpectedSourceFrameRate";

struct RecordingOptions {
    /// Record H.265 where an encoder for it is installed; H.264 otherwise.
    bool preferHEVC = false;
    /// Names of GStreamer elements that are treated as not installed.
    std::vector<std::string> disabledElements{};
};

/// Makes writers of MP4 files, `moov` first, that appear at their path only when they are complete.
///
/// - Video: H.264 or H.265 as `VideoSettings.codec` says (nothing else), through the best encoder that is installed and
///   opens, hardware first, at the "AverageBitRate" in bits a second (absent: 7 250 000). The first frame's duration
///   steers the encoder's rate control; where it has none, "ExpectedSourceFrameRate" (frames a second) does, else 30.
///   Key frames are two seconds apart at most.
/// - Frames of any size are fitted whole into `width` x `height`, with black borders where the shapes differ by more
///   than 2 percent. BGRA and 420v are taken; their memory is shared with the encoder, not copied.
/// - Audio: AAC. The track has no holes: silence stands where samples are missing, so that sound and picture stay
///   together.
/// - In real time an input that has fallen behind says so through `isReadyForMoreMediaData`; nothing ever waits for the
///   encoder.
/// - Until it is finished a recording lies beside its path under a name with the same beginning and end
///   (`name.part.mp4`), readable for its owner alone; what lay there is removed, a link included. Failure, cancelling
///   and destruction remove it. It never takes more disk space than the finished file.
/// - The status becomes Failed, with one line in the log that gives the reason, when the file cannot be created, exists
///   already, cannot be written or moved into place, when the encoder fails, or when nothing was recorded.
/// - `canAddInput` is false, with one line in the log that names the Debian package, when the encoder, its parser or
///   the MP4 writer is missing.
[[nodiscard]] SELVIO_EXPORT std::shared_ptr<AssetWriterFactory> makeGstAssetWriterFactory(
    RecordingOptions options = {});

/// The settings that video data outputs recommend: kVideoCodecTypeHEVC if the options prefer it and it can be recorded,
/// else kVideoCodecTypeH264.
[[nodiscard]] SELVIO_EXPORT std::string recommendedVideoCodec(const RecordingOptions& options);

}  // namespace selvio
