#pragma once

/// \file
/// What the tests of the decrypting stream share: envelopes for recipients in a given order, and what is expected of them.

#include "support/Envelope.h"

#include <norvcmsg/SwapBufferMediaOut.h>

namespace cmstest {

using Events = std::vector<unsigned int>;
using Serials = std::vector<std::string>;

inline constexpr unsigned int byteWiseRead = 0x3000057;
inline constexpr unsigned int notEnveloped = 0x3000058;
inline constexpr unsigned int contentMissing = 0x3000059;
inline constexpr unsigned int keyMissing = 0x300005A;
inline constexpr unsigned int attemptFailed = 0x300005B;

inline const std::string aliceSerial = "0a11ce";
inline const std::string bobSerial = "0b0b";
inline const std::string carolSerial = "0ca401";

/// An envelope around one body for recipients in the order given, which no encoder sorts.
inline Bytes handMade(const Bytes& body, const std::vector<Bytes>& recipients) {
    return envelope({.recipients = recipients, .content = contentElement(encryptedContent(body))});
}
inline Bytes recipient(const Identity& person) {
    return recipientInfo(person, wrappedFor(person, contentKey()));
}

inline void expectNothingTried(const Bytes& structure, const Events& events) {
    const Opened opened = openedBy(structure, storeOfKeys({&alice()}));
    EXPECT_FALSE(opened.good);
    EXPECT_TRUE(opened.body.empty());
    EXPECT_TRUE(opened.failed.empty());
    EXPECT_EQ(opened.events, events);

    PiecewiseIn in(structure);
    Norvane::SwapBufferMediaOut fresh(0x10000, (testing::TempDir() + "decryptedXXXXXX").c_str());
    CMS::DecrypterMediaIn decrypter(in, storeOfKeys({&alice()}));
    EXPECT_FALSE(decrypter.decrypt(fresh));
}

} // namespace cmstest
