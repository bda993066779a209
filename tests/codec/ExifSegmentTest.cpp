#include "platform/linux/codec/ExifSegment.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using namespace selvio;

TEST(ExifSegment, commentsInOtherCodesAreAbsent) {
    const std::pair<std::string, std::optional<std::string>> table[] = {
        {"ASCII", "text"}, {"UNICODE", std::nullopt}, {"JIS", std::nullopt}, {{"ASCII\0\0\0\xE4", 9}, std::nullopt}};
    for (const auto& [code, text] : table) {
        Bytes segment = *makeExifSegment({std::string("text\0", 5), 6});
        const std::string_view written = "ASCII";
        std::ranges::copy(code, std::ranges::search(segment, written).begin());
        EXPECT_EQ(readExifSegment(segment)->userComment, text) << code;
        EXPECT_EQ(readExifSegment(segment)->orientation, 6);
    }
}

TEST(ExifSegment, damageNeverGivesWhatWasNotWritten) {
    const std::string text(200, 'x');
    const Bytes whole = *makeExifSegment({text, 6});
    for (std::size_t at = 0; at < whole.size(); ++at) {
        const auto cut = readExifSegment(std::span(whole).first(at)).value_or(ExifProperties{});
        EXPECT_TRUE(text.starts_with(cut.userComment.value_or(""))) << at;
        EXPECT_EQ(cut.orientation.value_or(6), 6) << at;
        for (const int value : {0, 1, 0x7F, 0xFF}) {
            Bytes damaged = whole;
            damaged[at] = static_cast<std::uint8_t>(value);
            const int orientation = readExifSegment(damaged).value_or(ExifProperties{}).orientation.value_or(1);
            EXPECT_TRUE(orientation >= 1 && orientation <= 8) << at;
        }
    }
}

}  // namespace
