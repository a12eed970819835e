#include "CMSStreamWriter/EnvelopeStream.h"

#include "CMS/TemporaryFile.h"

#include "CMSStreamWriter/EnvelopeRecipientInfo.h"
#include "openssl/AlgorithmIdentifiers.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/objects.h>

#include <algorithm>
#include <cstring>

namespace Norvane::Crypto::CMS {

namespace {

using failures::raise;
using failures::raiseWithErrors;
using framing::Encoded;

constexpr std::uint64_t s_longestBody = std::uint64_t{1} << 62U;
constexpr std::uint64_t s_longestGcm = (std::uint64_t{1} << 36U) - 32;
constexpr std::size_t s_ofAes = 16;

/// In the order of `ContentCipher`.
constexpr std::array<openssl::ContentAlgorithm, 7> s_algorithms{{
    {NID_aes_128_cbc, EVP_aes_128_cbc, 16, 16, s_ofAes, false, NID_id_aes128_wrap, EVP_aes_128_cbc, NID_aes_128_cbc},
    {NID_aes_192_cbc, EVP_aes_192_cbc, 24, 16, s_ofAes, false, NID_id_aes192_wrap, EVP_aes_192_cbc, NID_aes_192_cbc},
    {NID_aes_256_cbc, EVP_aes_256_cbc, 32, 16, s_ofAes, false, NID_id_aes256_wrap, EVP_aes_256_cbc, NID_aes_256_cbc},
    {NID_des_ede3_cbc, EVP_des_ede3_cbc, 24, 8, 8, false, NID_id_smime_alg_CMS3DESwrap, EVP_des_ede3_cbc,
     NID_des_ede3_cbc},
    {NID_aes_128_gcm, EVP_aes_128_gcm, 16, 12, 1, true, NID_id_aes128_wrap, EVP_aes_128_cbc, NID_aes_128_cbc},
    {NID_aes_192_gcm, EVP_aes_192_gcm, 24, 12, 1, true, NID_id_aes192_wrap, EVP_aes_192_cbc, NID_aes_192_cbc},
    {NID_aes_256_gcm, EVP_aes_256_gcm, 32, 12, 1, true, NID_id_aes256_wrap, EVP_aes_256_cbc, NID_aes_256_cbc},
}};

const openssl::ContentAlgorithm& algorithmOf(ContentCipher cipher) {
    const auto number = static_cast<std::size_t>(cipher); // a negative one becomes a large one
    if (number >= s_algorithms.size()) {
        raise(failures::envelopeWriter, "no such cipher: " + std::to_string(static_cast<int>(cipher)));
    }
    // cppcheck-suppress containerOutOfBounds ; what raises does not return
    return s_algorithms[number];
}

/// RFC 5652, 6.1: no originator information, no unprotected attributes, no other recipients.
unsigned int versionFor(bool anyPassword, bool allOfVersion0) noexcept {
    constexpr unsigned int withPassword = 3;
    constexpr unsigned int withOtherVersions = 2;
    return anyPassword ? withPassword : allOfVersion0 ? 0 : withOtherVersions;
}

void checkWork(const std::vector<EnvelopeRecipient>& recipients) {
    if (recipients.empty()) {
        raise(failures::envelopeWriter, "there is no recipient");
    }
    if (recipients.size() > maximumRecipients) {
        raise(failures::envelopeWriter, "more than " + std::to_string(maximumRecipients) + " recipients");
    }
    std::uint64_t work = 0;
    for (const EnvelopeRecipient& recipient : recipients) {
        const CertificateKey* key = recipient.state().certificate();
        work += key == nullptr ? 0 : key->work;
    }
    if (work > maximumEnvelopeWork) {
        raise(failures::envelopeWriter, "the keys of the recipients cost too much to encrypt with");
    }
}

constexpr const char* s_broken =
    "the message is broken: writing to it failed before, and what the target has is not all of it";

void send(MediaOutImpl& target, const Encoded& octets) {
    if (!octets.empty()) {
        target.write(octets.data(), static_cast<unsigned int>(octets.size()));
    }
}

std::string bytes(std::uint64_t count) {
    return std::to_string(count) + (count == 1 ? " byte" : " bytes");
}

} // namespace

EnvelopeStream::EnvelopeStream(const std::vector<EnvelopeRecipient>& recipients, const EnvelopeOptions& options)
    : m_algorithm(algorithmOf(options.cipher)),
      m_encoding(options.encoding),
      m_announced(options.bodyLength),
      m_temporaryFile(temporaryFile(options.temporaryFile)) {
    if (m_encoding != EnvelopeEncoding::ber && m_encoding != EnvelopeEncoding::der) {
        raise(failures::envelopeWriter, "no such encoding: " + std::to_string(static_cast<int>(m_encoding)));
    }
    checkWork(recipients);
    if (m_announced && *m_announced > (m_algorithm.authenticated ? s_longestGcm : s_longestBody)) {
        raise(failures::envelopeWriter, "a body of " + bytes(*m_announced) + " is longer than " +
                                            bytes(m_algorithm.authenticated ? s_longestGcm : s_longestBody));
    }
    makeFrame(recipients, options);
}

EnvelopeStream::~EnvelopeStream() {
    OPENSSL_cleanse(content(), std::min(m_filled + m_algorithm.block, m_memory.size() - headerRoom));
}

void EnvelopeStream::makeFrame(const std::vector<EnvelopeRecipient>& recipients, const EnvelopeOptions& options) {
    const auto contentType = openssl::objectIdentifier(options.contentType);
    if (!contentType) {
        raise(failures::envelopeWriter, "the content type is no object identifier");
    }
    m_frame.authenticated = m_algorithm.authenticated;
    m_frame.contentType = *contentType;
    Encoded associated;
    if (m_algorithm.authenticated && *contentType != openssl::objectIdentifier(NID_pkcs7_data)) {
        const Encoded values = framing::setOf(std::array{*contentType});
        m_frame.attributes = framing::sequenceOf({openssl::objectIdentifier(NID_pkcs9_contentType), values});
        associated = framing::setOf(std::array{m_frame.attributes}); // under the tag of a SET (RFC 5083, 2.2)
    }
    if (!m_encryption.start(m_algorithm, associated)) {
        raiseWithErrors(failures::envelopeWriter);
    }
    m_frame.cipher = m_encryption.identifier();

    std::vector<Encoded> elements;
    elements.reserve(recipients.size());
    std::size_t octets = 0;
    bool anyPassword = false;
    bool allOfVersion0 = true;
    for (const EnvelopeRecipient& recipient : recipients) {
        RecipientInfoElement element =
            recipientInfo(recipient.state(), elements.size() + 1, m_algorithm, m_encryption.key());
        octets += element.encoded.size();
        if (octets > maximumRecipientOctets) {
            raise(failures::envelopeWriter,
                  "the recipients take more than " + bytes(maximumRecipientOctets) + ", which readers refuse");
        }
        anyPassword = anyPassword || element.isPassword;
        allOfVersion0 = allOfVersion0 && element.version == 0;
        elements.push_back(std::move(element.encoded));
    }
    m_encryption.forgetKey();
    if (m_encoding == EnvelopeEncoding::der) {
        framing::sortForDer(elements);
    }
    m_frame.recipients = framing::setOf(elements);
    m_frame.version = m_algorithm.authenticated ? 0 : versionFor(anyPassword, allOfVersion0);
}

bool EnvelopeStream::isKept() const noexcept {
    return m_encoding == EnvelopeEncoding::der && !m_announced;
}

std::uint64_t EnvelopeStream::encryptedLength(std::uint64_t bodyLength) const noexcept {
    return m_algorithm.block == 1 ? bodyLength : (bodyLength / m_algorithm.block + 1) * m_algorithm.block;
}

void EnvelopeStream::breakOff(const failures::Failure& failure, const std::string& reason) {
    m_phase = Phase::broken;
    raise(failure, reason);
}

void EnvelopeStream::write(const MediaOut& target, const unsigned char* data, unsigned int length) {
    if (data == nullptr || length == 0) {
        return;
    }
    if (m_phase == Phase::broken) {
        raise(failures::envelopeWrite, s_broken);
    }
    if (m_phase != Phase::open) {
        raise(failures::envelopeWrite, "written to after its end");
    }
    MediaOutImpl* const out = isKept() ? nullptr : target.operator->(); // throws without one, before a byte is taken
    checkLength(length);
    m_phase = Phase::broken; // unless all of what follows succeeds
    if (m_taken == 0) {
        start(out);
    }
    take(out, data, length);
    m_taken += length;
    m_phase = Phase::open;
}

void EnvelopeStream::checkLength(std::uint64_t length) {
    const std::uint64_t most = m_announced.value_or(m_algorithm.authenticated ? s_longestGcm : s_longestBody);
    if (length <= most - m_taken) {
        return;
    }
    if (m_announced) {
        breakOff(failures::envelopeWrite, "the body is longer than the " + bytes(most) + " that were announced");
    }
    breakOff(failures::envelopeWrite,
             (m_algorithm.authenticated ? "AES in GCM mode encrypts no more than " : "a body has no more than ") +
                 bytes(most));
}

void EnvelopeStream::take(MediaOutImpl* target, const unsigned char* data, std::size_t length) {
    while (length != 0) {
        const std::size_t room = segmentLength - m_filled;
        std::size_t count = std::min(length, room);
        const std::size_t ragged = m_filled % s_ofAes;
        if (count >= small && ragged == 0) { // whole blocks go straight from where they are
            count -= count % s_ofAes;
            encryptWaiting();
            if (!m_encryption.encrypt(content() + m_filled, data, count)) {
                raiseWithErrors(failures::envelopeWrite);
            }
            m_encrypted += count;
        } else {
            if (count >= small) { // as few as make the block whole
                count = s_ofAes - ragged;
            }
            std::memcpy(content() + m_filled, data, count);
        }
        m_filled += count;
        data += count;
        length -= count;
        if (m_filled == segmentLength) {
            encryptWaiting();
            passSegment(target);
        }
    }
}

/// Called with whole blocks alone, so that OpenSSL holds nothing back.
void EnvelopeStream::encryptWaiting() {
    if (!m_encryption.encrypt(content() + m_encrypted, m_filled - m_encrypted)) {
        raiseWithErrors(failures::envelopeWrite);
    }
    m_encrypted = m_filled;
}

/// Hands on what is in the segment, all of which is encrypted.
void EnvelopeStream::passSegment(MediaOutImpl* target) {
    if (target == nullptr) {
        if (!m_kept) {
            constexpr unsigned int inMemory = 0x10000;
            m_kept.emplace(inMemory, m_temporaryFile.c_str());
        }
        m_kept->write(content(), static_cast<unsigned int>(m_filled));
    } else if (m_encoding == EnvelopeEncoding::der) {
        target->write(content(), static_cast<unsigned int>(m_filled));
    } else if (m_filled != 0) {
        m_header.clear();
        framing::appendHeader(m_header, framing::TagClass::universal, false, framing::octetString, m_filled);
        unsigned char* at = content() - m_header.size();
        std::copy(m_header.begin(), m_header.end(), at);
        target->write(at, static_cast<unsigned int>(m_header.size() + m_filled));
    }
    m_filled = 0;
    m_encrypted = 0;
}

void EnvelopeStream::start(MediaOutImpl* target) {
    if (target != nullptr) {
        send(*target,
             m_encoding == EnvelopeEncoding::ber ? m_frame.head() : m_frame.head(encryptedLength(*m_announced)));
    }
}

void EnvelopeStream::end(const MediaOut& target) {
    if (m_phase == Phase::ended) {
        return;
    }
    if (m_phase == Phase::broken) {
        raise(failures::envelopeEnd, s_broken);
    }
    MediaOutImpl* const out = target.operator->();
    if (m_phase == Phase::open) {
        if (m_announced && m_taken != *m_announced) {
            breakOff(failures::envelopeEnd,
                     "the body has " + bytes(m_taken) + ", " + std::to_string(*m_announced) + " were announced");
        }
        finish(isKept() ? nullptr : out);
    }
    if (m_phase == Phase::encrypted) {
        sendKept(target);
    }
    out->end();
    m_phase = Phase::ended;
    m_kept.reset();
}

void EnvelopeStream::finish(MediaOutImpl* target) {
    m_phase = Phase::broken; // unless all of what follows succeeds
    if (m_taken == 0) {
        start(target);
    }
    std::size_t count = m_filled - m_encrypted;
    if (!m_encryption.finish(content() + m_encrypted, count)) {
        raiseWithErrors(failures::envelopeEnd);
    }
    m_filled = m_encrypted + count;
    std::array<unsigned char, openssl::ContentEncryption::tagLength> tag{};
    if (m_algorithm.authenticated && !m_encryption.tag(tag)) {
        raiseWithErrors(failures::envelopeEnd);
    }
    m_tail = m_frame.tail(m_encoding == EnvelopeEncoding::ber, tag);
    if (target == nullptr) {
        m_phase = Phase::encrypted;
        return;
    }
    passSegment(target);
    send(*target, m_tail);
    m_phase = Phase::sent;
}

void EnvelopeStream::sendKept(MediaOut target) {
    send(*target, m_frame.head(encryptedLength(m_taken)));
    if (m_kept) {
        m_kept->in().write(target);
    }
    if (m_filled != 0) {
        target.write(content(), static_cast<unsigned int>(m_filled));
    }
    send(*target, m_tail);
    m_phase = Phase::sent;
}

} // namespace Norvane::Crypto::CMS
