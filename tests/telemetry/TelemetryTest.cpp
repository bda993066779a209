#include <SelvioFacialCapture/SelvioFacialCapture.h>
#include <SelvioFacialCapture/imaging/Base64.h>
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "support/FakeDevice.h"
#include "support/FakeImageCodec.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"

namespace {

using namespace selvio;

using nlohmann::json;
using Manager = SelvioFacialCaptureUxpEventManager;
using Record = SelvioFacialCaptureObixData;

SelvioFacialCaptureUxpEvent event(int number) {
    return static_cast<SelvioFacialCaptureUxpEvent>(number);
}

TEST(UxpEvents, OnlyConsecutiveRepeatsAreMerged) {
    const std::pair<std::vector<int>, std::string> rows[] = {
        {{9, 9, 15, 9}, "FENF FETF FENF "},
        {{20, 9, 20, 20}, "FENF FS "},       // first of all it is the idle marker
        {{21, 21, 9, -1, 9}, "FENF FENF "},  // a number without a code still separates
        {{0, 1, 2, 3, 4, 5, 6, 7, 8, 10, 11, 12, 13, 14, 16, 17, 18, 19},
         "SA SS IS HS RS MF MT ST C FENC FEMF FER FEP FEY FETC FENS FESS FHS "},
    };
    for (const auto& [events, right] : rows) {
        const auto manager = Manager::init(std::make_shared<ManualClock>());
        for (const int number : events) manager->addEvent(event(number));
        std::string codes;
        for (const json& entry : manager->events()) codes += entry.begin().key() + " ";
        EXPECT_EQ(codes, right);
    }
}

TEST(UxpEvents, TimesAreWholeMillisecondsSinceTheLastClearAndDoNotRunBackwards) {
    const auto clock = std::make_shared<ManualClock>();
    clock->advance(std::chrono::seconds(5));
    const auto manager = Manager::init(clock);
    clock->advance(std::chrono::nanoseconds(1'999'900));
    manager->addEvent(event(9));
    clock->advance(std::chrono::seconds(3));
    manager->addEventWith(event(6), {{"extra", 7}});
    EXPECT_EQ(manager->events().dump(), R"([{"FENF":[1]},{"MT":[3001,{"extra":7}]}])");
    manager->clear();
    manager->addEvent(event(6));
    EXPECT_EQ(manager->events().dump(), R"([{"MT":[0]}])");

    manager->clear();
    // As another thread would while the clock is asked.
    const auto logMeanwhile = [&](const std::function<void()>& other) {
        clock->callBack = [&, over = false]() mutable {
            if (std::exchange(over, true)) return;
            clock->advance(std::chrono::milliseconds(3));
            other();
        };
        manager->addEvent(event(9));
        return manager->events().dump();
    };
    EXPECT_EQ(logMeanwhile([&] { manager->addEvent(event(2)); }), R"([{"IS":[3]},{"FENF":[3]}])");
    EXPECT_EQ(logMeanwhile([&] { manager->clear(); }), R"([{"FENF":[0]}])");
}

// While it does so, the clock calls every operation, and destroys the shared log.
TEST(UxpEvents, TheSharedLogStartsAnewOnceDestroyed) {
    const auto clock = std::make_shared<ManualClock>();
    Manager::destroySharedInstance();
    Manager::setSharedClock(clock);
    const auto old = Manager::sharedInstance();
    EXPECT_EQ(Manager::sharedInstance(), old);
    clock->callBack = [&] {
        (void)Manager::sharedInstance(), (void)old->events(), (void)old->currentEvent(), (void)old->startTime();
        old->clear();
        Manager::destroySharedInstance();
    };
    clock->advance(std::chrono::seconds(2));
    old->addEvent(event(9));
    EXPECT_EQ(old->events().size(), 1U) << "whoever holds it may go on using it";
    clock->callBack = nullptr;
    const auto fresh = Manager::sharedInstance();
    EXPECT_EQ(fresh->events(), json::array()) << "what comes late stays in the old log";
    EXPECT_EQ(fresh->startTime(), 2.0);
    fresh->addEvent(event(9));
    Manager::setSharedClock(nullptr);
    Manager::destroySharedInstance();
    EXPECT_EQ(fresh->events(), json::array());
}

struct DataRecord : ::testing::Test {
    DataRecord() {
        Platform platform;
        platform.device = device;
        platform.imageCodec = codec;
        record = Record::init(platform);
    }
    std::string embedded(double quality) const {
        const auto bytes = base64::decode(record->addToImage(image, quality).value_or("")).value_or(Bytes());
        return {bytes.begin(), bytes.end()};
    }
    const std::shared_ptr<FakeDevice> device = std::make_shared<FakeDevice>();
    const std::shared_ptr<FakeImageCodec> codec = std::make_shared<FakeImageCodec>();
    const Image image{.bitmap = PixelBuffer::create(4, 4, kPixelFormat32BGRA)};
    std::shared_ptr<Record> record;
};

TEST_F(DataRecord, ItsMembersAreWrittenWithoutWhiteSpaceInAsciiAndTheLastOnesWin) {
    EXPECT_EQ(record->obixDataString(),
              R"({"Device":"Kiosk","Manufacturer":"Apple","Model":"x86_64","OS":"12.11","ObixVersion":"1.6",)"
              R"("Platform":"iOS","SDKVersion":"Facial Capture 3.2.1"})");
    record->add({{"Note", "Grüße"}, {"OS", "13"}});
    record->add({{"OS", "14"}});
    record->add(json::array({"not an object"}));
    EXPECT_NE(record->obixDataString()->find(R"("Note":"Gr\u00fc\u00dfe","OS":"14")"), std::string::npos);
    record->addParameters({{"Mode", "1"}});
    record->addParameters({{"Mode", "2"}});
    EXPECT_EQ(record->obixDataDictionary().at(kSelvioParameters).at("Mode"), "1") << "but for these";

    device->duringQuestions = [&] { (void)record->obixDataString(); };  // this hangs if a lock is held meanwhile
    record->addInitialElements();
    EXPECT_EQ(record->obixDataDictionary().at(kSelvioOS), "12.11");

    record->add({{"Note", "\xff\xfe"}});
    EXPECT_EQ(record->obixDataString(), std::nullopt) << "not UTF-8";
    EXPECT_THAT(embedded(50), ::testing::EndsWith(": (none)")) << "the photograph survives";
}

TEST_F(DataRecord, ThePhotographIsEncodedTwiceAndCarriesTheRecord) {
    EXPECT_EQ(embedded(5), "encoded at 1.000000, then at 0.050000, 72x72/1: " + record->obixDataString().value());
    EXPECT_EQ(record->addToImage(std::nullopt, 95), std::nullopt);
    for (const int step : {1, 2, 3}) {
        codec->failsAt = step;
        EXPECT_EQ(record->addToImage(image, 95), std::nullopt) << step;
    }
}

TEST_F(DataRecord, ARecordTooLongForItsSegmentLosesItsOldestEventsInThePhotographOnly) {
    json events = json::array();
    for (int i = 0; i < 1000; ++i) events.push_back({{"FENF", {i}}});
    record->addUXP(events);
    const std::string whole = record->obixDataString().value();
    json comment = json::parse(whole), &kept = comment.at(kSelvioUxp);
    LogCapture log;
    for (codec->commentLimit = 1030; codec->commentLimit >= 1000; codec->commentLimit -= 3) {
        while (comment.dump().size() > codec->commentLimit) kept.erase(0);
        EXPECT_THAT(embedded(95), ::testing::EndsWith(": " + comment.dump()));
    }
    EXPECT_THAT(log.take().back(), ::testing::HasSubstr(std::to_string(1000 - kept.size()) + " oldest events"));
    EXPECT_EQ(record->obixDataString(), whole);
    codec->commentLimit = 10;
    EXPECT_THAT(embedded(95), ::testing::EndsWith(": (none)"));
    EXPECT_THAT(log.take(), ::testing::ElementsAre(::testing::HasSubstr("carries none")));
}

}  // namespace
