#include "Operations.h"

#include <norvcrypto/CertificateRevocationList.h>
#include <norvcrypto/Hasher.h>

#include <set>
#include <sstream>

namespace faultsofmessages {

using Crypto::Hasher;

namespace {

std::string shown(const NVX509::RefCertificate& certificate) {
    std::string all = certificate->subject().asString() + "|" + displayName(certificate->issuer()) + "|" +
                      certificate->name() + "|" + certificate->serialNumber().hex() + "|" +
                      std::to_string(certificate->version()) + "|" + std::to_string(certificate->keyUsage()) + "|" +
                      std::to_string(certificate->extendedKeyUsage()) + "|" +
                      std::to_string(certificate->extensions().size()) + "|" +
                      std::to_string(static_cast<int>(certificate->isCACert())) +
                      std::to_string(static_cast<int>(certificate->isSelfSigned()));
    all += "|"; // in one piece, since a certificate without memory may have none
    if (!certificate->subjectAlternativeName().isNull()) {
        for (const auto& name : certificate->subjectAlternativeName()->names()) {
            all += name.emailAddress().address() + ",";
        }
    }
    all += certificate->authorityKeyIdentifier().isNull()
               ? "|-"
               : "|" + x509testing::hexOf(*certificate->authorityKeyIdentifier()->keyId());
    all += certificate->subjectKeyIdentifier().isNull()
               ? "|-"
               : "|" + x509testing::hexOf(*certificate->subjectKeyIdentifier());
    all += static_cast<EVP_PKEY*>(certificate->key()) == nullptr ? "|no key" : "|key";
    return all;
}

/// What accessors say that cannot throw: where there is no memory, that there is nothing.
Answer sameOrNothing(const std::string& found, const std::string& expected) {
    static const std::set<std::string> nothing{"", "0", "00", "-1", "-", "no key", "none"};
    std::istringstream one(found);
    std::istringstream other(expected);
    Answer answer;
    for (std::string left, right; std::getline(other, right, '|');) {
        if (!std::getline(one, left, '|')) {
            return {Answer::wrong, found};
        }
        if (left != right) {
            if (nothing.count(left) == 0) {
                return {Answer::wrong, found};
            }
            answer = {Answer::refused, found};
        }
    }
    return answer;
}

} // namespace

Operation readsCertificate() {
    const Bytes der = alice().certificate.der;
    const std::string expected = shown(certificateOf(alice()));
    return {.name = "Certificate",
            .act =
                [=] {
                    const auto certificate = NVX509::CertificateFactory().readDER(bufferOf(der));
                    if (certificate.isNull()) {
                        return Answer{Answer::refused, "an empty handle"};
                    }
                    const std::string found = shown(certificate);
                    Target written;
                    certificate->writeDER(written);
                    const faults::Pause pause;
                    if (!written.content().empty() && written.content() != textOf(der)) {
                        return Answer{Answer::wrong, "another encoding of " + std::to_string(written.content().size())};
                    }
                    return sameOrNothing(found, expected);
                },
            .mayRefuse = true};
}

Operation readsCertificates() {
    const std::string pem = alice().certificate.pem() + bob().certificate.pem() + curve().certificate.pem();
    return {.name = "Certificates in PEM",
            .act =
                [=] {
                    std::list<NVX509::RefCertificate> certificates;
                    NVX509::CertificateFactory().readPem(bufferOf(bytesOf(pem)), certificates);
                    return certificates.size() == 3 ? Answer{Answer::done}
                                                    : Answer{Answer::refused, std::to_string(certificates.size())};
                },
            .mayRefuse = true};
}

Operation readsList() {
    const auto list =
        norvauthority::issueList({.issuer = &identities().authority,
                                  .revoked = {{.serial = "11", .reason = 1}, {.serial = "12"}, {.serial = "13"}},
                                  .crlNumber = "7"});
    const auto authority = certificateOf(identities().authority);
    return {.name = "CertificateRevocationList",
            .act =
                [=] {
                    const auto read = NVX509::CertificateRevocationListFactory().readDER(bufferOf(list.der));
                    if (read.isNull()) {
                        return Answer{Answer::refused, "an empty handle"};
                    }
                    const std::string found = read->crlInfo().issuer().asString() + "|" + read->crlNumber().hex() +
                                              "|" + std::to_string(static_cast<int>(read->issuedBy(authority, true))) +
                                              "|" + std::to_string(static_cast<int>(read->isDeltaCRL())) + "|" +
                                              std::to_string(read->crlInfo().extensions().size()) + "|" +
                                              (read->crlInfo().authorityKeyIdentifier().isNull() ? "no key" : "key") +
                                              "|" + (read->nextUpdate().isNull() ? "none" : "time");
                    Target written;
                    read->writeDER(written);
                    const faults::Pause pause;
                    if (!written.content().empty() && written.content() != textOf(list.der)) {
                        return Answer{Answer::wrong, "another encoding of " + std::to_string(written.content().size())};
                    }
                    static const std::string expected = found; // of the first time, without a fault
                    return sameOrNothing(found, expected);
                },
            .mayRefuse = true};
}

Operation readsKey(const std::string& passphrase, bool bad) {
    const std::string pem = alice().key.encryptedPem("secret");
    return {.name = std::string("PrivateKey ") + (bad ? "under another passphrase" : "in PEM"),
            .act =
                [=] {
                    Crypto::RefKey key(Crypto::Key::PRIVATE_KEY);
                    key->readPEM(bufferOf(bytesOf(pem)), passphrase);
                    const faults::Pause pause;
                    return static_cast<EVP_PKEY*>(key) != nullptr && EVP_PKEY_eq(key, alice().key.get()) == 1
                               ? Answer{Answer::done}
                               : Answer{Answer::wrong, "another key"};
                },
            .mustRefuse = bad,
            .weight = 2};
}

Operation hashes() {
    return {.name = "Hasher", .act = [] {
                Hasher hasher(Hasher::SHA256);
                hasher.update(body().data(), static_cast<unsigned int>(body().size()));
                hasher.finalize();
                const Norvane::Buffer digest = hasher.digest();
                const faults::Pause pause;
                Bytes expected(32);
                EVP_Digest(body().data(), body().size(), expected.data(), nullptr, EVP_sha256(), nullptr);
                return bytesOf(digest) == expected ? Answer{Answer::done} : Answer{Answer::wrong, "another digest"};
            }};
}

} // namespace faultsofmessages
