#include "Folder.h"

#include "Owners.h"
#include "Pem.h"

#include <norvcmsg/Exception.h>
#include <norvcrypto-keystore/KeyFiles.h>

#include <openssl/x509v3.h>

#include <limits>
#include <utility>

namespace Norvane::Crypto::NVX509::keystore {

namespace {

/// Seconds since 1970; `unreadable` for a time that bounds nothing, since it cannot be read.
std::int64_t secondsOf(const ASN1::RefGeneralizedTime& time, std::int64_t unreadable) {
    return time.isNull() || time->object() == nullptr ? unreadable : time->asTime().calendarSeconds();
}

/// What a certificate can be taken for, by purpose, apart from its validity.
std::array<Fitness, 3> fitnessOf(const RefCertificate& certificate, bool hasKey) {
    const int kind = EVP_PKEY_get_base_id(certificate->key());
    const auto usage = X509_get_key_usage(certificate); // all bits when the extension is absent
    const bool encrypts = kind == EVP_PKEY_RSA;
    const bool signs = encrypts || kind == EVP_PKEY_DSA || kind == EVP_PKEY_EC;
    const auto allowed = [usage](bool suitable, std::uint32_t bits) {
        if (!suitable) {
            return Fitness::unsuitableKey;
        }
        return (usage & bits) != 0 ? Fitness::fit : Fitness::usageForbids;
    };
    const auto signing = allowed(signs, KU_DIGITAL_SIGNATURE | KU_NON_REPUDIATION);
    const auto encryption = allowed(encrypts, KU_KEY_ENCIPHERMENT | KU_DATA_ENCIPHERMENT | KU_KEY_AGREEMENT);
    return {hasKey ? signing : Fitness::noKey, encryption, hasKey ? encryption : Fitness::noKey};
}

/// One folder while it is read.
class Reader {
public:
    Reader(Snapshot& snapshot, const std::string& folder) : m_snapshot(snapshot) { m_identity.folder = folder; }

    void read(const Descriptor& store) {
        attempt("", [&] {
            const Descriptor folder = openFolder(store, m_identity.folder);
            readCertificate(folder);
            if (m_identity.certificate.isNull()) {
                return;
            }
            attempt("chain.pem", [&] { readChain(folder); });
            readKey(folder);
            attempt("owners.txt", [&] {
                if (const auto text = readFile(folder, "owners.txt", Content::open)) {
                    m_identity.owners = ownersOf(*text);
                }
            });
            add();
        });
    }

private:
    /// Runs `work`. A refusal is told among the problems of `file`, and what was refused counts as absent.
    template <class Work> void attempt(const char* file, Work work) {
        try {
            work();
        } catch (const Refusal& refusal) {
            m_snapshot.problems.push_back({m_identity.folder, file, refusal.what()});
        }
    }

    void readCertificate(const Descriptor& folder) {
        attempt("cert.pem", [&] {
            const auto pem = readFile(folder, "cert.pem", Content::open);
            if (!pem) {
                throw Refusal("is missing");
            }
            auto certificates = certificatesOf(*pem);
            refuseUnusable(certificates.front());
            m_identity.certificate = certificates.front();
            certificates.pop_front();
            appendToChain(certificates);
        });
    }

    static void refuseUnusable(const RefCertificate& certificate) {
        try {
            static_cast<void>(certificate->serialNumber());
        } catch (const Exception&) {
            throw Refusal("the certificate has a negative serial number");
        }
        if (static_cast<evp_pkey_st*>(certificate->key()) == nullptr) {
            throw Refusal("the public key of the certificate cannot be read");
        }
    }

    void readChain(const Descriptor& folder) {
        if (const auto pem = readFile(folder, "chain.pem", Content::open)) {
            appendToChain(certificatesOf(*pem));
        }
    }

    /// Leaves out the certificate itself, with which many chain files begin.
    void appendToChain(const std::list<RefCertificate>& certificates) {
        for (const auto& certificate : certificates) {
            if (X509_cmp(certificate, m_identity.certificate) != 0) {
                m_identity.chain.push_back(certificate);
            }
        }
    }

    void readKey(const Descriptor& folder) {
        std::optional<Buffer> passphrase;
        attempt("passphrase", [&] {
            if (const auto text = readFile(folder, "passphrase", Content::secret)) {
                passphrase = passphraseOf(*text);
            }
        });
        attempt("key.pem", [&] {
            const auto pem = readFile(folder, "key.pem", Content::secret);
            if (!pem) {
                return;
            }
            const RefKey key = privateKeyOf(*pem, passphrase);
            if (!belongTogether(key, m_identity.certificate)) {
                throw Refusal("the key does not belong to the certificate");
            }
            m_key = key;
        });
    }

    void add() {
        const auto& certificate = m_identity.certificate;
        const auto& period = certificate->validityPeriod();
        if ((X509_get_extension_flags(certificate) & EXFLAG_INVALID) != 0) { // OpenSSL then grants no usage at all
            m_snapshot.problems.push_back({m_identity.folder, "cert.pem",
                                           "an extension of the certificate does not decode: it is only found by "
                                           "issuer and serial number"});
        }
        m_identity.hasKey = !m_key.isNull();
        m_identity.fitness = fitnessOf(certificate, m_identity.hasKey);
        const Snapshot::Facts facts{
            KeyCertificatePair(m_key, certificate, m_identity.chain),
            secondsOf(period.notBefore(), std::numeric_limits<std::int64_t>::min()),
            secondsOf(period.notAfter(), std::numeric_limits<std::int64_t>::max()),
        };
        m_snapshot.add(std::move(m_identity), facts);
    }

    Snapshot& m_snapshot;
    Identity m_identity;
    RefKey m_key;
};

} // namespace

void readFolder(Snapshot& snapshot, const Descriptor& store, const std::string& name) {
    Reader(snapshot, name).read(store);
}

} // namespace Norvane::Crypto::NVX509::keystore
