#pragma once

/// \file
/// What the tests of certificates, lists and the key store share.

#include "support/Judge.h"
#include "support/Places.h"

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Logger.h>
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

/// Keeps what is logged while it lives.
class Log {
public:
    Log() { Norvane::Logger::instance(false).sink(m_sink); }
    ~Log() { Norvane::Logger::instance(false).sink(nullptr); }
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;
    [[nodiscard]] std::vector<Norvane::LogRecord> records() const { return m_sink->records(); }
    void clear() { m_sink->clear(); }

private:
    std::shared_ptr<Norvane::RecordingLogSink> m_sink = std::make_shared<Norvane::RecordingLogSink>();
};

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
