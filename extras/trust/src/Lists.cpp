#include "Lists.h"

#include <norvcrypto-trust/Trust.h>

#include <algorithm>
#include <initializer_list>
#include <tuple>
#include <unordered_map>
#include <unordered_set>

namespace Norvane::Crypto::Trust::detail {

using NVX509::RefCertificateRevocationList;

namespace {

constexpr std::size_t mostIssuers = 16; ///< of lists that the distribution points of a certificate name
constexpr std::size_t mostSigners = 4;  ///< of one name in the snapshot that may have signed a list
/// Names of distribution points that are compared for one certificate: each of its own with each of all lists.
constexpr std::size_t mostNamePairs = 1U << 20U;

/// Whether a list may stand in an element that does not say that it is constructed, for which OpenSSL does not look where it
/// decodes one: the trees of constraints, the names of a point and the issuers of its lists have tags of the context.
bool mayBeList(int tag, int tagClass) noexcept {
    constexpr int lastOfLists = 2;
    return tagClass == V_ASN1_UNIVERSAL ? tag == V_ASN1_SEQUENCE || tag == V_ASN1_SET
                                        : tagClass == V_ASN1_CONTEXT_SPECIFIC && tag <= lastOfLists;
}

/// Walks through the elements of a value; `visit` is told whether one is constructed, and whether elements may stand in it, and
/// answers whether to go into it.
template <class Visit> void walk(const X509_EXTENSION* extension, Visit visit) {
    const QuietQuestion quiet;
    const ASN1_OCTET_STRING* const value = X509_EXTENSION_get_data(const_cast<X509_EXTENSION*>(extension));
    const unsigned char* at = ASN1_STRING_get0_data(value);
    // What stands in an element may be none, where OpenSSL does not decode it; then it goes on where the element ends.
    std::vector<const unsigned char*> ends{at + ASN1_STRING_length(value)};
    while (!ends.empty()) {
        long length = 0;
        int tag = 0;
        int tagClass = 0;
        const unsigned char* const end = ends.back();
        constexpr int unreadable = 0x80;
        constexpr int indefinite = 0x01;
        const int form = at == end ? unreadable : ASN1_get_object(&at, &length, &tag, &tagClass, end - at);
        if ((form & unreadable) != 0) {
            at = end;
            ends.pop_back();
            continue;
        }
        const bool isConstructed = (form & V_ASN1_CONSTRUCTED) != 0;
        if (!visit(isConstructed, isConstructed || mayBeList(tag, tagClass))) {
            at += length;
        } else if ((form & indefinite) == 0) {
            ends.push_back(at + length);
        }
    }
}

bool couldNotBegin(unsigned long code) noexcept {
    return ERR_GET_LIB(code) == ERR_LIB_EVP && ERR_GET_REASON(code) == EVP_R_INITIALIZATION_ERROR;
}

} // namespace

std::size_t octetsOf(const X509_EXTENSION* extension) {
    return extension == nullptr ? 0
                                : static_cast<std::size_t>(ASN1_STRING_length(
                                      X509_EXTENSION_get_data(const_cast<X509_EXTENSION*>(extension))));
}

std::size_t leavesOf(const X509_EXTENSION* extension) {
    std::size_t count = 0;
    if (extension != nullptr) {
        walk(extension, [&count](bool constructed, bool mayHoldElements) {
            count += constructed ? 0U : 1U;
            return mayHoldElements;
        });
    }
    return count;
}

std::size_t elementsOf(const X509_EXTENSION* extension) {
    std::size_t count = 0;
    if (extension != nullptr) {
        bool outer = true;
        walk(extension, [&](bool, bool) {
            count += outer ? 0U : 1U;
            return std::exchange(outer, false);
        });
    }
    return count;
}

const X509_EXTENSION* extensionOf(const X509* certificate, int nid) {
    const int index = X509_get_ext_by_NID(certificate, nid, -1);
    return index < 0 ? nullptr : X509_get_ext(certificate, index);
}

std::vector<std::string> urisOf(const CRL_DIST_POINTS* points, std::size_t most) {
    std::vector<std::string> uris;
    for (int i = 0; i < sk_DIST_POINT_num(points); ++i) {
        const DIST_POINT* const point = sk_DIST_POINT_value(points, i);
        if (point->distpoint == nullptr || point->distpoint->type != 0) {
            continue;
        }
        const GENERAL_NAMES* const names = point->distpoint->name.fullname;
        for (int j = 0; j < sk_GENERAL_NAME_num(names); ++j) {
            const GENERAL_NAME* const name = sk_GENERAL_NAME_value(names, j);
            if (uris.size() == most) {
                return uris;
            }
            if (name->type == GEN_URI) {
                const auto* const text = name->d.uniformResourceIdentifier;
                uris.emplace_back(reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)),
                                  static_cast<std::size_t>(ASN1_STRING_length(text)));
            }
        }
    }
    return uris;
}

namespace {

std::optional<std::time_t> beginOf(const X509_CRL* list) {
    return secondsOf(X509_CRL_get0_lastUpdate(list));
}

/// Those of the list or of one of its entries.
template <class Extended, class Extension>
bool hasCriticalBeside(std::initializer_list<int> known, const Extended* of, int count, Extension at) {
    for (int i = 0; i < count; ++i) {
        X509_EXTENSION* const one = at(of, i);
        const int nid = OBJ_obj2nid(X509_EXTENSION_get_object(one));
        if (X509_EXTENSION_get_critical(one) != 0 && std::find(known.begin(), known.end(), nid) == known.end()) {
            return true;
        }
    }
    return false;
}

/// Whether a critical extension is none of those that OpenSSL knows.
bool hasUnknownCritical(X509_CRL* list) {
    if (hasCriticalBeside({NID_issuing_distribution_point, NID_authority_key_identifier, NID_delta_crl}, list,
                          X509_CRL_get_ext_count(list), X509_CRL_get_ext)) {
        return true;
    }
    STACK_OF(X509_REVOKED)* const entries = X509_CRL_get_REVOKED(list);
    for (int i = 0; i < sk_X509_REVOKED_num(entries); ++i) {
        const X509_REVOKED* const entry = sk_X509_REVOKED_value(entries, i);
        if (hasCriticalBeside({NID_certificate_issuer}, entry, X509_REVOKED_get_ext_count(entry),
                              X509_REVOKED_get_ext)) {
            return true;
        }
    }
    return false;
}

/// Whether OpenSSL would rather have another list, be it older: this one has ended, has a time in a form that it does not take
/// (which `secondsOf` may), or a critical extension that it does not know.
bool isPassedOver(X509_CRL* list, std::time_t at) {
    const ASN1_TIME* const end = X509_CRL_get0_nextUpdate(list);
    return X509_cmp_time(X509_CRL_get0_lastUpdate(list), &at) == 0 ||
           (end != nullptr && X509_cmp_time(end, &at) <= 0) || hasUnknownCritical(list);
}

Lists::Number numberOf(const X509_CRL* list) {
    const QuietQuestion quiet;
    const Owned<ASN1_INTEGER> number(
        static_cast<ASN1_INTEGER*>(X509_CRL_get_ext_d2i(list, NID_crl_number, nullptr, nullptr)));
    if (number == nullptr) {
        quiet.throwWithoutMemory();
        return {};
    }
    if (ASN1_STRING_type(number.get()) == V_ASN1_NEG_INTEGER) {
        return {};
    }
    const auto length = static_cast<std::size_t>(ASN1_STRING_length(number.get()));
    return {length, std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(number.get())), length)};
}

/// No delta list.
bool isComplete(const X509_CRL* list) {
    return X509_CRL_get_ext_by_NID(list, NID_delta_crl, -1) < 0;
}

/// The directory names of those who issue the lists of a certificate, when it is not its issuer.
std::vector<const X509_NAME*> listIssuersOf(const CRL_DIST_POINTS* points) {
    std::vector<const X509_NAME*> issuers;
    for (int i = 0; i < sk_DIST_POINT_num(points); ++i) {
        const GENERAL_NAMES* const names = sk_DIST_POINT_value(points, i)->CRLissuer;
        for (int j = 0; names != nullptr && j < sk_GENERAL_NAME_num(names) && issuers.size() < mostIssuers; ++j) {
            const GENERAL_NAME* const name = sk_GENERAL_NAME_value(names, j);
            if (name->type == GEN_DIRNAME) {
                issuers.push_back(name->d.directoryName);
            }
        }
    }
    return issuers;
}

} // namespace

/// The stack that is being filled.
class Lists::Choice {
public:
    explicit Choice(std::size_t ownNames)
        : m_ownNames(std::max<std::size_t>(ownNames, 1)),
          m_stack(made(sk_X509_CRL_new_null())) {}

    /// False when comparing the names of the list with those of the certificate would take too long.
    bool add(X509_CRL* list) {
        const int index = X509_CRL_get_ext_by_NID(list, NID_issuing_distribution_point, -1);
        const std::size_t names = index < 0 ? 1 : leavesOf(X509_CRL_get_ext(list, index)) + 1;
        if (names > (mostNamePairs - m_pairs) / m_ownNames) {
            return false;
        }
        m_pairs += names * m_ownNames;
        if (X509_CRL_up_ref(list) != 1 || sk_X509_CRL_push(m_stack.get(), list) <= 0) {
            throw std::bad_alloc();
        }
        m_chosen.push_back(list);
        return true;
    }
    [[nodiscard]] const std::vector<X509_CRL*>& chosen() const { return m_chosen; }
    Owned<STACK_OF(X509_CRL)> stack() { return std::move(m_stack); }

private:
    std::size_t m_ownNames;
    std::size_t m_pairs = 0;
    std::vector<X509_CRL*> m_chosen;
    Owned<STACK_OF(X509_CRL)> m_stack;
};

Lists::Lists(const Snapshot& snapshot, const std::list<RefCertificateRevocationList>& fromMessage, std::time_t at)
    : m_snapshot(snapshot),
      m_at(at) {
    for (const RefCertificateRevocationList& one : fromMessage) {
        X509_CRL* const list = one;
        if (list == nullptr) {
            continue;
        }
        if (m_fromMessage.size() == maximumMessageLists) {
            m_leftOut.push_back({one, "the message has more lists than are looked at"});
            break;
        }
        m_fromMessage.push_back(list);
        m_handles.emplace(list, one);
    }
}

Owned<STACK_OF(X509_CRL)> Lists::of(const X509* certificate, const X509_NAME* issuerName, X509* issuer) {
    const QuietQuestion quiet;
    const auto points = distributionPointsOf(certificate);
    Choice choice(leavesOf(extensionOf(certificate, NID_crl_distribution_points)));
    std::vector<const X509_NAME*> issuers = listIssuersOf(points.get());
    issuers.insert(issuers.begin(), issuerName);
    std::vector<X509_CRL*> fit;
    std::unordered_set<const X509_CRL*> known; // a name may stand there more than once
    const auto take = [&fit, &known](X509_CRL* list) {
        if (known.insert(list).second) {
            fit.push_back(list);
        }
    };
    for (const X509_NAME* name : issuers) {
        m_snapshot.byIssuer.each(name, take);
    }
    for (X509_CRL* list : m_fromMessage) {
        const bool wanted = std::any_of(issuers.begin(), issuers.end(), [list](const X509_NAME* name) {
            return X509_NAME_cmp(X509_CRL_get_issuer(list), name) == 0;
        });
        if (wanted && !isSigned(list, issuer)) {
            leaveOut(list, "it came with the message, and its issuer did not sign it");
        } else if (wanted) {
            take(list);
        }
    }
    putInOrder(fit, certificate, issuer);
    const auto revoked = revokedSince(fit, certificate, issuer);
    for (X509_CRL* list : fit) {
        const auto begin = beginOf(list);
        if (revoked && isComplete(list) && begin && std::pair(*begin, numberOf(list)) < *revoked) {
            continue;
        }
        if (!choice.add(list)) {
            leaveOut(list, "comparing its distribution points with those of the certificate would take too long");
        }
    }
    m_handedOut.insert(m_handedOut.end(), choice.chosen().begin(), choice.chosen().end());
    return choice.stack();
}

std::optional<Lists::Age> Lists::revokedSince(const std::vector<X509_CRL*>& lists, const X509* certificate,
                                              X509* issuer) {
    for (X509_CRL* list : lists) {
        const std::time_t begin = beginOf(list).value_or(m_at); // it may be newer than any
        X509_REVOKED* entry = nullptr;
        if (begin <= m_at && isComplete(list) &&
            X509_CRL_get0_by_cert(list, &entry, const_cast<X509*>(certificate)) == 1 && isPassedOver(list, m_at) &&
            isSigned(list, issuer)) {
            return Age(begin, numberOf(list));
        }
    }
    return std::nullopt;
}

void Lists::putInOrder(std::vector<X509_CRL*>& lists, const X509* certificate, X509* issuer) {
    if (lists.size() < 2) {
        return;
    }
    struct Rank {
        bool complete;
        bool begun;
        bool counts;
        Age begin;
        bool operator>(const Rank& other) const {
            return std::tie(complete, begun, counts, begin) >
                   std::tie(other.complete, other.begun, other.counts, other.begin);
        }
    };
    std::unordered_map<const X509_CRL*, Rank> ranks;
    for (X509_CRL* const list : lists) {
        const bool complete = isComplete(list);
        const std::time_t begin = beginOf(list).value_or(m_at); // it may be newer than any
        X509_REVOKED* entry = nullptr;
        const bool counts =
            complete || !isPassedOver(list, m_at) ||
            (X509_CRL_get0_by_cert(list, &entry, const_cast<X509*>(certificate)) == 1 && isSigned(list, issuer));
        ranks.emplace(list, Rank{complete, complete || begin <= m_at, counts, Age(begin, numberOf(list))});
    }
    std::stable_sort(lists.begin(), lists.end(),
                     [&ranks](const X509_CRL* one, const X509_CRL* other) { return ranks.at(one) > ranks.at(other); });
}

X509_CRL* Lists::withoutSigner(const X509* certificate, const std::vector<X509*>& candidates) const {
    const QuietQuestion quiet;
    const auto points = distributionPointsOf(certificate);
    for (const X509_NAME* const name : listIssuersOf(points.get())) {
        if (X509_NAME_cmp(name, X509_get_issuer_name(certificate)) == 0) {
            continue;
        }
        for (X509_CRL* const list : m_handedOut) {
            if (X509_NAME_cmp(X509_CRL_get_issuer(list), name) != 0) {
                continue;
            }
            const Owned<AUTHORITY_KEYID> key(static_cast<AUTHORITY_KEYID*>(
                X509_CRL_get_ext_d2i(list, NID_authority_key_identifier, nullptr, nullptr)));
            const auto maySign = [&](X509* one) {
                return X509_NAME_cmp(X509_get_subject_name(one), name) == 0 &&
                       X509_check_akid(one, key.get()) == X509_V_OK;
            };
            bool isKnown = std::any_of(candidates.begin(), candidates.end(), maySign);
            m_snapshot.bySubject.each(name, [&](X509* one) { isKnown = isKnown || maySign(one); });
            if (!isKnown) {
                return list;
            }
        }
    }
    return nullptr;
}

bool Lists::isSigned(X509_CRL* list, X509* issuer) {
    if (issuer != nullptr && X509_NAME_cmp(X509_get_subject_name(issuer), X509_CRL_get_issuer(list)) == 0 &&
        isSignedBy(list, issuer)) {
        return true;
    }
    std::size_t tries = 0;
    bool is = false;
    m_snapshot.bySubject.each(X509_CRL_get_issuer(list),
                              [&](X509* known) { is = is || (tries++ < mostSigners && isSignedBy(list, known)); });
    return is;
}

bool Lists::isSignedBy(X509_CRL* list, X509* issuer) {
    const auto [place, fresh] = m_signed.emplace(std::make_pair(list, issuer), false);
    EVP_PKEY* const key = X509_get0_pubkey(issuer);
    if (fresh && key != nullptr) {
        const QuietQuestion quiet;
        bool good = X509_CRL_verify(list, key) == 1;
        if (!good && couldNotBegin(ERR_peek_error())) { // a digest for which there was no memory has no other words
            good = X509_CRL_verify(list, key) == 1;
        }
        if (!good) {
            quiet.throwWithoutMemory(); // a list would be left out that revokes
        }
        place->second = good;
    }
    return place->second;
}

void Lists::leaveOut(X509_CRL* list, const char* why) {
    const auto same = [list](const LeftOut& one) { return static_cast<X509_CRL*>(one.list) == list; };
    if (std::none_of(m_leftOut.begin(), m_leftOut.end(), same)) {
        m_leftOut.push_back({handleOf(list), why});
    }
}

RefCertificateRevocationList Lists::handleOf(X509_CRL* list) const {
    const auto known = m_snapshot.listOf.find(list);
    if (known != m_snapshot.listOf.end()) {
        return known->second;
    }
    const auto given = m_handles.find(list);
    return given == m_handles.end() ? RefCertificateRevocationList() : given->second;
}

} // namespace Norvane::Crypto::Trust::detail
