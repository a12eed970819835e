#include "Candidates.h"

#include "Checks.h"
#include "Lists.h"

#include <norvcrypto-trust/Trust.h>

#include <deque>
#include <unordered_set>

namespace Norvane::Crypto::Trust::detail {

using NVX509::RefCertificate;

namespace {

/// Follows names upwards, each certificate once.
class Search {
public:
    Search(Candidates& found, const Snapshot& snapshot, const ByName<X509>& message, bool lists)
        : m_found(found),
          m_snapshot(snapshot),
          m_message(message),
          m_lists(lists) {}

    void from(X509* certificate) {
        m_todo.push_back(certificate);
        while (!m_todo.empty()) {
            X509* const one = m_todo.front();
            m_todo.pop_front();
            look(X509_get_issuer_name(one), true);
            if (m_lists && extensionOf(one, NID_crl_distribution_points) != nullptr) {
                lookForListIssuers(one);
            }
        }
    }

private:
    void look(const X509_NAME* name, bool messageToo) {
        m_snapshot.bySubject.each(name, [this](X509* one) { take(one, m_found.known); });
        std::size_t namesakes = 0;
        const auto takeFew = [&](X509* one) {
            if (namesakes++ < maximumNamesakes) {
                take(one, m_found.fromMessage);
            } else {
                m_found.crowded = true;
            }
        };
        if (messageToo) {
            m_message.each(name, takeFew);
        }
    }

    /// Who issues lists is believed when the snapshot knows it: a list that somebody of the message signed does not count.
    void lookForListIssuers(X509* certificate) {
        const auto points = distributionPointsOf(certificate);
        constexpr int most = 16;
        int looked = 0;
        for (int i = 0; i < sk_DIST_POINT_num(points.get()); ++i) {
            const GENERAL_NAMES* const names = sk_DIST_POINT_value(points.get(), i)->CRLissuer;
            for (int j = 0; names != nullptr && j < sk_GENERAL_NAME_num(names) && looked < most; ++j) {
                const GENERAL_NAME* const name = sk_GENERAL_NAME_value(names, j);
                if (name->type == GEN_DIRNAME) {
                    look(name->d.directoryName, false);
                    ++looked;
                }
            }
        }
    }

    void take(X509* certificate, std::vector<X509*>& into) {
        if (!m_seen.insert(certificate).second) {
            return;
        }
        if (&into == &m_found.fromMessage && !tooLarge(certificate).empty()) {
            m_found.tooLarge.push_back(certificate);
            return;
        }
        into.push_back(certificate);
        m_todo.push_back(certificate);
    }

    Candidates& m_found;
    const Snapshot& m_snapshot;
    const ByName<X509>& m_message;
    bool m_lists;
    std::unordered_set<const X509*> m_seen;
    std::deque<X509*> m_todo;
};

} // namespace

Candidates candidatesFor(const RefCertificate& certificate, const std::list<RefCertificate>& fromMessage,
                         const Snapshot& snapshot, bool lists) {
    const QuietQuestion quiet;
    Candidates found;
    ByName<X509> message{[](const X509* x) -> const X509_NAME* { return X509_get_subject_name(x); }};
    for (const RefCertificate& one : fromMessage) {
        X509* const x509 = one;
        if (x509 == nullptr) {
            continue;
        }
        ++found.given;
        if (found.handles.size() < maximumCandidates && found.handles.emplace(x509, one).second) {
            message.add(x509);
        }
    }
    message.sort();
    Search(found, snapshot, message, lists).from(certificate);
    return found;
}

} // namespace Norvane::Crypto::Trust::detail
