#include "Judgement.h"

#include "Certified.h"
#include "Checks.h"
#include "Policies.h"

#include <algorithm>
#include <utility>

namespace Norvane::Crypto::Trust::detail {

using NVX509::CertificateFactory;
using NVX509::RefCertificate;

namespace {

/// What OpenSSL does itself where a judgement is asked first.
struct Originals {
    X509_STORE_CTX_check_revocation_fn revocation;
    X509_STORE_CTX_check_crl_fn list;
    X509_STORE_CTX_cert_crl_fn listEntry;
    X509_STORE_CTX_check_policy_fn policies;
};

/// They are functions of OpenSSL's own that only a context tells.
const Originals& originals() {
    static const Originals found = [] {
        const auto store = made(X509_STORE_new());
        const auto context = made(X509_STORE_CTX_new());
        if (X509_STORE_CTX_init(context.get(), store.get(), nullptr, nullptr) != 1) {
            throw std::bad_alloc();
        }
        return Originals{X509_STORE_CTX_get_check_revocation(context.get()),
                         X509_STORE_CTX_get_check_crl(context.get()), X509_STORE_CTX_get_cert_crl(context.get()),
                         X509_STORE_CTX_get_check_policy(context.get())};
    }();
    return found;
}

/// Runs what may throw inside of a function that OpenSSL calls; nothing may leave through OpenSSL.
template <class Result, class Work> Result guarded(std::exception_ptr& thrown, Result failure, Work work) noexcept {
    try {
        return work();
    } catch (...) {
        thrown = std::current_exception();
        return failure;
    }
}

void acceptPolicy(X509_VERIFY_PARAM* param, const ASN1_OBJECT* policy) {
    auto copy = made(OBJ_dup(policy));
    if (X509_VERIFY_PARAM_add0_policy(param, copy.get()) != 1) {
        throw std::bad_alloc();
    }
    static_cast<void>(copy.release());
}

} // namespace

/// OpenSSL forgets which list it has in hand once it found its times wrong, and those of indirect lists nest.
class Judgement::ListInHand {
public:
    ListInHand(Judgement& judgement, X509_CRL* list)
        : m_judgement(judgement),
          m_before(std::exchange(judgement.m_list, list)) {}
    ~ListInHand() { m_judgement.m_list = m_before; }
    ListInHand(const ListInHand&) = delete;
    ListInHand& operator=(const ListInHand&) = delete;

private:
    Judgement& m_judgement;
    X509_CRL* m_before;
};

void Judgement::prepare(X509_STORE* store) {
    static_cast<void>(originals());
    X509_STORE_set_check_revocation(store, &Judgement::onRevocation);
    X509_STORE_set_check_crl(store, &Judgement::onList);
    X509_STORE_set_cert_crl(store, &Judgement::onListEntry);
    X509_STORE_set_lookup_crls(store, &Judgement::onListsWanted);
    X509_STORE_set_check_policy(store, &Judgement::onPolicies);
}

Judgement::Judgement(const Snapshot& snapshot, const Request& request)
    : m_snapshot(snapshot),
      m_request(request),
      m_lists(snapshot, request.listsFromMessage, request.at),
      m_effort(request.spent) {}

/// The issuer of an indirect list is checked in a context within the one of the certificate.
Judgement& Judgement::of(const X509_STORE_CTX* context) {
    while (const X509_STORE_CTX* parent = X509_STORE_CTX_get0_parent_ctx(context)) {
        context = parent;
    }
    return *static_cast<Judgement*>(X509_STORE_CTX_get_app_data(context));
}

int Judgement::onError(int good, X509_STORE_CTX* context) {
    Judgement& self = of(context);
    if (good == 1) {
        return 1;
    }
    return guarded(self.m_thrown, 0, [&] {
        self.failed(context);
        return 1;
    });
}

int Judgement::onRevocation(X509_STORE_CTX* context) {
    Judgement& self = of(context);
    const bool first = X509_STORE_CTX_get0_parent_ctx(context) == nullptr;
    return guarded(self.m_thrown, 0, [&] {
        self.m_built = true;
        if (!self.affordable(context)) {
            return 0;
        }
        if (first) {
            self.m_excluded = !self.m_broken && hasExcludedAddress(X509_STORE_CTX_get0_chain(context));
        } else {
            self.lookAtListSigner(context);
        }
        if (self.m_request.options.revocation == Revocation::none) {
            return 1;
        }
        const auto last = static_cast<unsigned int>(sk_X509_num(X509_STORE_CTX_get0_chain(context)) - 1);
        if ((first && self.m_broken) || !self.isAnchor(context, last) || !self.linksHold(context)) {
            return 1; // what is not issued by somebody who is believed cannot be revoked by anybody
        }
        self.m_revocationDone = true;
        return originals().revocation(context);
    });
}

int Judgement::onList(X509_STORE_CTX* context, X509_CRL* list) {
    Judgement& self = of(context);
    const ListInHand inHand(self, list);
    return originals().list(context, list);
}

int Judgement::onListEntry(X509_STORE_CTX* context, X509_CRL* list, X509* certificate) {
    Judgement& self = of(context);
    const ListInHand inHand(self, list);
    return guarded(self.m_thrown, 0, [&] {
        const auto depth = static_cast<unsigned int>(X509_STORE_CTX_get_error_depth(context));
        if (X509_STORE_CTX_get0_parent_ctx(context) == nullptr && !self.isAnchor(context, depth)) {
            self.place(depth).lists.push_back(self.m_lists.handleOf(list));
        }
        return originals().listEntry(context, list, certificate);
    });
}

int Judgement::onPolicies(X509_STORE_CTX* context) {
    Judgement& self = of(context);
    return guarded(self.m_thrown, 0, [&] {
        const bool isNested = X509_STORE_CTX_get0_parent_ctx(context) != nullptr; // of which OpenSSL asks no policy
        const auto answer =
            isNested ? std::nullopt
                     : answerBesideOpenssl(X509_STORE_CTX_get0_chain(context), !self.m_request.policies.empty());
        if (!answer) {
            return originals().policies(context);
        }
        const auto fail = [&](int error, int depth, X509* about) {
            X509_STORE_CTX_set_error(context, error);
            X509_STORE_CTX_set_error_depth(context, depth);
            X509_STORE_CTX_set_current_cert(context, about);
            self.failed(context);
        };
        for (const int depth : answer->invalid) {
            fail(X509_V_ERR_INVALID_POLICY_EXTENSION, depth, sk_X509_value(X509_STORE_CTX_get0_chain(context), depth));
        }
        if (answer->missing) {
            fail(X509_V_ERR_NO_EXPLICIT_POLICY, 0, nullptr);
        }
        return 1;
    });
}

STACK_OF(X509_CRL) * Judgement::onListsWanted(const X509_STORE_CTX* context, const X509_NAME* issuer) {
    Judgement& self = of(context);
    return guarded<STACK_OF(X509_CRL)*>(self.m_thrown, nullptr, [&] {
        STACK_OF(X509)* const chain = X509_STORE_CTX_get0_chain(context);
        const int above = X509_STORE_CTX_get_error_depth(context) + 1;
        X509* const issuing = sk_X509_value(chain, std::min(above, sk_X509_num(chain) - 1));
        return self.m_lists.of(X509_STORE_CTX_get_current_cert(context), issuer, issuing).release();
    });
}

void Judgement::setUp(X509_STORE_CTX* context, STACK_OF(X509) * untrusted) {
    const Options& options = m_request.options;
    if (X509_STORE_CTX_init(context, m_snapshot.store.get(), m_request.certificate, untrusted) != 1) {
        throw std::bad_alloc();
    }
    if (X509_STORE_CTX_set_app_data(context, this) != 1) {
        throw std::bad_alloc();
    }
    X509_STORE_CTX_set_verify_cb(context, &Judgement::onError);
    X509_VERIFY_PARAM* const param = X509_STORE_CTX_get0_param(context);
    X509_VERIFY_PARAM_set_time(param, m_request.at);
    constexpr unsigned int deepest = 100;
    X509_VERIFY_PARAM_set_depth(param, static_cast<int>(std::min(options.maximumDepth, deepest)));
    X509_VERIFY_PARAM_set_auth_level(param, 0); // keys and digests are looked at here, by the caller's measure
    unsigned long flags = X509_V_FLAG_TRUSTED_FIRST | X509_V_FLAG_POLICY_CHECK | X509_V_FLAG_EXTENDED_CRL_SUPPORT |
                          X509_V_FLAG_USE_DELTAS;
    if (options.revocation != Revocation::none) {
        flags |= X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL;
    }
    if (options.partialChain) {
        flags |= X509_V_FLAG_PARTIAL_CHAIN;
    }
    if (m_request.policies.empty()) { // without a set OpenSSL takes a chain that demands a policy for one without any
        acceptPolicy(param, OBJ_nid2obj(NID_any_policy));
    } else {
        flags |= X509_V_FLAG_EXPLICIT_POLICY;
    }
    X509_VERIFY_PARAM_set_flags(param, flags);
    for (const auto& policy : m_request.policies) {
        acceptPolicy(param, policy.get());
    }
    if (options.purpose == Purpose::sign || options.purpose == Purpose::encrypt) {
        X509_VERIFY_PARAM_set_purpose(param, options.purpose == Purpose::sign ? X509_PURPOSE_SMIME_SIGN
                                                                              : X509_PURPOSE_SMIME_ENCRYPT);
    }
}

Verdict Judgement::reach() {
    const QuietQuestion quiet;
    m_verdict.judgedAt = m_request.at;
    const auto untrusted = made(sk_X509_new_null());
    for (X509* candidate : m_request.candidates) {
        if (sk_X509_push(untrusted.get(), candidate) <= 0) {
            throw std::bad_alloc();
        }
    }
    const auto context = made(X509_STORE_CTX_new());
    setUp(context.get(), untrusted.get());
    const int answer = X509_verify_cert(context.get());
    if (m_thrown) {
        std::rethrow_exception(m_thrown);
    }
    STACK_OF(X509)* const chain = X509_STORE_CTX_get0_chain(context.get());
    if (chain != nullptr) {
        lookAt(context.get());
        describe(chain);
    }
    const int error = X509_STORE_CTX_get_error(context.get());
    const bool multiplies = error == X509_V_ERR_OUT_OF_MEM && m_built;
    if (!multiplies && (answer != 1 || !m_verdict.reasons.empty())) {
        quiet.throwWithoutMemory(); // whatever was found wrong
    }
    if (m_linkFailed && answer == 1 && m_verdict.reasons.empty()) {
        // OpenSSL found the signature right that was wrong before: there was no memory, and no list was looked at.
        throw std::bad_alloc();
    }
    if (answer != 1 && m_verdict.reasons.empty()) {
        if (multiplies) { // what OpenSSL says when policies and their mappings multiply
            reason(ReasonCode::tooMuchWork, 0, m_request.certificate,
                   {"", "", "", "certificate policies that multiply", ""});
        } else {
            reason(ReasonCode::other, 0, m_request.certificate, {"", "", "", X509_verify_cert_error_string(error), ""});
        }
    }
    for (const Lists::LeftOut& one : m_lists.leftOut()) {
        Details details;
        details.issuer = shortened(NVX509::displayName(one.list->crlInfo().issuer()));
        details.what = one.why;
        say(Weight::note, ReasonCode::listNotUsed, 0, m_request.certificate, std::move(details));
    }
    const auto byDepth = [](const Reason& a, const Reason& b) { return a.depth < b.depth; };
    std::stable_sort(m_verdict.reasons.begin(), m_verdict.reasons.end(), byDepth);
    std::stable_sort(m_verdict.notes.begin(), m_verdict.notes.end(), byDepth);
    m_verdict.accepted = answer == 1 && m_verdict.reasons.empty();
    return std::move(m_verdict);
}

bool Judgement::isAnchor(const X509_STORE_CTX* context, unsigned int depth) const {
    STACK_OF(X509)* const chain = X509_STORE_CTX_get0_chain(context);
    return static_cast<int>(depth) == sk_X509_num(chain) - 1 &&
           m_snapshot.anchorSet.count(sk_X509_value(chain, static_cast<int>(depth))) > 0;
}

Judgement::Place& Judgement::place(unsigned int depth) {
    if (m_places.size() <= depth) {
        m_places.resize(depth + 1);
    }
    return m_places[depth];
}

RefCertificate Judgement::handleOf(X509* certificate) const {
    if (certificate == static_cast<X509*>(m_request.certificate)) {
        return m_request.certificate;
    }
    const auto known = m_snapshot.certificateOf.find(certificate);
    if (known != m_snapshot.certificateOf.end()) {
        return known->second;
    }
    const auto given = m_request.fromMessage.find(certificate);
    if (given != m_request.fromMessage.end()) {
        return given->second;
    }
    if (certificate == nullptr || X509_up_ref(certificate) != 1) {
        return RefCertificate();
    }
    return CertificateFactory()(certificate, true);
}

void Judgement::say(Weight weight, ReasonCode code, unsigned int depth, X509* about, Details details) {
    const RefCertificate certificate = handleOf(about);
    auto& all = weight == Weight::reason ? m_verdict.reasons : m_verdict.notes;
    if (!certificate.isNull()) {
        certificate->warm();
    }
    if (details.whose.empty()) {
        details.whose = nameOf(certificate);
    }
    if (details.issuer.empty() && !certificate.isNull()) {
        details.issuer = shortened(NVX509::displayName(certificate->issuer()));
    }
    Reason found = worded(code, details);
    found.depth = depth;
    found.certificate = certificate;
    const bool there = std::any_of(all.begin(), all.end(), [&](const Reason& one) {
        return one.code == code && one.depth == depth && one.text == found.text;
    });
    if (!there) {
        all.push_back(std::move(found));
    }
}

bool Judgement::told(ReasonCode code, unsigned int depth) const {
    const auto is = [&](const Reason& one) { return one.code == code && one.depth == depth; };
    return std::any_of(m_verdict.reasons.begin(), m_verdict.reasons.end(), is) ||
           std::any_of(m_verdict.notes.begin(), m_verdict.notes.end(), is);
}

RevocationStatus Judgement::statusOf(unsigned int depth) const {
    if (!m_revocationDone || depth >= m_places.size()) {
        return RevocationStatus::notLookedAt;
    }
    const Place& found = m_places[depth];
    return found.revoked         ? RevocationStatus::revoked
           : found.unusable      ? RevocationStatus::unusable
           : found.missing       ? RevocationStatus::noList
           : found.lists.empty() ? RevocationStatus::notLookedAt
                                 : RevocationStatus::good;
}

void Judgement::describe(STACK_OF(X509) * chain) {
    const int count = sk_X509_num(chain);
    for (int i = 0; i < count; ++i) {
        X509* const x509 = sk_X509_value(chain, i);
        const auto depth = static_cast<unsigned int>(i);
        Link link;
        link.certificate = handleOf(x509);
        link.certificate->warm();
        link.anchor = i + 1 == count && !m_broken && m_snapshot.anchorSet.count(x509) > 0;
        bool known = false;
        m_snapshot.bySubject.each(X509_get_subject_name(x509),
                                  [&](const X509* one) { known = known || X509_cmp(one, x509) == 0; });
        link.fromMessage = !known;
        link.revocation = statusOf(depth);
        if (depth < m_places.size()) {
            link.lists = m_places[depth].lists;
        }
        m_verdict.chain.push_back(link.certificate);
        m_verdict.links.push_back(std::move(link));
    }
}

} // namespace Norvane::Crypto::Trust::detail
