#include "CMSStreamReader/SignedMessage.h"

#include "failures/Raise.h"
#include "openssl/Acceptance.h"
#include "openssl/ErrorQueue.h"
#include "openssl/RawValues.h"

#include <openssl/objects.h>

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

namespace Norvane::Crypto::CMS {

using framing::Broken;
using framing::Elements;
using framing::Fault;
using framing::Octets;
using framing::TagClass;

namespace {

constexpr std::size_t longestPart = std::numeric_limits<std::int32_t>::max();
/// What is digested and handed on at once: it stays in the processor's cache from one to the other.
constexpr std::size_t sliceSize = std::size_t{32} << 10U;

constexpr std::array<unsigned char, 9> idSignedData{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07, 0x02};

Octets contentOf(Octets element) {
    const auto whole = framing::firstElement(element);
    if (!whole) {
        throw Broken(Fault::malformed);
    }
    return whole->content;
}

/// The whole identifier of an algorithm of that name; empty when OpenSSL does not know it.
std::vector<unsigned char> identifierOf(const std::string& name) {
    std::vector<unsigned char> element;
    if (const openssl::ObjectPtr object(OBJ_txt2obj(name.c_str(), 0)); object != nullptr) {
        const unsigned char* const octets = OBJ_get0_data(object.get());
        framing::appendHeader(element, framing::TagClass::universal, false, framing::objectIdentifier,
                              OBJ_length(object.get()));
        element.insert(element.end(), octets, octets + OBJ_length(object.get()));
    }
    return element;
}

/// Sees to it that octets are elements of a CertificateSet or of RevocationInfoChoices, and nothing else.
Octets requireChoices(Octets octets) {
    Elements elements(octets);
    while (!elements.atEnd()) {
        const auto element = elements.next();
        if (!element || !element->header.constructed ||
            (!element->isUniversal(framing::sequence) && element->header.tagClass != TagClass::contextSpecific)) {
            throw Broken(Fault::malformed);
        }
    }
    return octets;
}

} // namespace

SignedMessage::SignedMessage(const MediaIn& in, const SignedReader::Budget& budget)
    : m_budget(budget),
      m_reader(in, {32, budget.segments}) {
    // Buffers and OpenSSL count no further.
    m_budget.head = std::min(m_budget.head, longestPart);
    m_budget.tail = std::min(m_budget.tail, longestPart);
    guarded([this] { readHead(); });
}

/// Runs what reads the source. What goes wrong once goes wrong in the same way ever after.
template <class Work> void SignedMessage::guarded(Work work) {
    if (m_state == State::failed) {
        failures::raise(failures::signedReader, m_failure);
    }
    try {
        work();
    } catch (const Broken& broken) {
        m_state = State::failed;
        m_failure = broken.what();
        failures::raise(failures::signedReader, m_failure);
    } catch (...) {
        m_state = State::failed;
        if (m_failure.empty()) {
            m_failure = "the source failed";
        }
        throw;
    }
}

/// The octets of the next element, which must be an object identifier. A content type without octets, above all, would let
/// a countersignature, whose content has no type, pass for a signature.
Octets SignedMessage::takeIdentifier() {
    constexpr std::size_t longest = 1024;
    m_reader.expect(framing::objectIdentifier);
    const auto identifier = framing::firstElement(m_reader.take(longest));
    if (!identifier || !framing::isObjectIdentifier(*identifier)) {
        throw Broken(Fault::malformed);
    }
    return identifier->content;
}

/// The elements of the next one, which must be constructed.
Octets SignedMessage::takeElements(std::size_t limit) {
    if (!m_reader.next()->constructed) {
        throw Broken(Fault::unexpected);
    }
    return contentOf(m_reader.take(limit));
}

/// ContentInfo and SignedData (RFC 5652, 3 and 5.1), up to the content.
void SignedMessage::readHead() {
    m_reader.expect(framing::sequence);
    m_reader.enter();
    if (!std::ranges::equal(takeIdentifier(), idSignedData)) {
        m_failure = "no signed data";
        failures::raise(failures::signedReader, m_failure);
    }
    m_reader.expect(TagClass::contextSpecific, 0);
    m_reader.enter();
    m_reader.expect(framing::sequence);
    m_reader.enter();
    constexpr std::size_t longestVersion = 64;
    m_reader.expect(framing::integer);
    const auto version = framing::firstElement(m_reader.take(longestVersion));
    if (!version || !framing::isSmallInteger(*version)) {
        throw Broken(Fault::malformed);
    }
    m_reader.expect(framing::set);
    readDigestAlgorithms(takeElements(m_budget.head));
    m_reader.expect(framing::sequence);
    m_reader.enter();
    m_contentType = takeIdentifier();
    if (m_reader.next() == nullptr) {
        m_isDetached = true;
        m_announced.clear();
        m_reader.leave();
        readTail();
        return;
    }
    m_reader.expect(TagClass::contextSpecific, 0);
    m_reader.enter();
    const framing::Header* content = m_reader.next();
    if (content == nullptr) {
        throw Broken(Fault::unexpected);
    }
    if (!content->is(TagClass::universal, framing::octetString)) {
        m_failure = "unsupported: the content is a structure, not bytes";
        failures::raise(failures::signedReader, m_failure);
    }
    startDigests();
    m_reader.openString(framing::Segments::strict);
}

void SignedMessage::readDigestAlgorithms(Octets algorithms) {
    constexpr std::size_t mostAnnounced = 32; // different ones, which are looked up; there are not as many
    std::vector<Octets> seen;
    Elements elements(algorithms);
    while (!elements.atEnd()) {
        const auto algorithm = elements.nextUniversal(framing::sequence);
        if (!algorithm) {
            throw Broken(Fault::malformed);
        }
        const Octets identifier = algorithmOf(*algorithm);
        if (seen.size() == mostAnnounced ||
            std::ranges::any_of(seen, [&](Octets one) { return std::ranges::equal(one, identifier); })) {
            continue;
        }
        seen.push_back(identifier);
        if (const EVP_MD* digest = contentDigest(identifier)) {
            m_announced.push_back(digest);
        }
    }
}

/// What is digested and kept. Of a detached message the signers are known, and what they need, announced or not.
void SignedMessage::startDigests() {
    if (m_isDetached) {
        for (const SignerParts& signer : m_signers) {
            if (const EVP_MD* digest = contentDigest(signer.digestAlgorithm)) {
                m_announced.push_back(digest);
            }
        }
        m_keepsContent = std::ranges::any_of(m_signers, [](const SignerParts& signer) {
            return !signer.signedAttributes && openssl::signatureScheme(signer.signatureAlgorithm).coversMessage();
        });
    } else {
        // Ed25519 comes with SHA-512, Ed448 with SHAKE256 (RFC 8419, 3.1).
        m_keepsContent = m_announced.empty() || std::ranges::any_of(m_announced, [](const EVP_MD* digest) {
                             const int type = EVP_MD_get_type(digest);
                             return type == NID_sha512 || type == NID_shake256;
                         });
    }
    for (const EVP_MD* digest : m_announced) {
        m_digests.start(digest);
    }
}

void SignedMessage::digest(Octets octets) {
    m_digests.update(octets.data(), octets.size());
    m_attributes.update(octets.data(), octets.size());
    m_length += octets.size();
    if (m_keepsContent) {
        if (octets.size() <= m_budget.content && m_keptContent.size() <= m_budget.content - octets.size()) {
            m_keptContent.insert(m_keptContent.end(), octets.begin(), octets.end());
        } else {
            m_keepsContent = false;
            m_keptContent = {};
        }
    }
}

/// Makes the next slice; none at the end of the content, behind which everything is read then.
void SignedMessage::load() {
    if (m_piece.empty()) {
        m_piece = m_reader.piece();
        if (m_piece.empty()) {
            m_reader.leave();
            m_reader.leave();
            readTail();
            return;
        }
    }
    m_slice = m_piece.first(std::min(sliceSize, m_piece.size()));
    m_piece = m_piece.subspan(m_slice.size());
    digest(m_slice);
}

Octets SignedMessage::content() {
    if (m_slice.empty() && m_state != State::complete) {
        guarded([this] { load(); });
    }
    return m_slice;
}

void SignedMessage::readTail() {
    const framing::Header* next = m_reader.next();
    if (next != nullptr && next->is(TagClass::contextSpecific, 0)) {
        m_certificateSet = requireChoices(takeElements(m_budget.tail));
        next = m_reader.next();
    }
    if (next != nullptr && next->is(TagClass::contextSpecific, 1)) {
        m_revocationSet = requireChoices(takeElements(m_budget.tail));
    }
    m_reader.expect(framing::set);
    readSigners(takeElements(m_budget.tail));
    m_reader.leave(); // SignedData
    m_reader.leave();
    m_reader.leave(); // ContentInfo
    m_reader.finish();
    if (m_isDetached) {
        startDigests();
    }
    m_state = State::complete;
}

void SignedMessage::readSigners(Octets signers) {
    Elements elements(signers);
    while (!elements.atEnd()) {
        const auto signer = elements.next();
        if (!signer) {
            throw Broken(Fault::malformed);
        }
        if (m_signers.size() == maximumSigners) {
            m_failure = "more than " + std::to_string(maximumSigners) + " signers";
            failures::raise(failures::signedReader, m_failure);
        }
        m_signers.push_back(readSigner(signer->whole, m_kept));
    }
}

void SignedMessage::write(const unsigned char* data, std::size_t count) {
    forgetVerdicts(); // before what they refer to moves
    digest({data, count});
}

void SignedMessage::forgetVerdicts() {
    if (!m_signedContent) {
        return;
    }
    m_signedContent.reset();
    m_trials = Trials();
    for (SignerParts& signer : m_signers) {
        signer.verdict.reset(); // those of countersigners are not about the body
    }
}

void SignedMessage::requireComplete() {
    static_cast<void>(content()); // the end may be next
    if (m_state == State::failed) {
        failures::raise(failures::signedReader, m_failure);
    }
    if (m_state == State::reading) {
        failures::raise(failures::signedReader, "the content was not read to its end");
    }
}

const SignedOctets& SignedMessage::signedContent() {
    if (!m_signedContent) {
        SignedOctets content;
        content.digests = m_digests.finished();
        content.announced = m_announced;
        content.contentType = m_contentType;
        content.isAttributeSet = m_attributes.isAttributeSet();
        if (m_keepsContent) {
            content.octets = Octets(m_keptContent);
        }
        m_signedContent = std::move(content); // all of it, or nothing when there is no memory
    }
    return *m_signedContent;
}

std::optional<SignatureResult> SignedMessage::faultOf(const SignerParts& signer, SignatureInQuestion& question) {
    return signer.signer == nullptr
               ? faultBesideSignature(signer, signedContent(), question)
               : faultBesideSignature(signer, signatureOf(*signer.signer, contentDigest(signer.digestAlgorithm)),
                                      question);
}

SignedCertificates& SignedMessage::named() {
    if (!m_named) {
        m_named.emplace(m_certificateSet);
    }
    return *m_named;
}

SignatureResult SignedMessage::verdict(SignerParts& signer) {
    if (!signer.verdict) {
        const openssl::ErrorMark mark;
        const NamedCertificates named = this->named().namedBy(signer);
        SignatureInQuestion question;
        if (auto fault = faultOf(signer, question)) {
            signer.verdict = std::move(*fault);
            if (!named.certificates.empty()) {
                signer.verdict->certificate = named.certificates.front();
            }
        } else {
            signer.verdict = judgeWithNamed(signer, question, m_trials, named);
        }
    }
    return *signer.verdict;
}

SignatureResult SignedMessage::verdict(const SignerParts& signer, const NVX509::RefCertificate& certificate) {
    const openssl::ErrorMark mark;
    X509* const x509 = certificate;
    SignatureInQuestion question;
    auto fault = faultOf(signer, question);
    SignatureResult result;
    if (fault) {
        result = std::move(*fault);
    } else if (x509 == nullptr) {
        result = refused(SignatureReason::certificateMissing);
    } else {
        Trials trials; // the caller chooses how often
        result = judgeWith(signer, question, trials, x509);
    }
    if (x509 != nullptr) {
        result.certificate = certificate;
    }
    return result;
}

SignatureResult SignedMessage::verdictOnAttributes(const SignerParts& signer, const NVX509::RefCertificate& certificate,
                                                   const std::string& digestAlgorithm) {
    const openssl::ErrorMark mark;
    X509* const x509 = certificate;
    const auto announced = announcedDigest(signer);
    if (!announced) {
        return about(refused(SignatureReason::messageDigestMissing), x509);
    }
    SignerParts parts = signer;
    std::vector<unsigned char> replacement;
    if (!digestAlgorithm.empty()) {
        replacement = identifierOf(digestAlgorithm);
        parts.digestAlgorithm = replacement;
    }
    // A body of that digest, whatever its length.
    SignedOctets content;
    content.contentType = signer.signer == nullptr ? m_contentType : Octets();
    if (const EVP_MD* digest = contentDigest(parts.digestAlgorithm);
        digest != nullptr && announced->size() <= EVP_MAX_MD_SIZE) {
        BodyDigest& value = content.digests.emplace_back();
        value.algorithm = digest;
        value.length = announced->size();
        std::ranges::copy(*announced, value.value.begin());
    }
    SignatureInQuestion question;
    if (auto fault = faultBesideSignature(parts, content, question)) {
        return about(std::move(*fault), x509);
    }
    return x509 == nullptr ? judgeWithNamed(parts, question, m_attributeTrials, named().namedBy(parts))
                           : about(judgeWith(parts, question, m_attributeTrials, x509), x509);
}

const std::list<NVX509::RefCertificate>& SignedMessage::certificates() {
    if (!m_certificates) {
        if (named().areTooMany()) {
            failures::raise(failures::signedReader,
                            "more than " + std::to_string(openssl::mostPublicKeys) + " certificates");
        }
        m_certificates = m_named->all();
    }
    return *m_certificates;
}

const std::list<NVX509::RefCertificateRevocationList>& SignedMessage::revocationLists() {
    if (!m_revocationLists) {
        std::list<NVX509::RefCertificateRevocationList> lists;
        Elements elements(m_revocationSet);
        std::size_t count = 0;
        for (auto element = elements.next(); element; element = elements.next()) {
            if (!element->isUniversal(framing::sequence)) {
                continue; // of another format
            }
            if (++count > openssl::mostPublicKeys) {
                failures::raise(failures::signedReader,
                                "more than " + std::to_string(openssl::mostPublicKeys) + " revocation lists");
            }
            auto list = NVX509::CertificateRevocationListFactory().readDER(
                Buffer(element->whole.data(), static_cast<unsigned int>(element->whole.size()), true));
            if (!list.isNull()) {
                lists.push_back(std::move(list));
            }
        }
        m_revocationLists = std::move(lists);
    }
    return *m_revocationLists;
}

} // namespace Norvane::Crypto::CMS
