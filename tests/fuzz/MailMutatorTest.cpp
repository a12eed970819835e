#include "MailMutator.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstdint>
#include <string>

using fuzz::Bytes;
using fuzz::MailMutator;

namespace {

/// Changes the first octet.
std::size_t changeFirst(std::uint8_t* octets, std::size_t count, std::size_t most) {
    if (count == 0 && most != 0) {
        count = 1;
    }
    if (count != 0) {
        octets[0] ^= 1U;
    }
    return std::min(count, most);
}

const std::string& mail() {
    static const std::string text =
        "From: a@b\r\nContent-Type: multipart/mixed; boundary=x\r\n\r\n--x\r\n\r\nfirst\r\n--x\r\n"
        "Content-Type: application/pkcs7-mime\r\nContent-Transfer-Encoding: base64\r\n\r\n"
        "MAYCAQECAQI=\r\n--x--\r\n"; // a sequence of 1 and 2
    return text;
}

/// How many of the changed mails something holds of.
template <class Holds> std::size_t count(const std::string& of, Holds holds) {
    std::size_t found = 0;
    for (unsigned int number = 0; number < 3000; ++number) {
        MailMutator mutator(changeFirst, number);
        found += holds(mutator.change(of, 4000)) ? 1 : 0;
    }
    return found;
}

bool holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(MailMutator, StaysWithinItsBound) {
    for (const std::size_t most : {mail().size() + 5, mail().size(), std::size_t{30}, std::size_t{1}}) {
        for (unsigned int number = 0; number < 200; ++number) {
            MailMutator mutator(changeFirst, number);
            EXPECT_LE(mutator.change(mail(), most).size(), most);
            EXPECT_LE(mutator.cross(mail(), mail(), most).size(), most);
        }
    }
}

TEST(MailMutator, PartsAreMovedAndCutOut) {
    EXPECT_GT(count(mail(),
                    [](const std::string& one) { return holds(one, "first") && one.find("first") > one.find("MAYC"); }),
              0U);
    EXPECT_GT(count(mail(), [](const std::string& one) { return !holds(one, "first") && holds(one, "MAYC"); }), 0U);
}

TEST(MailMutator, BoundariesAreMadeToDiffer) {
    EXPECT_GT(count(mail(), [](const std::string& one) { return holds(one, "boundary=x") && holds(one, ",-x"); }), 0U);
    EXPECT_GT(count(mail(), [](const std::string& one) { return one.find("--x--") < one.find("first"); }), 0U);
}

TEST(MailMutator, StructuresInBase64AreChangedByTheirElements) {
    // 2 and 1; in front of each other as elements, not as octets
    EXPECT_GT(count(mail(), [](const std::string& one) { return holds(one, "MAYCAQICAQE=\r\n"); }), 0U);
}

TEST(MailMutator, AMailIsPutIntoAMail) {
    EXPECT_GT(
        count(mail(),
              [](const std::string& one) { return one.starts_with("Content-Type: message/rfc822\r\n\r\nFrom:"); }),
        0U);
}

TEST(MailMutator, WordsOfMailsArePutIn) {
    EXPECT_GT(
        count("Subject: a\r\n\r\n", [](const std::string& one) { return holds(one, "Content-Type: message/partial"); }),
        0U);
}

TEST(MailMutator, CrossedOnesHaveLinesOfBoth) {
    std::size_t both = 0;
    for (unsigned int number = 0; number < 50; ++number) {
        MailMutator mutator(changeFirst, number);
        const std::string crossed = mutator.cross("one\n", "two\nthree\n", 100);
        both += holds(crossed, "one\n") && (holds(crossed, "two\n") || holds(crossed, "three\n")) ? 1 : 0;
    }
    EXPECT_EQ(both, 50U);
}

TEST(MailMutator, NothingBecomesSomething) {
    MailMutator mutator(changeFirst, 1);
    EXPECT_EQ(mutator.change("", 5), std::string(1, '\1'));
}

} // namespace
