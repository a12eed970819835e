// Signers and recipients whose certificates have keys of another kind than their part asks for, and a source that is mapped.
#include "support/EnvelopeWriting.h"
#include "support/HandMadeSigners.h"
#include "support/Judge.h"
#include "support/SignedMessages.h"
#include "support/Thrown.h"

#include <norvcmsg/BytesInMemory.h>
#include <norvcrypto/CMSEnvelopeWriter.h>
#include <norvcrypto/CMSSignedWriter.h>

#include <algorithm>
#include <fstream>

using namespace cmstest;
using CMS::SignatureReason;
using CMS::SignatureVerdict;

namespace {

CMS::SignatureResult verdictBy(const Identity& identity) {
    const Bytes content = bytesOf("content");
    const Norvane::MemoryMediaIn in(bufferOf(signedMessage({&identities().rsa}, {"sha256"}, content, CMS_NOCERTS)));
    CMS::SignedReader reader(in);
    Norvane::MediaOut nowhere = Norvane::NullMediaOut();
    reader.write(nowhere);
    return reader.verdict(reader.signers().at(0), certificateOf(identity));
}

// A certificate with the signer's name and a key for key agreement alone (RFC 8410): nobody signs with that.
TEST(StrangeKeys, AKeyThatCannotSignIsUnsupported) {
    const CMS::SignatureResult result = verdictBy(norvauthority::issue({.subject = {{"CN", "alike"}},
                                                                        .key = onCurve("X25519").key,
                                                                        .issuer = &identities().authority,
                                                                        .serial = identities().rsa.serial}));
    EXPECT_EQ(result.verdict, SignatureVerdict::unsupported);
    EXPECT_EQ(result.reason, SignatureReason::keyAlgorithm);
}

std::string refusalFor(const Identity& identity) {
    return norvtest::detailOf(
        norvtest::thrownBy([&] { static_cast<void>(CMS::EnvelopeRecipient(certificateOf(identity))); }));
}

/// A certificate whose public key is of a kind that nobody knows.
Identity withUnknownKey() {
    Identity identity = identities().rsa;
    Bytes& der = identity.certificate.der;
    const Bytes rsa{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01};
    const auto at = std::search(der.begin(), der.end(), rsa.begin(), rsa.end());
    EXPECT_NE(at, der.end());
    at[8] = 0x63;
    return identity;
}

TEST(StrangeKeys, NobodyIsEncryptedForWhoseKeyCannotBeDecoded) {
    EXPECT_EQ(refusalFor(withUnknownKey()), "the key is no key that can be decoded, which cannot encrypt here");
}

// A file that is mapped is read where it lies, and stands behind the structure afterwards.
TEST(StrangeKeys, AMappedFileStandsBehindTheStructureThatWasReadOutOfIt) {
    const Bytes message = signedMessage({&identities().rsa}, {"sha256"}, bytesOf("content"), 0);
    const x509testing::TemporaryFolder folder;
    const std::string path = folder.path("message");
    std::ofstream(path, std::ios::binary) << std::string(message.begin(), message.end()) << "and more";
    const Norvane::MappedFileMediaIn in{Norvane::File::Path(path)};
    CMS::SignedReader reader(in);
    Norvane::MemoryMediaOut content;
    reader.write(content);
    EXPECT_EQ(reader.verdict(reader.signers().at(0), certificateOf(identities().rsa)).verdict, SignatureVerdict::good);
    EXPECT_EQ(in.tell(), message.size());
    std::string rest;
    Norvane::MediaIn behind(in);
    behind.read(rest);
    EXPECT_EQ(rest, "and more");
}

// ECDSA with SHA-3 (RFC 9688), which OpenSSL 3.0 has no table for.
TEST(StrangeKeys, EcKeysSignWithEachSha3) {
    for (const auto digest :
         {Crypto::Hasher::SHA3_224, Crypto::Hasher::SHA3_256, Crypto::Hasher::SHA3_384, Crypto::Hasher::SHA3_512}) {
        CMS::SignedWriter::Options options;
        options.signers.emplace_back(pairOf(identities().ec));
        options.signers.back().digest = digest;
        Norvane::MemoryMediaOut message;
        CMS::SignedWriter writer(options);
        writer.attach(message);
        writer.write(bufferOf(bytesOf("content")));
        writer.end();
        const Norvane::MemoryMediaIn in(message.content());
        CMS::SignedReader reader(in);
        Norvane::MediaOut nowhere = Norvane::NullMediaOut();
        reader.write(nowhere);
        EXPECT_EQ(reader.verdict(reader.signers().at(0)).verdict, SignatureVerdict::good) << static_cast<int>(digest);
    }
}

} // namespace
