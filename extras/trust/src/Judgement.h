#pragma once

/// \file
/// One certificate judged once: OpenSSL builds and checks the chain, and what it says on the way is written down instead of
/// ending it.

#include "Checks.h"
#include "Lists.h"
#include "OpenSsl.h"
#include "Snapshot.h"
#include "Wording.h"

#include <norvcrypto-trust/TrustVerdict.h>

#include <exception>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace Norvane::Crypto::Trust::detail {

/// What is judged, and by what.
struct Request {
    NVX509::RefCertificate certificate;
    std::vector<X509*> candidates; ///< what the chain may be built from beside the anchors, those of the snapshot first
    std::vector<X509*> tooLarge;   ///< certificates of the message that are none of them, for their keys
    const std::unordered_map<const X509*, NVX509::RefCertificate>& fromMessage;
    const std::list<NVX509::RefCertificateRevocationList>& listsFromMessage;
    const Options& options;
    std::vector<Owned<ASN1_OBJECT>> policies;
    std::time_t at;
    Effort spent{}; ///< on other ways before
};

class Judgement {
public:
    /// Makes a store of anchors one that judgements can be held with.
    static void prepare(X509_STORE* store);

    Judgement(const Snapshot& snapshot, const Request& request);
    Judgement(const Judgement&) = delete;
    Judgement& operator=(const Judgement&) = delete;

    /// Once. `validUntil` is left to the caller, but for the lists that were looked at: see `lists()`.
    Verdict reach();
    /// The lists that may have mattered.
    [[nodiscard]] const std::vector<X509_CRL*>& lists() const { return m_lists.handedOut(); }
    /// What it took, and what was spent before.
    [[nodiscard]] const Effort& effort() const noexcept { return m_effort; }

private:
    /// What is known of a certificate of the chain.
    struct Place {
        std::vector<NVX509::RefCertificateRevocationList> lists;
        bool missing = false;
        bool unusable = false;
        bool revoked = false;
    };
    class ListInHand;
    enum class Weight : int { reason, note };

    static Judgement& of(const X509_STORE_CTX* context);
    static int onError(int good, X509_STORE_CTX* context);
    static int onRevocation(X509_STORE_CTX* context);
    static int onList(X509_STORE_CTX* context, X509_CRL* list);
    static int onListEntry(X509_STORE_CTX* context, X509_CRL* list, X509* certificate);
    static int onPolicies(X509_STORE_CTX* context);
    static STACK_OF(X509_CRL) * onListsWanted(const X509_STORE_CTX* context, const X509_NAME* issuer);

    void setUp(X509_STORE_CTX* context, STACK_OF(X509) * untrusted);
    void failed(X509_STORE_CTX* context);
    bool chainFailed(const X509_STORE_CTX* context, int error, X509* about);
    bool issuerUnusable(unsigned int depth, X509* about);
    bool listFailed(X509_STORE_CTX* context, int error, X509* about);
    void certificateFailed(X509_STORE_CTX* context, int error, X509* about);
    void purposeFailed(unsigned int depth, X509* about);
    void signatureFailed(unsigned int depth, X509* about);
    [[nodiscard]] bool affordable(X509_STORE_CTX* context);
    [[nodiscard]] bool linksHold(X509_STORE_CTX* context);
    [[nodiscard]] bool isAnchor(const X509_STORE_CTX* context, unsigned int depth) const;

    void lookAt(const X509_STORE_CTX* context);
    void lookAtListSigner(const X509_STORE_CTX* context);
    [[nodiscard]] bool isSignedByItself(const X509_STORE_CTX* context, int depth) const;
    /// \returns whether it is weaker than asked. \param byItself its signature does not count
    bool lookAtStrength(unsigned int depth, X509* certificate, bool byItself, const std::string& whose = {});
    void lookAtTimes(unsigned int depth, X509* certificate);
    void lookAtFirst(X509* certificate);
    [[nodiscard]] RevocationStatus statusOf(unsigned int depth) const;
    void describe(STACK_OF(X509) * chain);

    void say(Weight weight, ReasonCode code, unsigned int depth, X509* about, Details details = {});
    void reason(ReasonCode code, unsigned int depth, X509* about, Details details = {}) {
        say(Weight::reason, code, depth, about, std::move(details));
    }
    /// Whether that was said already, as a reason or a note.
    [[nodiscard]] bool told(ReasonCode code, unsigned int depth) const;
    [[nodiscard]] NVX509::RefCertificate handleOf(X509* certificate) const;
    Place& place(unsigned int depth);

    const Snapshot& m_snapshot;
    const Request& m_request;
    Lists m_lists;
    Verdict m_verdict;
    std::vector<Place> m_places;
    std::exception_ptr m_thrown;
    std::unordered_set<const X509_CRL*> m_discredited; ///< lists whose entries do not count
    Effort m_effort;
    X509_CRL* m_list = nullptr;    ///< the one that is looked at
    bool m_broken = false;         ///< the chain does not end at an anchor
    bool m_built = false;          ///< the chain stands
    bool m_excluded = false;       ///< an address of the first certificate, whatever OpenSSL says
    bool m_linkFailed = false;     ///< a signature in the chain was found wrong before lists were looked at
    bool m_revocationDone = false; ///< lists were looked at
};

} // namespace Norvane::Crypto::Trust::detail
