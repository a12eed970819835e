// Structures that were cut, damaged, or made to do harm: each is answered with one of the failures that are told, or
// reads; nothing crashes, hangs, leaks or stays in the error queue.
#include "support/HostileDer.h"
#include "support/Pkcs12.h"
#include "support/Started.h"
#include "support/Streams.h"
#include "support/Thrown.h"

#include <norvcrypto/BIOMediaImpl.h>

#include <set>

using namespace Norvane;
using namespace norvtest;
using norvauthority::Bytes;
using norvauthority::Identity;
using norvauthority::Key;
using x509testing::buffer;

namespace {

using Store = Norvane::Crypto::PKCS12::Store;

const Identity& holder() {
    static const Identity identity =
        norvauthority::issue({.subject = {{"CN", "Holder"}}, .key = Key::ed25519(), .digest = ""});
    return identity;
}

Bytes sample() {
    return pkcs12({.key = &holder(), .certificate = &holder(), .macIterations = 2});
}

class Pkcs12Hostile : public x509testing::QuietQueue {
protected:
    static void expectUndecodable(bio_st* in) {
        const auto thrown = thrownBy([&] { const Store store(in); });
        expectFailure(thrown, "Crypto::PKCS12::Store", 4, "PKCS12", 23);
        EXPECT_NE(detailOf(thrown), "");
    }
    /// Reads what may be damaged, and answers how far it got: a where-text, or "" when all of it was read.
    static std::string outcome(const Bytes& der) {
        std::string where;
        try {
            const auto store = storeOf(der);
            try {
                store->read("secret");
                const auto certificate = owned(*store);
                if (!certificate.isNull()) {
                    certificate->warm();
                }
            } catch (const Exception& failure) {
                where = failure.where();
                EXPECT_TRUE(store->privateKey().isNull());
                EXPECT_TRUE(store->certificate().isNull());
            }
        } catch (const Exception& failure) {
            where = failure.where();
        }
        EXPECT_TRUE(errorQueueIsEmpty());
        return where;
    }
    /// One bit turned over in every `step`th byte, not always the same one.
    static std::vector<Bytes> flipped(const Bytes& der, std::size_t step) {
        std::vector<Bytes> all;
        for (std::size_t at = 0; at < der.size(); at += step) {
            all.push_back(der);
            all.back()[at] ^= static_cast<unsigned char>(1U << (at % 8));
        }
        return all;
    }
};

TEST_F(Pkcs12Hostile, NoProperPrefixIsDecodedFromMemory) {
    for (const Bytes& prefix : properPrefixes(sample())) {
        Crypto::MemoryBIO source(buffer(prefix));
        expectUndecodable(source);
    }
}

TEST_F(Pkcs12Hostile, NoProperPrefixIsDecodedFromAStream) {
    // The adapter by itself reports bytes that were never sent.
    for (const Bytes& prefix : properPrefixes(sample())) {
        PieceMediaIn source(std::string(prefix.begin(), prefix.end()));
        Crypto::BIOMediaIn adapter(source);
        expectUndecodable(adapter);
    }
}

TEST_F(Pkcs12Hostile, OversizedLengthsAreNotDecoded) {
    for (const Bytes& bytes : oversized(sample())) {
        Crypto::MemoryBIO memory(buffer(bytes));
        expectUndecodable(memory);
        PieceMediaIn source(std::string(bytes.begin(), bytes.end()));
        Crypto::BIOMediaIn adapter(source);
        expectUndecodable(adapter);
    }
}

TEST_F(Pkcs12Hostile, FlippedBitsAreNoticedOrDoNoHarm) {
    std::set<std::string> outcomes;
    for (const Bytes& damaged : flipped(sample(), 1)) {
        outcomes.insert(outcome(damaged));
    }
    EXPECT_TRUE(outcomes.contains("Crypto::PKCS12::Store"));
    EXPECT_TRUE(outcomes.contains("Crypto::PKCS12::read - Incorrect password"));
    // The MAC covers all of the contents: none of them comes to the parser. What does open is the same structure, in
    // bits that say nothing (a version number).
    EXPECT_FALSE(outcomes.contains("Crypto::PKCS12::read - parsing error."));
}

TEST_F(Pkcs12Hostile, FlippedBitsUnderAMacThatFitsAreParsedSafely) {
    std::set<std::string> outcomes;
    for (const int cipher : {-1, NID_pbe_WithSHA1And3_Key_TripleDES_CBC}) {
        const Bytes der = pkcs12({.key = &holder(),
                                  .certificate = &holder(),
                                  .keyCipher = cipher,
                                  .certificateCipher = cipher,
                                  .mac = false});
        for (const Bytes& damaged : flipped(der, 3)) {
            if (const Bytes signedAgain = withMac(damaged, "secret"); !signedAgain.empty()) {
                outcomes.insert(outcome(signedAgain));
            }
        }
    }
    EXPECT_TRUE(outcomes.contains("Crypto::PKCS12::read - parsing error."));
    EXPECT_TRUE(outcomes.contains(""));
}

TEST_F(Pkcs12Hostile, ContentsThatAreMissingOrOfAnotherType) {
    using namespace norvauthority::der;
    const Bytes data{0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x07, 0x01};
    const Bytes encrypted{0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x07, 0x06};
    const auto pfx = [](const Bytes& content) { return sequence({integer("3"), content}); };
    const auto inData = [&](const std::vector<Bytes>& safes) {
        return withMac(pfx(norvauthority::contentInfo(data, octetString(sequence(safes)))), "secret");
    };
    // The outer content left out, empty, of another type.
    for (const Bytes& content :
         {norvauthority::contentInfo(data, std::nullopt), norvauthority::contentInfo(data, octetString({})),
          norvauthority::contentInfo(encrypted, std::nullopt), norvauthority::contentInfo({0x2a, 0x03}, null())}) {
        EXPECT_NE(outcome(pfx(content)), "");
        if (const Bytes signedAgain = withMac(pfx(content), "secret"); !signedAgain.empty()) {
            EXPECT_EQ(outcome(signedAgain), "Crypto::PKCS12::read - parsing error.");
        }
    }
    // The same one level down.
    for (const Bytes& safe :
         {norvauthority::contentInfo(data, std::nullopt), norvauthority::contentInfo(data, octetString({})),
          norvauthority::contentInfo(encrypted, std::nullopt)}) {
        EXPECT_EQ(outcome(inData({safe})), "Crypto::PKCS12::read - parsing error.") << norvauthority::toHex(safe);
    }
    // Nothing at all, and bags of unknown types, are read: there is just nothing in them.
    EXPECT_EQ(outcome(inData({})), "");
    const Bytes unknown = sequence({oid("1.2.3.4"), element(contextConstructed(0), null())});
    EXPECT_EQ(outcome(inData({norvauthority::contentInfo(data, octetString(sequence({unknown})))})), "");
}

TEST_F(Pkcs12Hostile, BagsNestedDeeplyAreBounded) {
    using namespace norvauthority::der;
    const Bytes data{0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x07, 0x01};
    Bytes bags = sequence({});
    for (int depth = 0; depth < 1000; ++depth) {
        bags = sequence({sequence({oid("1.2.840.113549.1.12.10.1.6"), element(contextConstructed(0), bags)})});
    }
    const Bytes safes = sequence({norvauthority::contentInfo(data, octetString(bags))});
    const Bytes pfx = sequence({integer("3"), norvauthority::contentInfo(data, octetString(safes))});
    EXPECT_EQ(outcome(withMac(pfx, "secret")), "Crypto::PKCS12::read - parsing error.");
}

} // namespace
