#include "Reader.h"

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

/// What a certificate can be taken for, by purpose, apart from its validity, by whoever has its key.
std::array<Fitness, 3> fitnessOf(const RefCertificate& certificate) {
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
    return {signing, encryption, encryption};
}

void refuseUnusable(const RefCertificate& certificate) {
    try {
        static_cast<void>(certificate->serialNumber());
    } catch (const Exception&) {
        throw Refusal("the certificate has a negative serial number");
    }
    if (static_cast<evp_pkey_st*>(certificate->key()) == nullptr) {
        throw Refusal("the public key of the certificate cannot be read");
    }
}

/// Leaves out the certificate itself, with which many chain files begin.
void appendToChain(std::list<RefCertificate>& chain, const std::list<RefCertificate>& certificates,
                   const RefCertificate& own) {
    for (const auto& certificate : certificates) {
        if (X509_cmp(certificate, own) != 0) {
            chain.push_back(certificate);
        }
    }
}

/// Runs `work`. A refusal is told among the problems of `file`, and what was refused counts as absent.
template <class Work>
void attempt(std::vector<Problem>& problems, const std::string& folder, const char* file, Work work) {
    try {
        work();
    } catch (const Refusal& refusal) {
        problems.push_back({folder, file, refusal.what()});
    }
}

} // namespace

Entry::Leaf readLeaf(const FileDescriptor& folder, const std::string& name) {
    Entry::Leaf leaf;
    leaf.readAt = std::time(nullptr);
    attempt(leaf.problems, name, "cert.pem", [&] {
        const auto pem = readFile(folder, "cert.pem", Content::open, leaf.state);
        if (!pem) {
            throw Refusal("is missing");
        }
        const auto certificates = certificatesOf(*pem);
        const RefCertificate& certificate = certificates.front();
        refuseUnusable(certificate);
        appendToChain(leaf.following, certificates, certificate);
        if ((X509_get_extension_flags(certificate) & EXFLAG_INVALID) != 0) { // OpenSSL then grants no usage at all
            leaf.onlyByName = {name, "cert.pem",
                               "an extension of the certificate does not decode: it is only found by issuer and serial "
                               "number"};
        }
        const auto& period = certificate->validityPeriod();
        leaf.validFrom = secondsOf(period.notBefore(), std::numeric_limits<std::int64_t>::min());
        leaf.validUntil = secondsOf(period.notAfter(), std::numeric_limits<std::int64_t>::max());
        leaf.fitness = fitnessOf(certificate);
        leaf.certificate = certificate;
    });
    return leaf;
}

std::list<RefCertificate> readChain(const FileDescriptor& folder, const std::string& name, const Entry::Leaf& leaf,
                                    std::vector<Problem>& problems, std::optional<FileState>& state) {
    std::list<RefCertificate> chain = leaf.following;
    attempt(problems, name, "chain.pem", [&] {
        if (const auto pem = readFile(folder, "chain.pem", Content::open, state)) {
            appendToChain(chain, certificatesOf(*pem), leaf.certificate);
        }
    });
    return chain;
}

Entry::Holding readHolding(const FileDescriptor& folder, const std::string& name, const Entry::Leaf& leaf,
                           Asker asker) {
    Entry::Holding holding;
    holding.readAt = std::time(nullptr);
    auto& [chainState, passphraseState, keyState] = holding.states;
    const std::list<RefCertificate> chain = readChain(folder, name, leaf, holding.problems, chainState);
    std::optional<Buffer> passphrase;
    attempt(holding.problems, name, "passphrase", [&, &state = passphraseState] {
        if (const auto text = readFile(folder, "passphrase", Content::secret, state)) {
            passphrase = passphraseOf(*text);
        }
    });
    RefKey key;
    attempt(holding.problems, name, "key.pem", [&, &state = keyState] {
        const auto pem = readFile(folder, "key.pem", Content::secret, state);
        if (!pem) {
            return;
        }
        const RefKey read = privateKeyOf(*pem, passphrase);
        if (!belongTogether(read, leaf.certificate)) {
            throw Refusal("the key does not belong to the certificate");
        }
        holding.hasKey = true;
        if (asker == Asker::lookUp) {
            key = read;
        }
    });
    holding.pair = KeyCertificatePair(key, leaf.certificate, chain);
    return holding;
}

} // namespace Norvane::Crypto::NVX509::keystore
