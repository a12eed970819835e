#include "HostileMails.h"

#include "EnvelopeKey.h"
#include "TrustAnchor.h"

#include "Owners.h"
#include "config/AddressPattern.h"
#include "config/Config.h"
#include "front/Session.h"
#include "milter/support/FakeLibmilter.h"

#include <norvcmsg/Media.h>
#include <norvcrypto-smime/SMimeReader.h>
#include <norvcrypto-trust/Trust.h>
#include <norvcrypto-trust/TrustSender.h>
#include <norvcrypto/CMSSignedWriter.h>
#include <norvcrypto/CMSVerification.h>

#include <authority/Der.h>

#include <openssl/err.h>

#include <chrono>
#include <list>
#include <memory>
#include <string>
#include <vector>

using namespace norvauthority;
namespace CMS = Norvane::Crypto::CMS;
namespace NVX509 = Norvane::Crypto::NVX509;
namespace SMime = Norvane::Crypto::SMime;
namespace Trust = Norvane::Crypto::Trust;

namespace fuzz {

namespace {

constexpr std::time_t moment = 1798761600; // 1 January 2027

// Mails

Prepared mail(const std::string& text) {
    static const CMS::KeyStoreLookup keys(envelopeStore());
    return prepared(text.size(), [text] {
        SMime::ReadOptions options;
        options.keys = &keys;
        options.wholeMessage = true;
        options.listParts = true;
        Norvane::NullMediaOut out;
        static_cast<void>(SMime::read(Norvane::MemoryMediaIn(text), out, options));
    });
}

const std::string multipart = "Content-Type: multipart/mixed; boundary=x\r\n\r\n";

Prepared fields(std::size_t count) {
    return mail(repeatedText("X: y\r\n", count) + "\r\nbody");
}
Prepared longField(std::size_t octets) {
    return mail("Subject: " + std::string(octets, 'x') + "\r\n\r\nbody");
}
Prepared foldedField(std::size_t lines) {
    return mail("Content-Type: text/plain" + repeatedText(";\r\n a=b", lines) + "\r\n\r\nbody");
}
Prepared encodedWords(std::size_t count) {
    return mail("Subject: " + repeatedText("=?utf-8?Q?a?=\r\n ", count) + "\r\n\r\nbody");
}
Prepared addresses(std::size_t count) {
    return mail("From: a@b.example" + repeatedText(",\r\n a@b.example", count) + "\r\n\r\nbody");
}
Prepared groups(std::size_t count) {
    return mail("From: " + repeatedText("a:", count) + "\r\n\r\nbody");
}
Prepared parts(std::size_t count) {
    return mail(multipart + repeatedText("--x\r\n\r\n\r\n", count) + "--x--\r\n");
}
Prepared lookalikes(std::size_t count) {
    return mail(multipart + "--x\r\n\r\n" + repeatedText("--y\r\n-", count) + "\r\n--x--\r\n");
}
Prepared levels(std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        const std::string boundary = "b" + std::to_string(i);
        text += "Content-Type: multipart/mixed; boundary=" + boundary + "\r\n\r\n--" + boundary + "\r\n";
    }
    return mail(text + "\r\nbody");
}
Prepared forwarded(std::size_t count) {
    return mail(repeatedText("Content-Type: message/rfc822\r\n\r\n", count) + "\r\nbody");
}
Prepared structures(std::size_t count) {
    return mail(
        multipart +
        repeatedText("--x\r\nContent-Type: application/pkcs7-mime\r\n\r\n" + std::string("\x30\x80") + "\r\n", count) +
        "--x--\r\n");
}
Prepared base64(std::size_t lines) {
    return mail("Content-Type: application/pkcs7-mime\r\nContent-Transfer-Encoding: base64\r\n\r\n" +
                repeatedText(std::string(76, 'M') + "\r\n", lines));
}
Prepared shortLines(std::size_t lines) {
    return mail("Content-Type: application/pkcs7-mime\r\nContent-Transfer-Encoding: base64\r\n\r\n" +
                repeatedText("M\r\n", lines));
}

// Chains

NVX509::RefCertificate decoded(const Identity& identity) {
    return NVX509::CertificateFactory()(identity.certificate.x509().release(), true);
}

Prepared judging(const std::vector<Identity>& chain) {
    std::list<NVX509::RefCertificate> given;
    std::size_t octets = 0;
    for (const Identity& one : chain) {
        given.push_back(decoded(one));
        octets += one.certificate.der.size();
    }
    auto anchors = std::make_shared<Trust::Material>();
    anchors->addAnchor(decoded(trustAnchor()));
    return prepared(octets, [given, anchors] {
        Trust::Options options;
        options.at = moment;
        options.purpose = Trust::Purpose::sign;
        const Trust::Verifier verifier(anchors);
        static_cast<void>(verifier.judge(given.front(), given, {}, options));
    });
}

const Key& curveKey() {
    static const Key key = Key::ec();
    return key;
}
Identity authority(const std::string& name, const Identity* issuer) {
    return issue({.subject = {{"CN", name}}, .key = curveKey(), .issuer = issuer, .ca = true, .keyUsage = 0x06U});
}

/// A leaf, and so many authorities above it, the last of which nobody knows.
Prepared longChain(std::size_t count) {
    std::vector<Identity> chain(count + 1);
    for (std::size_t i = count; i != 0; --i) {
        chain[i] = authority("A" + std::to_string(i), i == count ? nullptr : &chain[i + 1]);
    }
    chain[0] = issue({.subject = {{"CN", "leaf"}}, .key = curveKey(), .issuer = &chain[1]});
    return judging(chain);
}
/// A leaf whose issuer there are many of.
Prepared issuersOfOneName(std::size_t count) {
    std::vector<Identity> chain(1);
    for (std::size_t i = 0; i < count; ++i) {
        CertificateRequest request{.subject = {{"CN", "A"}}, .key = curveKey(), .ca = true, .keyUsage = 0x06U};
        request.serial = std::to_string(1000 + i);
        chain.push_back(issue(request));
    }
    chain[0] = issue({.subject = {{"CN", "leaf"}}, .key = curveKey(), .issuer = &chain[1]});
    return judging(chain);
}
/// Twenty authorities, each with policy constraints of so many octets and without policies.
Prepared policyConstraints(std::size_t count) {
    const Bytes constraints = der::sequence({der::element(0x80, Bytes(count, 0x7F))});
    std::vector<Identity> chain(20);
    for (std::size_t i = chain.size(); i-- != 0;) {
        CertificateRequest request{.subject = {{"CN", "A" + std::to_string(i)}}, .key = curveKey()};
        request.issuer = i + 1 == chain.size() ? nullptr : &chain[i + 1];
        request.ca = true;
        request.keyUsage = 0x06U;
        request.extensions = {{"2.5.29.36", constraints, true}};
        chain[i] = issue(request);
    }
    return judging(chain);
}
Prepared comparedAddresses(std::size_t count) {
    std::vector<GeneralName> names;
    std::vector<std::string> from;
    for (std::size_t i = 0; i < count; ++i) {
        const std::string number = std::to_string(100000 + i);
        names.push_back(GeneralName::email("a" + number + "@a.example"));
        from.push_back("b" + number + "@a.example");
    }
    const Identity holder = issue({.subject = {{"CN", "x"}}, .key = curveKey(), .alternativeNames = names});
    return prepared(holder.certificate.der.size(), [certificate = decoded(holder), from] {
        static_cast<void>(Trust::matchSender(certificate, from, ""));
    });
}

// Signers and certificates that a program has

/// A hundred signers, whose certificates are not in the mail, and a list of so many others.
Prepared signersTimesList(std::size_t count) {
    static const Identity signer = issue({.subject = {{"CN", "signer"}}, .key = curveKey(), .serial = "51"});
    static const std::string text = [] {
        CMS::SignedWriter::Options options;
        CMS::SignedWriter::Signer one(
            {Norvane::Crypto::RefKey(new Norvane::Crypto::PrivateKey(signer.key.newReference())), decoded(signer)});
        one.include = CMS::SignedWriter::Include::nothing;
        options.signers.assign(CMS::maximumSigners, one);
        Norvane::MemoryMediaOut out;
        CMS::SignedWriter writer(options);
        writer.attach(out);
        writer.write(reinterpret_cast<const unsigned char*>("\r\nx"), 3);
        writer.end();
        return "Content-Type: application/pkcs7-mime; smime-type=signed-data\r\n\r\n" +
               std::string(reinterpret_cast<const char*>(out.content().data()), out.content().length());
    }();
    static const Identity other = issue({.subject = {{"CN", "x"}}, .key = curveKey(), .issuerName = signer.name});
    return prepared(text.size(), [given = std::vector<NVX509::RefCertificate>(count, decoded(other))] {
        SMime::ReadOptions options;
        options.certificates = given;
        Norvane::NullMediaOut out;
        static_cast<void>(SMime::read(Norvane::MemoryMediaIn(text), out, options));
    });
}

// What an MTA tells the mail filter

class SilentLog : public norvmilter::Log {
public:
    SilentLog() : Log(norvmilter::LogTarget::standardError, norvmilter::LogLevel::error) {}

protected:
    void write(norvmilter::LogLevel /*level*/, const std::string& /*line*/) override {}
};

/// A message in callbacks, which nobody judges: what the front keeps and looks at.
template <class Tell> Prepared callbacks(std::size_t octets, Tell tell) {
    return {octets, [tell] {
                SilentLog log;
                norvmilter::Metrics metrics;
                norvmilter::Front front(log, metrics,
                                        std::make_shared<const norvmilter::Generation>(norvmilter::Generation{
                                            {}, [](const auto&, const auto&) { return norvmilter::Outcome(); }, {}}),
                                        std::chrono::seconds(60));
                smfi_str context;
                norvmilter::Session session(front);
                unsigned long actions = 0;
                unsigned long steps = 0;
                static_cast<void>(session.negotiate(&context, ~0UL, ~0UL, actions, steps));
                static_cast<void>(session.connect(&context, nullptr));
                const char* const sender[] = {"<a@a.example>", nullptr};
                static_cast<void>(session.sender(&context, sender));
                tell(session, context);
                static_cast<void>(session.endOfMessage(&context));
            }};
}
Prepared toldFields(std::size_t count) {
    return callbacks(9 * count, [count](norvmilter::Session& session, smfi_str& /*context*/) {
        for (std::size_t i = 0; i < count; ++i) {
            session.header("Subject", " x");
        }
    });
}
Prepared toldLongField(std::size_t octets) {
    return callbacks(octets, [octets](norvmilter::Session& session, smfi_str& /*context*/) {
        session.header("Subject", std::string(octets, 'x').c_str());
    });
}
Prepared toldRecipients(std::size_t count) {
    return callbacks(20 * count, [count](norvmilter::Session& session, smfi_str& context) {
        for (std::size_t i = 0; i < count; ++i) {
            const std::string path = "<a" + std::to_string(i) + "@a.example>";
            const char* const recipient[] = {path.c_str(), "NOTIFY=NEVER", "ORCPT=rfc822;a@a.example", nullptr};
            static_cast<void>(session.recipient(&context, recipient));
        }
    });
}

// What operators write

Prepared owners(std::size_t count) {
    const std::string text = repeatedText("*@b.example\nalice@a.example\n", count);
    return prepared(text.size(), [text] {
        const Norvane::Buffer buffer(text.data(), static_cast<unsigned int>(text.size()), false);
        for (const auto& owner : NVX509::keystore::ownersOf(buffer)) {
            static_cast<void>(owner.pattern.matches("bob@c.example"));
        }
    });
}
/// One pattern on a text that it nearly matches.
Prepared stars(std::size_t count) {
    return prepared(3 * count, [pattern = repeatedText("a*", count) + "b", text = std::string(count, 'a')] {
        static_cast<void>(norvmilter::NamePattern(pattern).matches(text + text));
    });
}
Prepared configuration(const std::string& text) {
    return {text.size(), [text] {
                try {
                    static_cast<void>(norvmilter::Config::parse(text, "/etc/milter.toml"));
                } catch (const norvmilter::ConfigError&) {
                    // which is what most of them come to
                }
            }};
}
Prepared tables(std::size_t count) {
    return configuration(repeatedText("[[direction]]\nauthenticated = \"*\"\ndirection = \"outgoing\"\n", count));
}
Prepared arrays(std::size_t count) {
    return configuration("a = " + std::string(count, '['));
}
Prepared unknownKeys(std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += "k" + std::to_string(100000 + i) + " = 1\n";
    }
    return configuration(text);
}

} // namespace

std::vector<Case> hostileMails() {
    return {
        {"mail, header fields", "fields", 400, 1.2, fields},
        {"the same, beyond the limit", "fields", 4000, 1.2, fields},
        {"mail, a long field", "octets", 50000, 1.2, longField},
        {"the same, beyond the limit", "octets", 400000, 1.2, longField},
        {"mail, parameters of a field", "parameters", 800, 1.2, foldedField},
        {"mail, encoded words", "words", 400, 1.2, encodedWords},
        {"mail, addresses", "addresses", 200, 1.2, addresses},
        {"the same, beyond the limit", "addresses", 4000, 1.2, addresses},
        {"mail, groups of addresses in one another", "groups", 20, 1.2, groups},
        {"the same, beyond the limit", "groups", 2000, 1.2, groups},
        {"mail, parts", "parts", 200, 1.2, parts},
        {"the same, beyond the limit", "parts", 4000, 1.2, parts},
        {"mail, lines that look like boundaries", "lines", 5000, 1.2, lookalikes},
        {"mail, parts in one another", "levels", 5, 2.2, levels}, // each line is looked at in each of 24 levels at most
        {"the same, beyond the limit", "levels", 200, 1.2, levels},
        {"mail, messages in one another", "levels", 200, 1.2, forwarded},
        {"mail, damaged structures", "structures", 50, 1.2, structures},
        {"mail, base64", "lines", 1000, 1.2, base64},
        {"mail, base64 in short lines", "lines", 20000, 1.2, shortLines},
        {"chain of authorities", "authorities", 7, 1.2, longChain},
        {"the same, beyond the limit", "authorities", 50, 1.2, longChain},
        {"chain, issuers of one name", "issuers", 15, 1.2, issuersOfOneName},
        {"the same, beyond the limit", "issuers", 200, 1.2, issuersOfOneName},
        {"chain, policy constraints without policies", "octets of each", 1000, 1.2, policyConstraints},
        {"addresses of a certificate and a mail", "addresses on each side", 200, 1.2, comparedAddresses},
        {"the same, beyond the limit", "addresses on each side", 2000, 1.2, comparedAddresses},
        {"signers without certificates, and a list", "certificates", 10000, 1.2, signersTimesList},
        {"the same, beyond the limit", "certificates", 50000, 1.2, signersTimesList},
        {"mail filter, header fields", "fields", 2000, 1.2, toldFields},
        {"the same, beyond the limit", "fields", 20000, 1.2, toldFields},
        {"mail filter, a long field", "octets", 200000, 1.2, toldLongField},
        {"the same, beyond the limit", "octets", 2000000, 1.2, toldLongField},
        {"mail filter, recipients", "recipients", 200, 1.2, toldRecipients},
        {"the same, beyond the limit", "recipients", 2000, 1.2, toldRecipients},
        {"owners of a key store", "lines", 1000, 1.2, owners},
        {"pattern with many stars", "stars", 50, 2.2, stars}, // the operator's own; a product of pattern and text
        {"configuration, tables", "tables", 100, 1.2, tables},
        {"configuration, arrays in one another", "levels", 5000, 1.2, arrays},
        {"configuration, unknown keys", "keys", 500, 1.2, unknownKeys},
    };
}

} // namespace fuzz
