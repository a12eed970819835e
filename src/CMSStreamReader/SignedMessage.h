#pragma once

/// \file
/// A signed message while it is read, and what is known of it afterwards.

#include "CMSStreamReader/SignedCertificates.h"
#include "CMSStreamReader/SignedJudge.h"
#include "CMSStreamReader/SignedParts.h"
#include "framing/Reader.h"

#include <norvcrypto/CMSSignedReader.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Norvane::Crypto::CMS {

class SignedMessage {
public:
    SignedMessage(const MediaIn& in, const SignedReader::Budget& budget);

    /// The next octets of the content, digested already; none at its end, behind which all is read.
    framing::Octets content();
    /// Takes that many of them.
    void consume(std::size_t count) noexcept { m_slice = m_slice.subspan(count); }

    [[nodiscard]] framing::Octets contentType() const noexcept { return m_contentType; }
    [[nodiscard]] bool isDetached() const noexcept { return m_isDetached; }
    [[nodiscard]] bool isComplete() const noexcept { return m_state == State::complete; }
    [[nodiscard]] std::uint64_t bodyLength() const noexcept { return m_length; }
    /// Adds to the body of a detached message.
    void write(const unsigned char* data, std::size_t count);

    /// Throws unless it was read to the end.
    void requireComplete();
    std::vector<SignerParts>& signers() noexcept { return m_signers; }
    /// Its elements.
    [[nodiscard]] framing::Octets certificateSet() const noexcept { return m_certificateSet; }
    [[nodiscard]] framing::Octets revocationSet() const noexcept { return m_revocationSet; }
    KeptOctets& kept() noexcept { return m_kept; }

    SignatureResult verdict(SignerParts& signer);
    SignatureResult verdict(const SignerParts& signer, const NVX509::RefCertificate& certificate);
    /// With `certificate` unless it is empty; `digestAlgorithm` replaces the signer's unless that is empty.
    SignatureResult verdictOnAttributes(const SignerParts& signer, const NVX509::RefCertificate& certificate,
                                        const std::string& digestAlgorithm);
    const std::list<NVX509::RefCertificate>& certificates();
    const std::list<NVX509::RefCertificateRevocationList>& revocationLists();

private:
    enum class State : std::uint8_t { reading, complete, failed };

    template <class Work> void guarded(Work work);
    framing::Octets takeIdentifier();
    framing::Octets takeElements(std::size_t limit);
    void readHead();
    void readDigestAlgorithms(framing::Octets algorithms);
    void readTail();
    void readSigners(framing::Octets signers);
    void startDigests();
    void digest(framing::Octets octets);
    void load();
    const SignedOctets& signedContent();
    SignedCertificates& named();
    std::optional<SignatureResult> faultOf(const SignerParts& signer, SignatureInQuestion& question);
    void forgetVerdicts();

    SignedReader::Budget m_budget;
    framing::Reader m_reader;
    State m_state = State::reading;
    std::string m_failure;

    framing::Octets m_contentType;          // the octets of the identifier
    std::vector<const EVP_MD*> m_announced; // in front of the content, or by the signers of a detached message
    bool m_isDetached = false;
    framing::Octets m_piece; // what is left of the reader's
    framing::Octets m_slice; // what of that was digested and not yet taken

    BodyDigests m_digests;
    AttributeSetDetector m_attributes;
    std::uint64_t m_length = 0;
    std::vector<unsigned char> m_keptContent;
    bool m_keepsContent = false;
    std::optional<SignedOctets> m_signedContent;

    framing::Octets m_certificateSet;
    framing::Octets m_revocationSet;
    KeptOctets m_kept;
    std::vector<SignerParts> m_signers;
    std::optional<SignedCertificates> m_named;
    Trials m_trials;
    Trials m_attributeTrials; ///< not forgotten when the body goes on
    std::optional<std::list<NVX509::RefCertificate>> m_certificates;
    std::optional<std::list<NVX509::RefCertificateRevocationList>> m_revocationLists;
};

} // namespace Norvane::Crypto::CMS
