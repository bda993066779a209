#include <SelvioFacialCapture/SelvioFacialCapture.h>
#include <SelvioFacialCapture/imaging/Base64.h>
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "support/FakeDevice.h"
#include "support/FakeImageCodec.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"

namespace selvio {
namespace {

using nlohmann::json;
using Manager = SelvioFacialCaptureUxpEventManager;
using Record = SelvioFacialCaptureObixData;

SelvioFacialCaptureUxpEvent event(int number) {
    return static_cast<SelvioFacialCaptureUxpEvent>(number);
}

TEST(UxpEvents, OnlyConsecutiveRepeatsAreMerged) {
    struct Row {
        std::vector<int> events;
        std::vector<std::string> codes;
    };
    const std::vector<Row> rows = {
        {{9, 9, 15, 9}, {"FENF", "FETF", "FENF"}},
        {{20, 9, 20, 20}, {"FENF", "FS"}},  // first of all it is the idle marker
        {{21, 21, 9}, {"FENF"}},
        {{9, -1, 9}, {"FENF", "FENF"}},  // a number without a code still separates
        {{0, 1, 2, 3, 4, 5, 6, 7, 8, 10, 11, 12, 13, 14, 16, 17, 18, 19},
         {"SA", "SS", "IS", "HS", "RS", "MF", "MT", "ST", "C", "FENC", "FEMF", "FER", "FEP", "FEY", "FETC", "FENS",
          "FESS", "FHS"}},
    };
    for (const Row& row : rows) {
        const auto manager = Manager::init(std::make_shared<ManualClock>());
        for (const int number : row.events) manager->addEvent(event(number));
        std::vector<std::string> codes;
        for (const json& entry : manager->events()) {
            ASSERT_EQ(entry.size(), 1U);
            codes.push_back(entry.begin().key());
        }
        EXPECT_EQ(codes, row.codes);
    }
}

TEST(UxpEvents, TimesAreWholeMillisecondsSinceTheLastClear) {
    const auto clock = std::make_shared<ManualClock>();
    clock->advance(std::chrono::seconds(5));
    const auto manager = Manager::init(clock);
    clock->advance(std::chrono::nanoseconds(1'999'900));
    manager->addEvent(event(9));
    const json before = manager->events();
    clock->advance(std::chrono::seconds(3));
    manager->addEventWith(event(6), {{"extra", 7}});
    EXPECT_EQ(before, json::parse(R"([{"FENF": [1]}])"));  // a copy: what comes later does not show in it
    EXPECT_EQ(manager->events(), json::parse(R"([{"FENF": [1]}, {"MT": [3001, {"extra": 7}]}])"));
    manager->clear();
    manager->addEvent(event(6));
    EXPECT_EQ(manager->events(), json::parse(R"([{"MT": [0]}])"));
}

TEST(UxpEvents, TheClockMayCallEveryOperation) {
    std::shared_ptr<Manager> manager;
    int calls = 0;
    Manager::destroySharedInstance();
    Manager::setSharedClock(std::make_shared<CallingClock>([&] {
        ++calls;
        Manager::sharedInstance()->addEvent(event(9));
        Manager::destroySharedInstance();
        if (!manager) return;
        (void)manager->events();
        (void)manager->currentEvent();
        (void)manager->startTime();
        manager->clear();
    }));
    manager = Manager::sharedInstance();
    EXPECT_EQ(Manager::sharedInstance(), manager);
    manager->addEvent(event(15));
    EXPECT_EQ(manager->events().size(), 1U) << "whoever holds it may go on using it";
    EXPECT_NE(Manager::sharedInstance(), manager) << "the clock destroyed it";
    Manager::destroySharedInstance();
    EXPECT_GE(calls, 3);
    manager = nullptr;
    Manager::setSharedClock(nullptr);
    Manager::destroySharedInstance();
}

TEST(UxpEvents, TheSharedLogStartsAnewOnceDestroyed) {
    const auto clock = std::make_shared<ManualClock>();
    Manager::destroySharedInstance();
    Manager::setSharedClock(clock);
    const auto old = Manager::sharedInstance();
    EXPECT_EQ(Manager::sharedInstance(), old);
    old->addEvent(event(9));
    clock->advance(std::chrono::seconds(2));
    Manager::destroySharedInstance();
    EXPECT_EQ(old->events(), json::array());
    old->addEvent(event(15));
    EXPECT_EQ(Manager::sharedInstance()->events(), json::array()) << "what comes late stays in the old log";
    EXPECT_EQ(Manager::sharedInstance()->startTime(), 2.0);
    Manager::setSharedClock(nullptr);
    Manager::destroySharedInstance();
}

class RecordTest : public ::testing::Test {
protected:
    std::shared_ptr<FakeImageCodec> codec = std::make_shared<FakeImageCodec>();
    std::shared_ptr<Record> record = Record::init([this] {
        Platform platform;
        platform.device = std::make_shared<FakeDevice>();
        platform.imageCodec = codec;
        return platform;
    }());
    const Image image{.bitmap = PixelBuffer::create(4, 4, kPixelFormat32BGRA)};

    std::string embedded(double quality) const {
        const auto text = record->addToImage(image, quality);
        const auto bytes = base64::decode(text.value_or("")).value_or(Bytes());
        return {bytes.begin(), bytes.end()};
    }
};

TEST_F(RecordTest, ANewRecordHoldsItsSevenMembersWithoutWhiteSpace) {
    EXPECT_EQ(json::parse(record->obixDataString().value()),
              json::parse(R"({"ObixVersion": "1.6", "Platform": "iOS", "OS": "12.11", "Device": "Kiosk",
        "Model": "x86_64", "Manufacturer": "Apple", "SDKVersion": "Facial Capture 3.2.1"})"));
    EXPECT_EQ(record->obixDataString()->find("\": "), std::string::npos);
    record->add({{"Note", "Grüße"}});
    EXPECT_NE(record->obixDataString()->find(R"("Note":"Gr\u00fc\u00dfe")"), std::string::npos) << "ASCII only";
}

TEST_F(RecordTest, TheLastMembersWin) {
    record->add({{"SelvioResultCode", "None"}, {"OS", "14"}});
    record->add({{"SelvioResultCode", "Cancelled"}});
    record->add(json::array({"not an object"}));
    const json members = record->obixDataDictionary();
    EXPECT_EQ(members.at("SelvioResultCode"), "Cancelled");
    EXPECT_EQ(members.at(kSelvioOS), "14");
}

TEST(Record, TheDeviceMayAskTheRecord) {
    struct AskingDevice final : Device {
        std::shared_ptr<Record> record;
        [[nodiscard]] std::string ask() const { return record ? record->obixDataString().value_or("") : "new"; }
        [[nodiscard]] std::string systemVersion() const override { return ask(); }
        [[nodiscard]] std::string model() const override { return ask(); }
        [[nodiscard]] std::string machineName() const override { return ask(); }
        [[nodiscard]] DeviceOrientation orientation() const override { return DeviceOrientation::Portrait; }
    };
    Platform platform;
    const auto device = std::make_shared<AskingDevice>();
    platform.device = device;
    const auto record = Record::init(platform);
    const std::string before = record->obixDataString().value();
    device->record = record;
    record->addInitialElements();
    EXPECT_EQ(record->obixDataDictionary().at(kSelvioOS), before);
    device->record = nullptr;
}

TEST_F(RecordTest, TextThatIsNotUtf8MakesNoJson) {
    record->add({{"Note", "\xff\xfe"}});
    EXPECT_EQ(record->obixDataJson(), std::nullopt);
    EXPECT_EQ(record->obixDataString(), std::nullopt);
    EXPECT_NE(embedded(50).find(": (none)"), std::string::npos);  // the photograph survives
}

TEST_F(RecordTest, ThePhotographIsEncodedTwiceAndCarriesTheRecord) {
    EXPECT_EQ(embedded(5), "encoded at 1.000000, then at 0.050000, 72x72/1: " + record->obixDataString().value());
    EXPECT_EQ(record->addToImage(std::nullopt, 95), std::nullopt);
    for (const int step : {1, 2, 3}) {
        codec->setFailsAt(step);
        EXPECT_EQ(record->addToImage(image, 95), std::nullopt) << step;
    }
}

TEST_F(RecordTest, ARecordTooLongForItsSegmentLosesItsOldestEventsInThePhotographOnly) {
    json events = json::array();
    for (int i = 0; i < 1000; ++i) events.push_back({{"FENF", {i}}});
    record->addUXP(events);
    const std::string whole = record->obixDataString().value();
    codec->setCommentLimit(1000);
    LogCapture log;
    const std::string text = embedded(95);
    const json comment = json::parse(text.substr(text.find('{')));
    const json& kept = comment.at(kSelvioUxp);
    ASSERT_GT(kept.size(), 10U);
    EXPECT_EQ(kept.back(), events.back());
    EXPECT_EQ(kept.front(), events[events.size() - kept.size()]);
    EXPECT_LE(comment.dump().size(), 1000U);
    EXPECT_GT(comment.dump().size() + events[0].dump().size() + 4, 1000U);  // one more would not fit
    EXPECT_EQ(record->obixDataString(), whole);
    EXPECT_THAT(log.take(),
                ::testing::ElementsAre(::testing::HasSubstr(std::to_string(1000 - kept.size()) + " oldest events")));

    codec->setCommentLimit(10);
    EXPECT_NE(embedded(95).find(": (none)"), std::string::npos);
    EXPECT_THAT(log.take(), ::testing::ElementsAre(::testing::HasSubstr("carries none")));
}

}  // namespace
}  // namespace selvio
