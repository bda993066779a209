#include <SelvioFacialCapture/imaging/Base64.h>

#include <gmock/gmock.h>

namespace {

using Bytes = std::vector<std::uint8_t>;
namespace base64 = selvio::base64;

TEST(Base64, encodesTheStandardVectors) {
    const std::pair<std::string, std::string> table[] = {{"", ""},
                                                         {"f", "Zg=="},
                                                         {"fo", "Zm8="},
                                                         {"foo", "Zm9v"},
                                                         {"foob", "Zm9vYg=="},
                                                         {"fooba", "Zm9vYmE="},
                                                         {"foobar", "Zm9vYmFy"},
                                                         {"\xfb\xff\xbf", "+/+/"}};
    for (const auto& [plain, text] : table) {
        const Bytes bytes(plain.begin(), plain.end());
        EXPECT_EQ(base64::encode(bytes), text);
        EXPECT_EQ(base64::decode(text), bytes) << text;
    }
}

TEST(Base64, refusesWhatIsNotItsOwnText) {
    for (const char* text : {"Zg", "Zg=", "Z===", "====", "Zg==Zg==", "Zm9v\n", "Zm9-", "Zh==", "Zm9=", "Zm 9v==="}) {
        EXPECT_EQ(base64::decode(text), std::nullopt) << text;
    }
}

}  // namespace
