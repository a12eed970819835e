// The encodings of signed attributes that a signature may cover: that of DER is digested as it lies, whatever its length; others
// are decoded, up to a length, for two more (RFC 5652, 5.4).
#include "openssl/SignedAttributes.h"

#include <authority/Der.h>

#include <openssl/err.h>

#include <gtest/gtest.h>

using namespace Norvane::Crypto;
using norvauthority::Bytes;
using openssl::mostAttributesNotDer;
namespace der = norvauthority::der;

namespace {

Bytes attribute(const Bytes& values) {
    return der::sequence({der::oid("1.2.3.4"), values});
}

/// Longer than all others of its kind, so that it stands behind them: X.690, 11.6.
Bytes longOne(std::size_t length = mostAttributesNotDer) {
    return attribute(der::set({der::octetString(Bytes(length, 1))}));
}

std::vector<Bytes> encodings(const Bytes& sent) {
    const auto element = framing::firstElement(sent);
    EXPECT_TRUE(element);
    auto found = openssl::signedAttributeEncodings(*element);
    EXPECT_EQ(ERR_peek_error(), 0U);
    return found;
}

Bytes sent(const std::vector<Bytes>& attributes) {
    return der::element(der::contextConstructed(0), der::concat(attributes));
}

/// The only encoding is that of the set, and nothing is decoded for it.
void expectDer(const std::vector<Bytes>& attributes) {
    const std::vector<Bytes> expected{der::set(attributes)};
    EXPECT_TRUE(encodings(sent(attributes)) == expected);
}

/// Too long to be decoded for the sake of its order.
void expectNotDer(const std::vector<Bytes>& attributes) {
    EXPECT_TRUE(encodings(sent(attributes)).empty());
}

/// A length in one octet more than it needs.
Bytes overlong(unsigned char tag, const Bytes& content) {
    return der::concat({{tag, 0x81, static_cast<unsigned char>(content.size())}, content});
}

const Bytes s_one = attribute(der::set({der::integer("1")}));
const Bytes s_two = attribute(der::set({der::integer("2")}));

} // namespace

TEST(SignedAttributes, LongOnesInDerAreTakenAsTheyLie) {
    expectDer({longOne()});
    expectDer({s_one, s_two, longOne()});
    expectDer({s_one, s_one, longOne()});
    expectDer({attribute(der::set({der::integer("1"), der::integer("1"), der::integer("2")})), longOne()});
    expectDer({attribute(der::set({})), longOne()});
    expectDer({s_one, s_two, longOne(1000000)});
}

TEST(SignedAttributes, LongOnesThatAreNotDerAreRefused) {
    expectNotDer({longOne(), s_one});
    expectNotDer({s_two, s_one, longOne()});
    expectNotDer({s_one, attribute(der::set({der::integer("2"), der::integer("1")})), longOne()});
    expectNotDer({attribute(der::set({der::integer("1"), der::integer("3"), der::integer("2")})), longOne()});
    expectNotDer({overlong(0x30, der::concat({der::oid("1.2.3.4"), der::set({})})), longOne()});
    expectNotDer({attribute(overlong(0x31, der::integer("1"))), longOne()});
    expectNotDer({attribute(der::set({overlong(0x02, {1})})), longOne()});
    expectNotDer({attribute(der::concat({{0x31, 0x80}, der::integer("1"), {0, 0}})), longOne()});
    expectNotDer({der::sequence({der::oid("1.2.3.4")}), longOne()}); // no values
    expectNotDer({attribute({0x31, 0x05, 1}), longOne()});           // an element longer than what it stands in
    expectNotDer({der::concat({longOne(), {0x30, 0x05, 1}})});
    const Bytes indefinite = der::concat({{0xA0, 0x80}, s_one, longOne(), {0, 0}});
    EXPECT_TRUE(encodings(indefinite).empty());
}

TEST(SignedAttributes, SixtyFourKibibytesAreDecodedForTheirOrder) {
    const auto filled = [](std::size_t size) {
        const std::size_t around = der::concat({longOne(60000), s_one}).size() - 60000;
        return std::vector<Bytes>{longOne(size - around), s_one};
    };
    const std::vector<Bytes> most = filled(mostAttributesNotDer);
    const auto found = encodings(sent(most));
    ASSERT_EQ(found.size(), 2U);
    EXPECT_TRUE(found[0] == der::set(most)) << "as it was sent";
    EXPECT_TRUE(found[1] == der::set({most[1], most[0]})) << "in the order of DER";
    EXPECT_TRUE(encodings(sent(filled(mostAttributesNotDer + 1))).empty());
}

TEST(SignedAttributes, EncodingsThatASenderMayHaveSigned) {
    EXPECT_EQ(encodings(sent({s_one, s_two})), std::vector<Bytes>{der::set({s_one, s_two})});
    EXPECT_EQ(encodings(sent({s_two, s_one})),
              (std::vector<Bytes>{der::set({s_two, s_one}), der::set({s_one, s_two})}));
    const Bytes long2 = overlong(0x30, Bytes(s_two.begin() + 2, s_two.end()));
    EXPECT_EQ(encodings(sent({long2, s_one})),
              (std::vector<Bytes>{der::set({long2, s_one}), der::set({s_two, s_one}), der::set({s_one, s_two})}))
        << "as sent, with the lengths of DER, in its order, too";
    const Bytes indefinite = der::concat({{0xA0, 0x80}, s_one, s_two, {0, 0}});
    EXPECT_EQ(encodings(indefinite), std::vector<Bytes>{der::set({s_one, s_two})});
    const Bytes damaged = der::sequence({der::oid("1.2.3.4")});
    EXPECT_EQ(encodings(sent({damaged})), std::vector<Bytes>{der::set({damaged})});
}
