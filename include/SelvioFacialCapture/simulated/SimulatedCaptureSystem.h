// A front camera, a back camera and a microphone that need no hardware.
#pragma once

#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/platform/Capture.h>
#include <SelvioFacialCapture/simulated/SimulatedScene.h>

#include <memory>
#include <string>

namespace selvio {

/// What goes wrong, for as long as it is set. The value-initialized struct is a system without faults.
struct SimulatedFaults {
    bool noCamera = false;      ///< discovery finds no camera
    bool noMicrophone = false;  ///< there is no default audio device
    bool startFails = false;    ///< `startRunning` logs why and leaves the session stopped
    /// Cameras are unplugged: a running session logs it, stops, and discovery finds no camera.
    bool deviceLost = false;
    bool framesStall = false;  ///< the session runs, the microphone too, but no frame, drop notice or code comes
    int dropEvery = 0;         ///< every nth frame arrives as a drop notice; 0: none
};

enum class SimulatedPacing {
    Timer,   ///< a running session delivers at the frame rate from a thread of its own
    Manual,  ///< frames come only from `deliverFrameAt`
};

struct SimulatedCaptureOptions {
    SimulatedPacing pacing = SimulatedPacing::Timer;
    double frameRate = 30.0;                       ///< frames a second, 1...240
    std::string videoCodec = kVideoCodecTypeH264;  ///< of the recommended settings for a recording
    /// Where access requests are answered; null: on the asking thread.
    std::shared_ptr<Queue> permissionQueue = nullptr;
};

/// How a simulated camera is set.
struct SimulatedDeviceState {
    TorchMode torchMode = TorchMode::Off;
    FocusMode focusMode = FocusMode::Locked;
    Point focusPointOfInterest{0.5, 0.5};
    int locks = 0;  ///< configuration locks that are held
};

/// Cameras "Simulated Back Camera" (with torch) and "Simulated Front Camera" and a "Simulated Microphone" (a tone of
/// 440 Hz at 48 kHz). Each camera has the formats 640x480, 1280x720 (active at first) and 1920x1080, each in 420v and
/// BGRA. Every operation may be called on any thread. Its sessions stop and their threads end when the last reference
/// to them is released.
class SELVIO_EXPORT SimulatedCaptureSystem final : public CaptureSystem {
public:
    /// A frame rate outside its range is brought to the nearer end, with a line in the log.
    explicit SimulatedCaptureSystem(std::shared_ptr<SimulatedScene> scene, SimulatedCaptureOptions options = {});
    ~SimulatedCaptureSystem() override;

    [[nodiscard]] const std::shared_ptr<SimulatedScene>& scene() const;
    void setFaults(SimulatedFaults faults);
    [[nodiscard]] SimulatedFaults faults() const;
    /// Authorized at first.
    void setAuthorizationStatus(MediaType mediaType, AuthorizationStatus status);
    /// What the person answers when asked for access; yes at first.
    void setAccessAnswer(bool granted);
    [[nodiscard]] SimulatedDeviceState deviceState(CaptureDevicePosition position) const;

    /// Sets the scene to this time of the script and lets every running session deliver what it has for it: the frame
    /// or drop notice, the sound up to now, a code in view. Returns when all is submitted to the delegates' queues.
    /// With `SimulatedPacing::Manual` only.
    void deliverFrameAt(std::chrono::nanoseconds scriptTime);
    /// Blocks of pixel memory that all sessions have asked the system for; constant once warm.
    [[nodiscard]] std::size_t pixelAllocations() const;

    std::shared_ptr<CaptureDeviceDiscoverySession> discoverDevices(const std::vector<std::string>& deviceTypes,
                                                                   MediaType mediaType,
                                                                   CaptureDevicePosition position) override;
    std::shared_ptr<CaptureDevice> defaultDevice(MediaType mediaType) override;
    Expected<std::shared_ptr<CaptureDeviceInput>> makeDeviceInput(
        const std::shared_ptr<CaptureDevice>& device) override;
    std::shared_ptr<CaptureSession> makeSession() override;
    std::shared_ptr<VideoDataOutput> makeVideoDataOutput() override;
    std::shared_ptr<AudioDataOutput> makeAudioDataOutput() override;
    std::shared_ptr<MetadataOutput> makeMetadataOutput() override;
    AuthorizationStatus authorizationStatus(MediaType mediaType) override;
    void requestAccess(MediaType mediaType, std::function<void(bool granted)> completion) override;

private:
    struct SELVIO_HIDDEN State;
    const std::shared_ptr<State> state_;
};

}  // namespace selvio
