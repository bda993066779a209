// The log of what the user was told and did during a capture.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCaptureUxpEvent.h>
#include <SelvioFacialCapture/base/Clock.h>
#include <SelvioFacialCapture/base/Export.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

/// The process-wide event log. Every operation may be called on any thread. The clock is asked with no lock held, so it
/// may call any operation.
///
/// An entry is a JSON object with one member: the event's code, whose value is an array of the milliseconds since the
/// log was started and, if the caller gave one, an extra value. Consecutive repeats of an event make one entry.
class SELVIO_EXPORT SelvioFacialCaptureUxpEventManager {
public:
    /// The one manager, made on first use.
    [[nodiscard]] static std::shared_ptr<SelvioFacialCaptureUxpEventManager> sharedInstance();
    /// Drops the shared manager and clears it; the next `sharedInstance` makes a new one. Whoever still holds the old
    /// one may go on using it; what is added to it stays there.
    static void destroySharedInstance();
    /// The clock of shared managers made from now on; null restores the system's.
    static void setSharedClock(std::shared_ptr<const selvio::Clock> clock);

    /// A new, empty log that starts now.
    [[nodiscard]] static std::shared_ptr<SelvioFacialCaptureUxpEventManager> init(
        std::shared_ptr<const selvio::Clock> clock = nullptr);
    ~SelvioFacialCaptureUxpEventManager();

    /// Empties the log, restarts its time at zero and sets `currentEvent` to 20, so that a good frame as the very first
    /// event is not logged.
    void clear();
    /// Logs an event unless it equals the last one. A number without a code is remembered as the last event and logs
    /// nothing.
    void addEvent(SelvioFacialCaptureUxpEvent event);
    /// The same with an extra value; a null one counts as none.
    void addEventWith(SelvioFacialCaptureUxpEvent event, const nlohmann::json& extra);

    /// A copy of the log: a JSON array, oldest entry first.
    [[nodiscard]] nlohmann::json events() const;
    /// The last event passed to `addEvent`.
    [[nodiscard]] SelvioFacialCaptureUxpEvent currentEvent() const;
    /// The log's time zero, in seconds since 1 January 2001, 00:00:00 UTC.
    [[nodiscard]] double startTime() const;
    /// The code of each event.
    [[nodiscard]] const std::map<std::int64_t, std::string>& uxpEventToStringMappingDictionary() const;

private:
    explicit SelvioFacialCaptureUxpEventManager(std::shared_ptr<const selvio::Clock> clock);
    std::unique_lock<std::mutex> lockAt(double& now);

    const std::shared_ptr<const selvio::Clock> clock_;
    const std::map<std::int64_t, std::string> codes_;
    mutable std::mutex mutex_;
    const std::unique_ptr<nlohmann::json> mutableEvents_;                              // its value: guarded by mutex_
    std::uint64_t changes_ = 0;                                                        // guarded by mutex_
    double startTime_ = 0.0;                                                           // guarded by mutex_
    SelvioFacialCaptureUxpEvent currentEvent_ = SelvioFacialCaptureUxpEventGoodFrame;  // guarded by mutex_
};
