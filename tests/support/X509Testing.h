#pragma once

/// \file
/// What the tests of certificates, lists and the key store share.

#include "support/Judge.h"
#include "support/Places.h"
#include "support/RecordedLog.h"

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Media.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/CertificateRevocationList.h>

#include <authority/Authority.h>

#include <gtest/gtest.h>

#include <openssl/err.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace x509testing {

using norvauthority::fromHex;
using norvauthority::Identity;
using norvauthority::issue;
using norvauthority::issueList;

inline Norvane::Buffer buffer(const norvauthority::Bytes& bytes) {
    return {bytes.data(), static_cast<unsigned int>(bytes.size()), false};
}

inline Norvane::Buffer buffer(const std::string& text) {
    return {text.data(), static_cast<unsigned int>(text.size()), false};
}

inline norvauthority::Bytes bytes(const Norvane::Buffer& content) {
    return {content.data(), content.data() + content.length()};
}

inline std::string text(const Norvane::Buffer& content) {
    return {reinterpret_cast<const char*>(content.data()), content.length()};
}

/// The bytes of a string value in lower-case hexadecimal.
template <class Value> std::string hexOf(const Value& value) {
    return norvauthority::toHex({value.data(), value.data() + value.length()});
}

/// A certificate of the library's own, decoded from what the authority issued.
inline Norvane::Crypto::NVX509::RefCertificate read(const norvauthority::Certificate& certificate) {
    return Norvane::Crypto::NVX509::CertificateFactory().readDER(buffer(certificate.der));
}
inline Norvane::Crypto::NVX509::RefCertificate read(const norvauthority::Identity& identity) {
    return read(identity.certificate);
}
inline Norvane::Crypto::NVX509::RefCertificateRevocationList read(const norvauthority::Crl& list) {
    return Norvane::Crypto::NVX509::CertificateRevocationListFactory().readDER(buffer(list.der));
}

/// An object identifier from dotted numbers.
inline Norvane::Crypto::ASN1::RefObjectIdentifier oid(const char* dotted) {
    return Norvane::Crypto::ASN1::RefObjectIdentifier(std::string(dotted));
}

/// One key for all the certificates of a test program that do not care about theirs: making keys takes long.
inline norvauthority::Key anyKey() {
    static const norvauthority::Key key = norvauthority::Key::ec();
    return key;
}

/// Tests that leave the error queue as they found it: empty.
class QuietQueue : public testing::Test {
protected:
    void SetUp() override { ERR_clear_error(); }
    void TearDown() override { EXPECT_EQ(ERR_peek_error(), 0UL) << "left in the error queue"; }
};

using Log = norvtest::RecordedLog;

/// A sink that throws once more than `limit` bytes come in.
class FullMediaOutImpl : public Norvane::MediaOutImpl {
public:
    explicit FullMediaOutImpl(unsigned int limit) : m_room(limit) {}
    using Norvane::MediaOutImpl::write;
    void write(const unsigned char* /*data*/, unsigned int length) override {
        if (length > m_room) {
            throw Norvane::MediaException("FullMediaOut", 28, "test", 1);
        }
        m_room -= length;
    }

private:
    unsigned int m_room;
};

inline Norvane::MediaOut fullMediaOut(unsigned int limit) {
    return Norvane::MediaOut(Norvane::makeReference<FullMediaOutImpl, Norvane::MediaOutImpl>(limit));
}

/// What a target throws while `written`, which the library made of `der`, is written to it arrives at the caller, and
/// `written` is as good as before.
template <class Handle> void expectTargetsExceptionArrives(const Handle& written, const norvauthority::Bytes& der) {
    for (const unsigned int room : {0U, 1U, 100U}) {
        for (const bool pem : {false, true}) {
            Norvane::MediaOut target = fullMediaOut(room);
            try {
                pem ? written->writePEM(target) : written->writeDER(target);
                FAIL() << "nothing was thrown with room for " << room;
            } catch (const Norvane::MediaException& exception) {
                EXPECT_EQ(exception.where(), "FullMediaOut");
                EXPECT_EQ(exception.code(), 28);
            }
        }
    }
    Norvane::MemoryMediaOut out;
    written->writeDER(out);
    EXPECT_EQ(bytes(out.content()), der) << "still works";
}

/// `der` with each byte changed in four ways: `decode` reads or refuses it, and may be asked for all that it read;
/// nothing crashes and nothing stays in the error queue.
template <class Decode, class Ask> void expectChangedBytesDoNoHarm(norvauthority::Bytes der, Decode decode, Ask ask) {
    int decoded = 0;
    for (std::size_t i = 0; i < der.size(); ++i) {
        const unsigned char original = der[i];
        for (const unsigned int change : {0x01U, 0x20U, 0x80U, 0xFFU}) {
            der[i] = static_cast<unsigned char>(original ^ change);
            if (const auto made = decode(buffer(der)); !made.isNull()) {
                ask(made);
                ++decoded;
            }
            ASSERT_EQ(ERR_peek_error(), 0UL) << i << " ^ " << change;
        }
        der[i] = original;
    }
    EXPECT_GT(decoded, 0) << "changed signatures, names and entries still decode";
}

/// A sample beside the checkout; nothing when the folder is not there.
inline std::optional<norvauthority::Bytes> sample(const std::string& name) {
    std::ifstream file(norvtest::samplePath(name), std::ios::binary);
    if (!file) {
        return std::nullopt;
    }
    return norvauthority::Bytes(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

/// Skips the test when the samples are missing.
#define X509_SAMPLE_OR_SKIP(variable, name)                                                                            \
    const auto variable = x509testing::sample(name);                                                                   \
    if (!variable) {                                                                                                   \
        GTEST_SKIP() << "no samples beside the checkout: " << (name);                                                  \
    }                                                                                                                  \
    static_assert(true)

using norvtest::TemporaryFolder;

} // namespace x509testing
