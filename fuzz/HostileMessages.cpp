#include "HostileMessages.h"

#include "EnvelopeKey.h"

#include <norvcmsg/Media.h>
#include <norvcrypto/CMSEnvelopeReader.h>
#include <norvcrypto/CMSSignedReader.h>

#include <authority/Authority.h>
#include <authority/Der.h>

#include <openssl/err.h>

#include <array>
#include <cstdio>
#include <list>
#include <string>

namespace fuzz {

namespace {

namespace CMS = Norvane::Crypto::CMS;
namespace NVX509 = Norvane::Crypto::NVX509;
namespace der = norvauthority::der;
using norvauthority::Bytes;

Bytes repeated(const Bytes& octets, std::size_t count) {
    Bytes all;
    all.reserve(octets.size() * count);
    for (std::size_t i = 0; i < count; ++i) {
        all.insert(all.end(), octets.begin(), octets.end());
    }
    return all;
}

Bytes inContext(unsigned int tag, const Bytes& content) {
    return der::element(der::contextConstructed(tag), content);
}

/// Reads a message to its end: who could open it is asked for and found to be one of the recipients' names.
template <class Read> Prepared reading(const Bytes& message, Read read) {
    return {message.size(), [message, read] {
                try {
                    Norvane::MemoryMediaIn in(
                        Norvane::Buffer(message.data(), static_cast<unsigned int>(message.size()), true));
                    read(in);
                } catch (const Norvane::Exception&) {
                    ERR_clear_error();
                }
            }};
}

const CMS::KeyListLookup& keys() {
    static const norvauthority::Identity identity = envelopeIdentity();
    static const CMS::KeyListLookup lookup({NVX509::KeyCertificatePair(
        Norvane::Crypto::RefKey(new Norvane::Crypto::PrivateKey(identity.key.newReference())),
        NVX509::CertificateFactory()(identity.certificate.x509().release(), true))});
    return lookup;
}

Bytes keyEncryptionRecipient() {
    return inContext(
        2, der::concat({der::integer("4"), der::sequence({der::octetString({'k'})}),
                        der::sequence({der::oid("2.16.840.1.101.3.4.1.5")}), der::octetString(Bytes(24, 1))}));
}

/// Opens with the key, the secret or the password that the first recipients want, whatever comes of it.
Prepared openingEnvelope(const Bytes& message) {
    return reading(message, [](const Norvane::MediaIn& in) {
        CMS::EnvelopeReader reader(in);
        if (!reader.open(keys())) {
            for (const auto& recipient : reader.recipients()) {
                static_cast<void>(recipient.algorithm());
                static_cast<void>(recipient.identifier());
                if (recipient.kind() == CMS::EnvelopeReader::Recipient::keyEncryptionKey &&
                    reader.verdict() == CMS::EnvelopeReader::Unopened) {
                    static_cast<void>(reader.open(recipient, Norvane::Buffer("0123456789abcdef", 16, false)));
                }
            }
        }
        Norvane::NullMediaOut out;
        reader.write(out);
    });
}

Bytes envelope(const Bytes& recipients, const Bytes& content, const Bytes& before = {}, const Bytes& behind = {}) {
    const Bytes algorithm = der::sequence({der::oid("2.16.840.1.101.3.4.1.2"), der::octetString(Bytes(16, 1))});
    const Bytes encrypted = der::sequence({der::oid("1.2.840.113549.1.7.1"), algorithm, content});
    const Bytes body =
        der::sequence({der::integer("2"), before, der::element(der::setTag, recipients), encrypted, behind});
    return der::sequence({der::oid("1.2.840.113549.1.7.3"), inContext(0, body)});
}

Bytes someContent() {
    return der::element(der::context(0), Bytes(32, 1));
}

Prepared contentOf(const Bytes& segments) {
    return openingEnvelope(envelope(keyEncryptionRecipient(), inContext(0, segments)));
}

Prepared recipients(const Bytes& one, std::size_t count) {
    return openingEnvelope(envelope(repeated(one, count), someContent()));
}

Bytes nobody() {
    return der::sequence({norvauthority::Name{{"CN", "nobody"}}.der(), der::integer("1")});
}

Bytes transport() {
    return der::sequence({der::integer("0"), nobody(), der::sequence({der::oid("1.2.840.113549.1.1.1"), der::null()}),
                          der::octetString(Bytes(256, 1))});
}

Bytes agreement(std::size_t count) {
    const Bytes one = der::sequence({nobody(), der::octetString(Bytes(24, 1))});
    const Bytes originator =
        inContext(1, der::concat({der::sequence({der::oid("1.2.840.10045.2.1")}), der::bitString(Bytes(65, 4))}));
    return inContext(
        1,
        der::concat({der::integer("3"), inContext(0, originator),
                     der::sequence({der::oid("1.3.132.1.11.1"), der::sequence({der::oid("2.16.840.1.101.3.4.1.5")})}),
                     der::element(der::sequenceTag, repeated(one, count))}));
}

Bytes password(const std::string& iterations = "01") {
    const Bytes derivation = der::concat(
        {der::oid("1.2.840.113549.1.5.12"), der::sequence({der::octetString(Bytes(8, 1)), der::integer(iterations)})});
    const Bytes cipher = der::sequence({der::oid("2.16.840.1.101.3.4.1.2"), der::octetString(Bytes(16, 1))});
    return inContext(3, der::concat({der::integer("0"), inContext(0, derivation),
                                     der::sequence({der::oid("1.2.840.113549.1.9.16.3.9"), cipher}),
                                     der::octetString(Bytes(32, 1))}));
}

/// Opens with a password that is hashed that often.
Prepared passwordIterations(std::size_t count) {
    std::array<char, 17> digits{};
    std::snprintf(digits.data(), digits.size(), "%016zx", count);
    return reading(envelope(password(digits.data()), someContent()), [](const Norvane::MediaIn& in) {
        CMS::EnvelopeReader reader(in);
        static_cast<void>(reader.openWithPassword(reader.recipients().front(), Norvane::Buffer("secret", 6, false)));
        Norvane::NullMediaOut out;
        reader.write(out);
    });
}

Bytes other() {
    return inContext(4, der::concat({der::oid("1.2.3.4"), der::sequence({})}));
}

// Signed messages

Prepared readingSigned(const Bytes& message) {
    return reading(message, [](const Norvane::MediaIn& in) {
        CMS::SignedReader reader(in);
        Norvane::NullMediaOut out;
        reader.write(out);
        static_cast<void>(reader.report());
        for (const auto& signer : reader.signers()) {
            static_cast<void>(signer.countersigners());
        }
    });
}

struct SignedParts {
    Bytes algorithms = sha256();
    Bytes content = der::octetString(Bytes(40, 1));
    Bytes certificates{};
    Bytes lists{};
    Bytes signers{};

    static Bytes sha256() { return der::sequence({der::oid("2.16.840.1.101.3.4.2.1")}); }
    [[nodiscard]] Bytes made() const {
        const Bytes body =
            der::sequence({der::integer("1"), der::element(der::setTag, algorithms),
                           der::sequence({der::oid("1.2.840.113549.1.7.1"), inContext(0, content)}),
                           certificates.empty() ? Bytes() : inContext(0, certificates),
                           lists.empty() ? Bytes() : inContext(1, lists), der::element(der::setTag, signers)});
        return der::sequence({der::oid("1.2.840.113549.1.7.2"), inContext(0, body)});
    }
};

Bytes attribute(const std::string& type, const Bytes& value) {
    return der::sequence({der::oid(type), der::element(der::setTag, value)});
}

Bytes signer(const Bytes& signedAttributes = {}, const Bytes& unsignedAttributes = {}) {
    return der::sequence({der::integer("1"), nobody(), SignedParts::sha256(),
                          signedAttributes.empty() ? Bytes() : inContext(0, signedAttributes),
                          der::sequence({der::oid("1.2.840.113549.1.1.1"), der::null()}),
                          der::octetString(Bytes(256, 1)),
                          unsignedAttributes.empty() ? Bytes() : inContext(1, unsignedAttributes)});
}

Bytes certificate() {
    static const Bytes made =
        norvauthority::issue({.subject = {{"CN", "somebody"}}, .key = envelopeIdentity().key}).certificate.der;
    return made;
}

Prepared signedWith(const SignedParts& parts) {
    return readingSigned(parts.made());
}

Bytes usualAttributes() {
    return der::concat({attribute("1.2.840.113549.1.9.3", der::oid("1.2.840.113549.1.7.1")),
                        attribute("1.2.840.113549.1.9.4", der::octetString(Bytes(32, 1)))});
}

} // namespace

std::vector<Case> hostileMessages() {
    const Bytes oneOctet = der::octetString({1});
    const Bytes nestedEmpty{0x24, 0x80, 0x04, 0x00, 0x00, 0x00};
    const Bytes openings{0x30, 0x80};
    return {
        {"enveloped, segments of one octet", "segments", 20000, 1.2,
         [=](std::size_t n) { return contentOf(repeated(oneOctet, n)); }},
        {"enveloped, empty segments in segments", "segments", 20000, 1.2,
         [=](std::size_t n) { return contentOf(repeated(nestedEmpty, n)); }},
        {"enveloped, openings without an end", "openings", 20000, 1.2,
         [=](std::size_t n) { return openingEnvelope(repeated(openings, n)); }},
        {"enveloped, segments opened without an end", "openings", 20000, 1.2,
         [](std::size_t n) {
             return contentOf(repeated({0x24, 0x80}, n));
         }},
        {"enveloped, recipients by RSA", "recipients", 2000, 1.2,
         [](std::size_t n) { return recipients(transport(), n); }},
        {"enveloped, agreements", "recipients", 2000, 1.2, [](std::size_t n) { return recipients(agreement(1), n); }},
        {"enveloped, keys of one agreement", "keys", 2000, 1.2,
         [](std::size_t n) { return openingEnvelope(envelope(agreement(n), someContent())); }},
        {"enveloped, key-encryption keys", "recipients", 2000, 1.2,
         [](std::size_t n) { return recipients(keyEncryptionRecipient(), n); }},
        {"enveloped, passwords", "recipients", 2000, 1.2, [](std::size_t n) { return recipients(password(), n); }},
        {"enveloped, iterations of a password", "iterations", 25000, 1.2, passwordIterations},
        {"the same, beyond the limit", "iterations", 1'100'000, 1.2, passwordIterations},
        {"enveloped, recipients of other kinds", "recipients", 2000, 1.2,
         [](std::size_t n) { return recipients(other(), n); }},
        {"the same, beyond the limit", "recipients", 20000, 1.2, [](std::size_t n) { return recipients(other(), n); }},
        {"enveloped, a recipient of megabytes", "octets", 500000, 1.2,
         [](std::size_t n) {
             return openingEnvelope(envelope(
                 inContext(4, der::concat({der::oid("1.2.3"), der::octetString(Bytes(n, 1))})), someContent()));
         }},
        {"enveloped, originator certificates", "certificates", 500, 1.2,
         [](std::size_t n) {
             return openingEnvelope(envelope(keyEncryptionRecipient(), someContent(),
                                             inContext(0, inContext(0, repeated(certificate(), n)))));
         }},
        {"enveloped, unprotected attributes", "attributes", 5000, 1.2,
         [](std::size_t n) {
             return openingEnvelope(envelope(keyEncryptionRecipient(), someContent(), {},
                                             inContext(1, repeated(attribute("1.2.3", der::null()), n))));
         }},
        {"signed, segments of one octet", "segments", 20000, 1.2,
         [=](std::size_t n) { return signedWith({.content = der::element(0x24, repeated(oneOctet, n))}); }},
        {"signed, empty segments in segments", "segments", 20000, 1.2,
         [=](std::size_t n) { return signedWith({.content = der::element(0x24, repeated(nestedEmpty, n))}); }},
        {"signed, openings without an end", "openings", 20000, 1.2,
         [=](std::size_t n) { return readingSigned(repeated(openings, n)); }},
        {"signed, digest algorithms", "algorithms", 5000, 1.2,
         [](std::size_t n) { return signedWith({.algorithms = repeated(SignedParts::sha256(), n)}); }},
        {"signed, different digest algorithms", "algorithms", 5000, 1.2,
         [](std::size_t n) {
             Bytes all;
             for (std::size_t i = 0; i < n; ++i) {
                 der::append(all, der::sequence({der::oid("1.2.3." + std::to_string(i))}));
             }
             return signedWith({.algorithms = all});
         }},
        {"signed, signers", "signers", 20, 1.2,
         [](std::size_t n) {
             return signedWith({.certificates = certificate(), .signers = repeated(signer(usualAttributes()), n)});
         }},
        {"the same, beyond the limit", "signers", 1000, 1.2,
         [](std::size_t n) { return signedWith({.signers = repeated(signer(usualAttributes()), n)}); }},
        {"signed, certificates", "certificates", 500, 1.2,
         [](std::size_t n) {
             return signedWith({.certificates = repeated(certificate(), n), .signers = signer(usualAttributes())});
         }},
        {"the same, beyond the limit", "certificates", 3000, 1.2,
         [](std::size_t n) {
             return signedWith({.certificates = repeated(certificate(), n), .signers = signer(usualAttributes())});
         }},
        {"signed, revocation lists", "lists", 5000, 1.2,
         [](std::size_t n) { return signedWith({.lists = repeated(der::sequence({}), n), .signers = signer()}); }},
        {"signed, signed attributes", "attributes", 2000, 1.2,
         [](std::size_t n) {
             return signedWith(
                 {.signers = signer(der::concat({usualAttributes(), repeated(attribute("1.2.3", der::null()), n)}))});
         }},
        {"signed, values of an attribute", "values", 5000, 1.2,
         [](std::size_t n) {
             return signedWith(
                 {.signers = signer(der::concat({usualAttributes(), attribute("1.2.3", repeated(der::null(), n))}))});
         }},
        {"signed, unsigned attributes", "attributes", 5000, 1.2,
         [](std::size_t n) {
             return signedWith({.signers = signer({}, repeated(attribute("1.2.3", der::null()), n))});
         }},
        {"signed, countersignatures", "countersignatures", 200, 1.2,
         [](std::size_t n) {
             return signedWith({.signers = signer({}, attribute("1.2.840.113549.1.9.6", repeated(signer(), n)))});
         }},
    };
}

} // namespace fuzz
