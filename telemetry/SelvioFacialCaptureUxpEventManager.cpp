#include <SelvioFacialCapture/SelvioFacialCaptureUxpEventManager.h>
#include <SelvioFacialCapture/base/MemberMutex.h>

#include <nlohmann/json.hpp>
#include <utility>

namespace {

struct SharedManager {
    selvio::MemberMutex mutex;
    std::shared_ptr<SelvioFacialCaptureUxpEventManager> manager;  // guarded by mutex
    std::shared_ptr<const selvio::Clock> clock;                   // guarded by mutex
};

SharedManager& shared() {
    static SharedManager* const instance = new SharedManager;  // outlives every thread that may still log at exit
    return *instance;
}

}  // namespace

std::shared_ptr<SelvioFacialCaptureUxpEventManager> SelvioFacialCaptureUxpEventManager::sharedInstance() {
    SharedManager& s = shared();
    if (auto manager = s.mutex.get(s.manager)) return manager;
    const auto fresh = init(s.mutex.get(s.clock));  // asks the clock, hence without the lock
    const std::lock_guard lock(s.mutex);
    if (!s.manager) s.manager = fresh;
    return s.manager;
}

void SelvioFacialCaptureUxpEventManager::destroySharedInstance() {
    SharedManager& s = shared();
    std::shared_ptr<SelvioFacialCaptureUxpEventManager> manager;
    {
        const std::lock_guard lock(s.mutex);
        manager.swap(s.manager);
    }
    if (manager) manager->clear();
}

void SelvioFacialCaptureUxpEventManager::setSharedClock(std::shared_ptr<const selvio::Clock> clock) {
    SharedManager& s = shared();
    s.mutex.set(s.clock, std::move(clock));
}

std::shared_ptr<SelvioFacialCaptureUxpEventManager> SelvioFacialCaptureUxpEventManager::init(
    std::shared_ptr<const selvio::Clock> clock) {
    if (!clock) clock = std::make_shared<selvio::SystemClock>();
    return std::shared_ptr<SelvioFacialCaptureUxpEventManager>(
        new SelvioFacialCaptureUxpEventManager(std::move(clock)));
}

SelvioFacialCaptureUxpEventManager::SelvioFacialCaptureUxpEventManager(std::shared_ptr<const selvio::Clock> clock)
    : clock_(std::move(clock)),
      codes_{{0, "SA"},   {1, "SS"},    {2, "IS"},    {3, "HS"},    {4, "RS"},    {5, "MF"},   {6, "MT"},
             {7, "ST"},   {8, "C"},     {9, "FENF"},  {10, "FENC"}, {11, "FEMF"}, {12, "FER"}, {13, "FEP"},
             {14, "FEY"}, {15, "FETF"}, {16, "FETC"}, {17, "FENS"}, {18, "FESS"}, {19, "FHS"}, {20, "FS"}},
      mutableEvents_(std::make_unique<nlohmann::json>()) {
    clear();
}

SelvioFacialCaptureUxpEventManager::~SelvioFacialCaptureUxpEventManager() = default;

// Asks the clock without the lock, and again if the log has changed meanwhile, so that its times do not run backwards.
// Not for ever: the clock itself may log.
std::unique_lock<std::mutex> SelvioFacialCaptureUxpEventManager::lockAt(double& now) {
    std::unique_lock lock(mutex_);
    std::uint64_t seen = changes_ - 1;
    for (int attempt = 0; attempt < 10 && seen != changes_; ++attempt) {
        seen = changes_;
        lock.unlock();
        now = clock_->secondsSinceReferenceDate();
        lock.lock();
    }
    ++changes_;
    return lock;
}

void SelvioFacialCaptureUxpEventManager::clear() {
    double now = 0.0;
    const auto lock = lockAt(now);
    *mutableEvents_ = nlohmann::json::array();
    startTime_ = now;
    currentEvent_ = SelvioFacialCaptureUxpEventGoodFrame;
}

void SelvioFacialCaptureUxpEventManager::addEvent(SelvioFacialCaptureUxpEvent event) {
    addEventWith(event, nullptr);
}

void SelvioFacialCaptureUxpEventManager::addEventWith(SelvioFacialCaptureUxpEvent event, const nlohmann::json& extra) {
    double now = 0.0;
    const auto lock = lockAt(now);
    if (event == currentEvent_) return;
    currentEvent_ = event;
    const auto elapsed = static_cast<std::int64_t>((now - startTime_) * 1000.0);
    const auto code = codes_.find(event);
    if (code == codes_.end()) return;
    nlohmann::json values = nlohmann::json::array({elapsed});
    if (!extra.is_null()) values.push_back(extra);
    mutableEvents_->push_back({{code->second, std::move(values)}});
}

nlohmann::json SelvioFacialCaptureUxpEventManager::events() const {
    const std::lock_guard lock(mutex_);
    return *mutableEvents_;
}

SelvioFacialCaptureUxpEvent SelvioFacialCaptureUxpEventManager::currentEvent() const {
    const std::lock_guard lock(mutex_);
    return currentEvent_;
}

double SelvioFacialCaptureUxpEventManager::startTime() const {
    const std::lock_guard lock(mutex_);
    return startTime_;
}

const std::map<std::int64_t, std::string>& SelvioFacialCaptureUxpEventManager::uxpEventToStringMappingDictionary()
    const {
    return codes_;
}
