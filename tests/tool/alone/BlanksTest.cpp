// How often the tool looks at the bytes of a file when it tells its objects apart: the predicate for blanks stands here,
// and counts.

#include "recognise/Blanks.h"
#include "recognise/DerAndPem.h"

#include <norvcrypto/Crypto.h>

#include <gtest/gtest.h>

#include <string>

namespace norvcrypt {
namespace {
std::size_t s_looks = 0;
}

bool isBlank(unsigned char byte) {
    ++s_looks;
    return byte == '\n' || byte == '\r' || byte == ' ' || byte == '\t';
}
} // namespace norvcrypt

using namespace norvcrypt;

namespace {

std::vector<FoundObject> foundIn(const std::string& content) {
    s_looks = 0;
    return objectsIn(Norvane::Buffer(reinterpret_cast<const unsigned char*>(content.data()),
                                     static_cast<unsigned int>(content.size()), false));
}

constexpr std::size_t size = 20000;
const std::string object("\x30\x00", 2); // an empty SEQUENCE

TEST(BlanksTest, BlanksBetweenObjectsAreNotLookedThroughForEach) {
    // Blanks read as elements too: of nine, ten and thirteen bytes, and of none.
    for (const char blank : {'\n', '\r', ' ', '\t'}) {
        const std::string content = object + std::string(size, blank) + object;
        foundIn(content);
        EXPECT_LE(s_looks, content.size()) << static_cast<int>(blank);
    }
}

TEST(BlanksTest, NeitherAreThoseBehindManyObjects) {
    std::string content;
    for (std::size_t count = 0; count < size; ++count)
        content += object;
    content += std::string(size, ' ');
    foundIn(content);
    EXPECT_LE(s_looks, content.size());
}

TEST(BlanksTest, BlanksAtTheEndAreNoObject) {
    EXPECT_EQ(foundIn(object).size(), foundIn(object + " \t\r\n\n").size());
}

} // namespace
