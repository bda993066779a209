#include "platform/linux/codec/ExifSegment.h"
#include "platform/linux/codec/UserComment.h"

#include <gmock/gmock.h>

namespace {

using namespace selvio;
using namespace std::string_literals;

std::string encoded(std::string_view text, bool bigEndian) {
    const auto field = encodeUserComment(text, bigEndian);
    return {field.begin(), field.end()};
}

std::optional<std::string> decoded(const std::string& field, bool bigEndian) {
    return decodeUserComment({reinterpret_cast<const std::uint8_t*>(field.data()), field.size()}, bigEndian);
}

TEST(UserComment, isAsciiWhereTheTextIsElseUtf16) {
    EXPECT_EQ(encoded("{\"a\":1}", true), "ASCII\0\0\0{\"a\":1}"s);
    EXPECT_EQ(encoded("\xC3\xA4", true), "UNICODE\0\0\xE4"s);
    EXPECT_EQ(encoded("\xC3\xA4", false), "UNICODE\0\xE4\0"s);
    EXPECT_EQ(encoded("\xF0\x9F\x98\x80", true), "UNICODE\0\xD8\x3D\xDE\x00"s);
    // An overlong slash, a surrogate, a value beyond the last and a sequence that ends early.
    EXPECT_EQ(encoded("\xC0\xAF", true), "UNICODE\0\xFF\xFD\xFF\xFD"s);
    EXPECT_EQ(encoded("\xED\xA0\x80", true), "UNICODE\0\xFF\xFD\xFF\xFD\xFF\xFD"s);
    EXPECT_EQ(encoded("\xF4\x90\x80\x80", true), "UNICODE\0\xFF\xFD\xFF\xFD\xFF\xFD\xFF\xFD"s);
    EXPECT_EQ(encoded("\xE4\xB8", true), "UNICODE\0\xFF\xFD\xFF\xFD"s);
}

TEST(UserComment, isReadInEveryCodeThatWritersUse) {
    struct Case {
        std::string field;
        bool bigEndian;
        std::optional<std::string> text;
    };
    const Case table[] = {
        {"ASCII\0\0\0text\0\0"s, true, "text"},
        {"ASCII\0\0\0gr\xC3\xBC\xC3\x9F"s, true, "gr\xC3\xBC\xC3\x9F"},
        {"ASCII\0\0\0gr\xFC"s, true, "gr\xC3\xBC"},
        {"\0\0\0\0\0\0\0\0text"s, true, "text"},
        {"short"s, true, "short"},
        {""s, true, ""},
        {"JIS\0\0\0\0\0\x1B$B"s, true, std::nullopt},
        {"UNICODE\0a\0b\0c\0d\0"s, true, "abcd"},  // the writer's own byte order, not the segment's
        {"UNICODE\0\0a\0b\0c\0d"s, false, "abcd"},
        {"UNICODE\0\xFF\xFE\x2D\x4E"s, true, "\xE4\xB8\xAD"},
        {"UNICODE\0\xFE\xFF\x4E\x2D"s, false, "\xE4\xB8\xAD"},
        {"UNICODE\0\x4E\x2D"s, true, "\xE4\xB8\xAD"},
        {"UNICODE\0\x2D\x4E"s, false, "\xE4\xB8\xAD"},
        {"UNICODE\0\xD8\x3D\xDE\x00\xD8\x3D"s, true, "\xF0\x9F\x98\x80\xEF\xBF\xBD"},
        {"UNICODE\0\0a\0"s, true, "a"},
    };
    for (const Case& c : table)
        EXPECT_EQ(decoded(c.field, c.bigEndian), c.text) << testing::PrintToString(c.field) << c.bigEndian;
}

TEST(ExifSegment, damageNeverGivesWhatWasNotWritten) {
    const std::string text(200, 'x');
    const Bytes whole = *makeExifSegment({text, 6});
    for (std::size_t length = 0; length < whole.size(); ++length) {
        const auto read = readExifSegment(std::span(whole).first(length));
        if (read && read->userComment) {
            EXPECT_TRUE(text.starts_with(*read->userComment)) << length;
        }
        if (read && read->orientation) {
            EXPECT_EQ(read->orientation, 6) << length;
        }
    }
    for (std::size_t at = 6; at < 90; ++at) {
        for (const int value : {0, 1, 0x7F, 0xFF}) {
            Bytes damaged = whole;
            damaged[at] = static_cast<std::uint8_t>(value);
            const auto read = readExifSegment(damaged);
            if (read && read->orientation) {
                EXPECT_TRUE(*read->orientation >= 1 && *read->orientation <= 8) << at;
            }
        }
    }
}

}  // namespace
