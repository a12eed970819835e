// The reader's handle, and the streams that deliver and take the content.
#include "CMSStreamReader/SignedMessage.h"
#include "failures/Raise.h"
#include "openssl/RawValues.h"

#include <norvcrypto/CMSSignedReader.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

namespace Norvane::Crypto::CMS {

using framing::Elements;
using framing::Octets;

namespace {

/// Delivers the content.
class SignedContentIn : public MediaInImpl {
public:
    explicit SignedContentIn(std::shared_ptr<SignedMessage> message) : m_message(std::move(message)) {}

    [[nodiscard]] bool atEnd() const override { return m_message->content().empty(); }
    [[nodiscard]] int peek() const override {
        const Octets octets = m_message->content();
        return octets.empty() ? -1 : octets.front();
    }

    using MediaInImpl::read;
    int read(unsigned char* out, unsigned int length) override {
        const auto wanted = std::min<std::size_t>(length, std::numeric_limits<int>::max());
        std::size_t done = 0;
        while (done != wanted) {
            const Octets octets = m_message->content();
            if (octets.empty()) {
                break;
            }
            const std::size_t count = std::min(octets.size(), wanted - done);
            std::memcpy(out + done, octets.data(), count);
            m_message->consume(count);
            done += count;
        }
        return static_cast<int>(done);
    }

    /// Pieces of the source, not copied.
    MediaOut& write(MediaOut& out) override {
        for (Octets octets = m_message->content(); !octets.empty(); octets = m_message->content()) {
            out.write(octets.data(), static_cast<unsigned int>(octets.size()));
            m_message->consume(octets.size());
        }
        return out;
    }

private:
    std::shared_ptr<SignedMessage> m_message;
};

/// Takes the body of a detached message.
class SignedBodyOut : public MediaOutImpl {
public:
    explicit SignedBodyOut(std::shared_ptr<SignedMessage> message) : m_message(std::move(message)) {}

    using MediaOutImpl::write;
    void write(const unsigned char* data, unsigned int length) override {
        if (length != 0) {
            m_message->write(data, length);
        }
    }
    [[nodiscard]] unsigned long tell() const override { return m_message->bodyLength(); }

private:
    std::shared_ptr<SignedMessage> m_message;
};

std::vector<Buffer> copiesOf(Octets set) {
    std::vector<Buffer> copies;
    Elements elements(set);
    for (auto element = elements.next(); element; element = elements.next()) {
        copies.emplace_back(element->whole.data(), static_cast<unsigned int>(element->whole.size()), false);
    }
    return copies;
}

} // namespace

SignedReader::SignedReader(const MediaIn& in) : SignedReader(in, Budget()) {}

SignedReader::SignedReader(const MediaIn& in, const Budget& budget)
    : m_message(std::make_shared<SignedMessage>(in, budget)) {
    static_cast<MediaIn&>(*this) = MediaIn(makeReference<SignedContentIn, MediaInImpl>(m_message));
}

SignedReader::~SignedReader() = default;

std::string SignedReader::contentType() const {
    const Octets content = m_message->contentType();
    std::vector<unsigned char> element;
    framing::appendHeader(element, framing::TagClass::universal, false, framing::objectIdentifier, content.size());
    element.insert(element.end(), content.begin(), content.end());
    return openssl::digitsOf(element);
}

bool SignedReader::isDetached() const noexcept {
    return m_message->isDetached();
}

MediaOut SignedReader::digest() const {
    if (!isDetached()) {
        failures::raise(failures::signedReader, "the content is in the structure");
    }
    return MediaOut(makeReference<SignedBodyOut, MediaOutImpl>(m_message));
}

std::uint64_t SignedReader::bodyLength() const noexcept {
    return m_message->bodyLength();
}

bool SignedReader::isComplete() const noexcept {
    return m_message->isComplete();
}

const std::vector<SignedReader::Signer>& SignedReader::signers() const {
    m_message->requireComplete();
    if (m_signers.empty()) {
        std::vector<Signer> all;
        for (SignerParts& parts : m_message->signers()) {
            all.push_back(Signer(m_message, &parts));
        }
        m_signers = std::move(all); // all of them, or none when there is no memory
    }
    return m_signers;
}

SignatureResult SignedReader::verdict(const Signer& signer) const {
    m_message->requireComplete();
    if (signer.m_message != m_message) {
        failures::raise(failures::signedReader, "a signer of another message");
    }
    return m_message->verdict(*signer.m_parts);
}

SignatureResult SignedReader::verdict(const Signer& signer, const NVX509::RefCertificate& certificate) const {
    m_message->requireComplete();
    if (signer.m_message != m_message) {
        failures::raise(failures::signedReader, "a signer of another message");
    }
    return m_message->verdict(std::as_const(*signer.m_parts), certificate);
}

bool SignedReader::isValid(const Signer& signer, const NVX509::RefCertificate& certificate) const {
    return verdict(signer, certificate).verdict == SignatureVerdict::good;
}

SignatureReport SignedReader::report() const {
    SignatureReport report;
    for (const Signer& signer : signers()) {
        report.signers.push_back(verdict(signer));
    }
    report.body = isDetached() ? JudgedBody::given : JudgedBody::embedded;
    report.bodyLength = bodyLength();
    return report;
}

SignatureResult SignedReader::verdictOnAttributes(const Signer& signer, const NVX509::RefCertificate& certificate,
                                                  const std::string& digestAlgorithm) const {
    m_message->requireComplete();
    if (signer.m_message != m_message) {
        failures::raise(failures::signedReader, "a signer of another message");
    }
    return m_message->verdictOnAttributes(*signer.m_parts, certificate, digestAlgorithm);
}

const std::list<NVX509::RefCertificate>& SignedReader::certificates() const {
    m_message->requireComplete();
    return m_message->certificates();
}

const std::list<NVX509::RefCertificateRevocationList>& SignedReader::revocationLists() const {
    m_message->requireComplete();
    return m_message->revocationLists();
}

std::vector<Buffer> SignedReader::encodedCertificates() const {
    m_message->requireComplete();
    return copiesOf(m_message->certificateSet());
}

std::vector<Buffer> SignedReader::encodedRevocationLists() const {
    m_message->requireComplete();
    return copiesOf(m_message->revocationSet());
}

} // namespace Norvane::Crypto::CMS
