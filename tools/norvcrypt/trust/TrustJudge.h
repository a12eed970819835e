#pragma once

#include "files/Input.h"
#include "trust/TrustOptions.h"

#include <norvcrypto-trust/Trust.h>
#include <norvcrypto-trust/TrustSender.h>

#include <ctime>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace norvcrypt {

/// What became of one certificate.
struct TrustAnswer {
    Norvane::Crypto::Trust::Verdict verdict;
    Norvane::Crypto::Trust::Options options;                   ///< what it was judged by
    std::vector<std::string> from;                             ///< the addresses that it has to be for
    std::optional<Norvane::Crypto::Trust::SenderMatch> sender; ///< when there are any

    [[nodiscard]] bool accepted() const { return verdict.accepted && (!sender || sender->matches()); }
    /// Those of the chain, then those of the sender.
    [[nodiscard]] std::vector<Norvane::Crypto::Trust::Reason> reasons() const;
};

/// Judges certificates by what the command line asks.
class TrustJudge {
public:
    /// Reads the files. \throws Failure: one cannot be read, or nobody is believed
    TrustJudge(TrustRequest request, Inputs& inputs);

    /// Certificates that may help to build chains, beside those of the command line and of the message.
    void addIntermediates(const std::list<Norvane::Crypto::NVX509::RefCertificate>& certificates) const;

    /// \param signingTime what the signer states, if anything
    [[nodiscard]] TrustAnswer judge(
        const Norvane::Crypto::NVX509::RefCertificate& certificate,
        const std::list<Norvane::Crypto::NVX509::RefCertificate>& fromMessage,
        const std::list<Norvane::Crypto::NVX509::RefCertificateRevocationList>& listsFromMessage,
        std::optional<std::time_t> signingTime = std::nullopt) const;

    /// Who judges, for readers that ask by themselves; and what the command line asked.
    [[nodiscard]] const Norvane::Crypto::Trust::Verifier& verifier() const noexcept { return m_verifier; }
    [[nodiscard]] const TrustRequest& request() const noexcept { return m_request; }

    /// What stands in the files and is not used: "FILE: reason", not escaped.
    [[nodiscard]] std::vector<std::string> problems() const;

private:
    TrustRequest m_request;
    std::shared_ptr<Norvane::Crypto::Trust::Material> m_material;
    Norvane::Crypto::Trust::Verifier m_verifier;
};

} // namespace norvcrypt
