// The body on its way into the digests, and the report.
#include "CMS/StructureParts.h"
#include "CMSVerification/BodyDigests.h"
#include "CMSVerification/Candidates.h"
#include "CMSVerification/Judge.h"
#include "failures/Raise.h"
#include "openssl/Pkcs7.h"
#include "openssl/Signers.h"

#include <norvcrypto/CMSVerification.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace Norvane::Crypto::CMS {

namespace {

std::vector<PKCS7_SIGNER_INFO*> signersOf(const PKCS7_SIGNED* content) {
    std::vector<PKCS7_SIGNER_INFO*> signers;
    const int count = std::max(sk_PKCS7_SIGNER_INFO_num(content->signer_info), 0);
    if (static_cast<std::size_t>(count) > maximumSigners) {
        failures::raise(failures::signatureVerifier, "more than " + std::to_string(maximumSigners) + " signers");
    }
    signers.reserve(static_cast<std::size_t>(count));
    for (int index = 0; index < count; ++index) {
        signers.push_back(sk_PKCS7_SIGNER_INFO_value(content->signer_info, index));
    }
    return signers;
}

/// A digest for each algorithm among the signers, up to the limit. One that does not start is left out.
BodyDigests digestsFor(const std::vector<PKCS7_SIGNER_INFO*>& signers) {
    const openssl::ErrorMark mark;
    BodyDigests digests;
    for (const PKCS7_SIGNER_INFO* signer : signers) {
        if (const EVP_MD* algorithm = openssl::signerDigest(signer)) {
            digests.start(algorithm);
        }
    }
    return digests;
}

} // namespace

struct SignatureVerifier::State {
    explicit State(const RefContentInfo& handle)
        : structure(handle),
          content(openssl::signedContent(StructureParts::structureOf(handle))) {
        if (content == nullptr || content->contents == nullptr) {
            failures::raise(failures::signatureVerifier, "no signed data");
        }
        if (carriedContent(structure) == CarriedContent::other) {
            failures::raise(failures::signatureVerifier, "the content is a structure, not bytes");
        }
        signers = signersOf(content);
        digests = digestsFor(signers);
        carried = openssl::dataOctets(content->contents);
    }

    void write(const unsigned char* data, std::size_t count) {
        digests.update(data, count);
        attributes.update(data, count);
        if (carried != nullptr && !differs) {
            const auto left = static_cast<std::uint64_t>(ASN1_STRING_length(carried)) - length;
            differs = count > left || std::memcmp(ASN1_STRING_get0_data(carried) + length, data, count) != 0;
        }
        length += count;
    }

    [[nodiscard]] bool differsFromContent() const {
        return carried != nullptr && (differs || length != static_cast<std::uint64_t>(ASN1_STRING_length(carried)));
    }

    /// `offerAll` offers the certificates.
    template <class OfferAll> [[nodiscard]] SignatureReport report(OfferAll offerAll) const {
        CandidateIndex index(signers);
        offerAll(index);
        const BodyFacts facts{digests.finished(), content->contents->type, attributes.isAttributeSet(),
                              differsFromContent()};
        SignatureReport report;
        report.bodyLength = length;
        Judge judge(facts);
        for (const PKCS7_SIGNER_INFO* signer : signers) {
            report.signers.push_back(judge(signer, index.of(signer)));
        }
        return report;
    }

    RefContentInfo structure;
    const PKCS7_SIGNED* content;
    std::vector<PKCS7_SIGNER_INFO*> signers;
    BodyDigests digests;
    AttributeSetDetector attributes;
    const ASN1_OCTET_STRING* carried = nullptr; // what the body must be equal to, too
    std::uint64_t length = 0;
    bool differs = false;
};

SignatureVerifier::SignatureVerifier(const RefContentInfo& structure) : m_state(std::make_unique<State>(structure)) {}
SignatureVerifier::~SignatureVerifier() = default;
SignatureVerifier::SignatureVerifier(SignatureVerifier&& other) noexcept = default;
SignatureVerifier& SignatureVerifier::operator=(SignatureVerifier&& other) noexcept = default;

void SignatureVerifier::write(const unsigned char* data, std::size_t length) {
    if (data != nullptr && length != 0) {
        m_state->write(data, length);
    }
}

void SignatureVerifier::write(MediaIn& body) {
    std::array<unsigned char, 65536> piece; // NOLINT(cppcoreguidelines-pro-type-member-init): filled before it is read
    for (int count = body.read(piece.data(), piece.size()); count > 0; count = body.read(piece.data(), piece.size())) {
        write(piece.data(), static_cast<std::size_t>(count));
    }
}

SignatureReport SignatureVerifier::report() const {
    return m_state->report([this](CandidateIndex& index) {
        openssl::LazyPkcs7* parts = StructureParts::of(m_state->structure);
        const std::size_t waiting = parts == nullptr ? 0 : parts->waitingCertificates();
        for (std::size_t at = 0; at != waiting; ++at) {
            // The others need not be decoded to know that no signer means them.
            if (index.mayName(parts->nameOfCertificate(at).serial)) {
                index.offer(parts->certificate(at));
            }
        }
        const STACK_OF(X509)* certificates = m_state->content->cert;
        for (int at = 0; at < sk_X509_num(certificates); ++at) {
            index.offer(sk_X509_value(certificates, at));
        }
    });
}

SignatureReport SignatureVerifier::report(const std::list<NVX509::RefCertificate>& certificates) const {
    return m_state->report([&certificates](CandidateIndex& index) {
        for (const NVX509::RefCertificate& certificate : certificates) {
            index.offer(certificate);
        }
    });
}

} // namespace Norvane::Crypto::CMS
