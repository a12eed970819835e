#pragma once

/// \file
/// The body of an `EnvelopeReader`: what is known of the message, the key that was chosen, and the clear octets on their
/// way.

#include "CMSStreamReader/EnvelopeContent.h"
#include "CMSStreamReader/EnvelopeFraming.h"
#include "CMSStreamReader/EnvelopeRecipients.h"

#include <norvcrypto/CMSEnvelopeReader.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Norvane::Crypto::CMS {

class EnvelopeReaderImpl : public MediaInImpl {
public:
    using Budget = EnvelopeReader::Budget;
    using Recipient = EnvelopeReader::Recipient;
    using Verdict = EnvelopeReader::Verdict;

    EnvelopeReaderImpl(const MediaIn& in, const Budget& budget);
    ~EnvelopeReaderImpl() override;

    [[nodiscard]] const std::vector<Recipient>& recipients();
    [[nodiscard]] const EnvelopeFraming& frame() const noexcept { return m_frame; }
    [[nodiscard]] std::string cipher() const;
    void spillTo(const std::string& fileTemplate);

    bool open(const KeyLookup& keys);
    bool open(const Recipient& recipient, const NVX509::KeyCertificatePair& pair);
    bool open(const Recipient& recipient, const Buffer& key);
    bool openWithPassword(const Recipient& recipient, const Buffer& password);
    [[nodiscard]] const Recipient* opened();

    [[nodiscard]] const std::string& unsupported() const noexcept { return m_unsupported; }
    [[nodiscard]] Verdict verdict() const noexcept { return m_verdict; }

    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override;
    [[nodiscard]] int peek() const override;
    int read(unsigned char* out, unsigned int length) override;
    MediaOut& write(MediaOut& out) override;

private:
    struct Search;

    void readHead();
    [[nodiscard]] std::unique_ptr<EnvelopeContent> authenticated(framing::Octets source);
    [[nodiscard]] std::unique_ptr<EnvelopeContent> streamed();
    [[nodiscard]] bool mayOpen() const;
    [[nodiscard]] const RecipientParts& partsOf(const Recipient& recipient) const;
    bool consider(Search& search, const RecipientParts& parts, std::size_t number);
    bool tryKey(Search& search, const RecipientParts& parts, EVP_PKEY* key, std::size_t number);
    bool isUnsupported(const std::string& name);
    bool choose(const openssl::WipedBytes& contentKey, bool uncertain, std::size_t number);
    [[nodiscard]] std::size_t numberOf(const Recipient& recipient);
    bool fill();
    void step();

    Budget m_budget;
    EnvelopeFraming m_frame;
    openssl::AlgorithmPtr m_algorithm;
    std::unique_ptr<EnvelopeContent> m_content;                          ///< null when it is not supported
    std::shared_ptr<const std::vector<unsigned char>> m_recipientOctets; ///< what the values for callers refer to
    std::vector<Recipient> m_recipients;
    std::optional<std::size_t> m_opened;
    std::size_t m_operations = 0; ///< with private keys
    std::string m_unsupported;
    Verdict m_verdict = Verdict::Unopened;
    framing::Octets m_clear; ///< decrypted, and not yet handed out
};

} // namespace Norvane::Crypto::CMS
