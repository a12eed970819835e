#pragma once

/// \file
/// What a verifier works with at one moment. It never changes, so that any number of threads may use it.

#include "OpenSsl.h"
#include "Reading.h"

#include <norvcrypto-trust/TrustMaterial.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace Norvane::Crypto::Trust::detail {

/// What a source is for.
enum class Kind : int { anchors, untrusted, lists, listCache };

/// Something that was added: a path and what it led to, or single objects.
struct Source {
    Kind kind;
    std::string path;
    ReadPath read;
};

/// Objects in the order of a name, for finding those of one name.
template <class T> class ByName {
public:
    using NameOf = const X509_NAME* (*)(const T*);
    explicit ByName(NameOf nameOf) : m_nameOf(nameOf) {}

    void add(T* object) { m_objects.push_back(object); }
    /// Once all are there. Those of one name stay in the order in which they were added.
    void sort();
    /// Calls `visit` with each object of that name.
    template <class Visit> void each(const X509_NAME* name, Visit visit) const;

private:
    NameOf m_nameOf;
    std::vector<T*> m_objects;
};

struct Snapshot {
    /// \param sources in the order in which they were added
    explicit Snapshot(const std::vector<Source>& sources);

    std::uint64_t number;    ///< no other snapshot of this process has it
    Owned<X509_STORE> store; ///< the anchors, and who is asked for lists
    std::vector<NVX509::RefCertificate> anchors;
    std::vector<NVX509::RefCertificate> untrusted;
    std::vector<NVX509::RefCertificateRevocationList> lists;
    std::vector<Material::Problem> problems;

    ByName<X509> bySubject{
        [](const X509* x) -> const X509_NAME* { return X509_get_subject_name(x); }}; ///< anchors, too
    ByName<X509_CRL> byIssuer{[](const X509_CRL* x) -> const X509_NAME* { return X509_CRL_get_issuer(x); }};
    std::unordered_set<const X509*> anchorSet;
    std::unordered_map<const X509*, NVX509::RefCertificate> certificateOf;
    std::unordered_map<const X509_CRL*, NVX509::RefCertificateRevocationList> listOf;

private:
    struct Known;
    void addFile(Kind kind, const ReadFile& file, Known& known);
    void addList(const NVX509::RefCertificateRevocationList& list, Known& known);
};

template <class T> void ByName<T>::sort() {
    std::stable_sort(m_objects.begin(), m_objects.end(),
                     [this](const T* a, const T* b) { return X509_NAME_cmp(m_nameOf(a), m_nameOf(b)) < 0; });
}

template <class T> template <class Visit> void ByName<T>::each(const X509_NAME* name, Visit visit) const {
    auto at =
        std::lower_bound(m_objects.begin(), m_objects.end(), name, [this](const T* object, const X509_NAME* wanted) {
            return X509_NAME_cmp(m_nameOf(object), wanted) < 0;
        });
    for (; at != m_objects.end() && X509_NAME_cmp(m_nameOf(*at), name) == 0; ++at) {
        visit(*at);
    }
}

} // namespace Norvane::Crypto::Trust::detail
