#include "platform/hal/UUID.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace bw {
namespace {

TEST(UUIDTest, UpperCaseVersion4InTheDashedFormAndEqualOnlyToItsCopies) {
    std::set<std::string> seen;
    UUID previous;
    for (int i = 0; i < 64; ++i) {
        const UUID id;
        const UUID copy = id;
        EXPECT_EQ(id, copy);
        EXPECT_NE(id, previous);
        previous = id;
        std::string text = copy.uuidString();
        EXPECT_EQ(text, id.uuidString());
        ASSERT_EQ(text.size(), 36u) << text;
        for (std::size_t at = 0; at < text.size(); ++at) {
            bool dash = at == 8 || at == 13 || at == 18 || at == 23;
            char ch = text[at];
            if (dash) {
                EXPECT_EQ(ch, '-') << text;
            } else {
                EXPECT_TRUE((ch >= '0' && ch <= '9') || (ch >= 'A' && ch <= 'F')) << text;
            }
        }
        EXPECT_EQ(text[14], '4') << text;
        EXPECT_NE(std::string("89AB").find(text[19]), std::string::npos) << text;
        seen.insert(text);
    }
    EXPECT_EQ(seen.size(), 64u);
}

}  // namespace
}  // namespace bw
