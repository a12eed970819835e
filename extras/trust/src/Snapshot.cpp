#include "Snapshot.h"

#include "Judgement.h"

#include <array>
#include <atomic>
#include <set>

namespace Norvane::Crypto::Trust::detail {

using NVX509::RefCertificate;
using NVX509::RefCertificateRevocationList;

/// What is there already.
struct Snapshot::Known {
    std::set<Fingerprint> anchors, untrusted, lists;
    std::unordered_set<const FileContents*> files;
};

namespace {

std::uint64_t nextNumber() {
    static std::atomic<std::uint64_t> last{0};
    return ++last;
}

/// OpenSSL puts the entries of a list in order when it is first asked, under a lock that all askers then wait for.
void putInOrder(X509_CRL* list) {
    X509_REVOKED* found = nullptr;
    static_cast<void>(X509_CRL_get0_by_serial(list, &found, made(ASN1_INTEGER_new()).get()));
}

/// Puts an anchor into a store that nobody uses yet, to be put in order with the others: OpenSSL's own function looks whether it is
/// there already, for which it sorts all of them each time.
void addAnchor(X509_STORE* store, X509* anchor) {
    auto object = made(X509_OBJECT_new());
    if (X509_OBJECT_set1_X509(object.get(), anchor) != 1 ||
        sk_X509_OBJECT_push(X509_STORE_get0_objects(store), object.get()) <= 0) {
        throw std::bad_alloc();
    }
    static_cast<void>(object.release());
}

} // namespace

Snapshot::Snapshot(const std::vector<Source>& sources) : number(nextNumber()), store(made(X509_STORE_new())) {
    const QuietQuestion quiet;
    Known known;
    // Anchors first: what is among the intermediates, too, is an anchor.
    for (const bool anchorsOnly : {true, false}) {
        for (const Source& source : sources) {
            for (const ReadFile& file : source.read.files) {
                if ((source.kind == Kind::anchors) == anchorsOnly) {
                    addFile(source.kind, file, known);
                }
            }
        }
    }
    for (const Source& source : sources) {
        problems.insert(problems.end(), source.read.problems.begin(), source.read.problems.end());
        for (const ReadFile& file : source.read.files) {
            if (known.files.insert(file.contents.get()).second) {
                for (const std::string& reason : file.contents->problems) {
                    problems.push_back({file.path, reason});
                }
            }
        }
    }
    sk_X509_OBJECT_sort(X509_STORE_get0_objects(store.get()));
    bySubject.sort();
    byIssuer.sort();
    Judgement::prepare(store.get());
}

void Snapshot::addList(const RefCertificateRevocationList& list, Known& known) {
    X509_CRL* const raw = list;
    if (known.lists.insert(fingerprintOf(raw)).second) {
        putInOrder(raw);
        lists.push_back(list);
        listOf.emplace(raw, list);
        byIssuer.add(raw);
    }
}

void Snapshot::addFile(Kind kind, const ReadFile& file, Known& known) {
    for (const RefCertificateRevocationList& list : file.contents->lists) {
        addList(list, known);
    }
    if ((kind == Kind::lists || kind == Kind::listCache) && !file.contents->certificates.empty()) {
        problems.push_back({file.path, "holds certificates, which are not used from there"});
        return;
    }
    for (const RefCertificate& certificate : file.contents->certificates) {
        X509* const raw = certificate;
        const Fingerprint print = fingerprintOf(raw);
        if (kind == Kind::anchors && known.anchors.insert(print).second) {
            addAnchor(store.get(), raw);
            anchors.push_back(certificate);
            anchorSet.insert(raw);
        } else if (kind == Kind::untrusted && known.anchors.count(print) == 0 && known.untrusted.insert(print).second) {
            untrusted.push_back(certificate);
        } else {
            continue;
        }
        certificateOf.emplace(raw, certificate);
        bySubject.add(raw);
    }
}

} // namespace Norvane::Crypto::Trust::detail
