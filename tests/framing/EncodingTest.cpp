// DER that is put together, octet by octet as X.690 has it.
#include "framing/Encoding.h"

#include <authority/Der.h>

#include <gtest/gtest.h>

using namespace Norvane::Crypto::framing;
using norvauthority::fromHex;
using norvauthority::toHex;

TEST(Encoding, Integers) {
    EXPECT_EQ(toHex(integerOf(0)), "020100");
    EXPECT_EQ(toHex(integerOf(127)), "02017f");
    EXPECT_EQ(toHex(integerOf(128)), "02020080");
    EXPECT_EQ(toHex(integerOf(255)), "020200ff");
    EXPECT_EQ(toHex(integerOf(256)), "02020100");
    EXPECT_EQ(toHex(integerOf(600000)), "02030927c0");
    EXPECT_EQ(toHex(integerOf(0x7FFFFFFFFFFFFFFFU)), "02087fffffffffffffff");
    EXPECT_EQ(toHex(integerOf(0xFFFFFFFFFFFFFFFFU)), "020900ffffffffffffffff");
}

TEST(Encoding, Strings) {
    EXPECT_EQ(toHex(octetStringOf({})), "0400");
    EXPECT_EQ(toHex(octetStringOf(fromHex("0102"))), "04020102");
    EXPECT_EQ(toHex(bitStringOf(fromHex("80"))), "03020080");
    EXPECT_EQ(toHex(null()), "0500");
    EXPECT_EQ(toHex(primitive(TagClass::contextSpecific, 0, fromHex("ff"))), "8001ff");
    EXPECT_EQ(toHex(octetStringOf(Encoded(128))).substr(0, 6), "048180");
    EXPECT_EQ(toHex(octetStringOf(Encoded(65536))).substr(0, 10), "0483010000");
}

TEST(Encoding, Nested) {
    EXPECT_EQ(toHex(sequenceOf({})), "3000");
    EXPECT_EQ(toHex(sequenceOf({integerOf(1), {}, null()})), "30050201010500"); // what is empty is left out
    EXPECT_EQ(toHex(contextOf(2, {sequenceOf({null()})})), "a20430020500");
}

TEST(Encoding, SetsAreSortedByTheirOctets) {
    std::vector<Encoded> elements{fromHex("a000"), fromHex("3001ff"), fromHex("30020000"), fromHex("3000")};
    EXPECT_EQ(toHex(setOf(elements)), "310ba0003001ff300200003000");
    sortForDer(elements);
    EXPECT_EQ(toHex(setOf(elements)), "310b30003001ff30020000a000");
}
