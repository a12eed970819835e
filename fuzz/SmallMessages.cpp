// Messages of 1 KB at most that cost as much as any that are known.
#include "HostileMails.h"

#include "EnvelopeKey.h"

#include "support/Costly.h"

#include <norvcmsg/Media.h>
#include <norvcrypto-smime/SMimeDiagnosis.h>
#include <norvcrypto-smime/SMimeReader.h>
#include <norvcrypto/CMSEncryptionMedia.h>
#include <norvcrypto/CMSEnvelopeReader.h>
#include <norvcrypto/CMSSignedReader.h>
#include <norvcrypto/CMSSignedWriter.h>
#include <norvcrypto/CMSVerification.h>

#include <openssl/err.h>

#include <stdexcept>
#include <string>

namespace fuzz {

namespace {

namespace CMS = Norvane::Crypto::CMS;
namespace NVX509 = Norvane::Crypto::NVX509;
namespace SMime = Norvane::Crypto::SMime;
namespace der = norvauthority::der;
using norvauthority::Bytes;

template <class Read> SmallMessage small(const char* input, std::function<Bytes()> make, Read read) {
    return {input, [make, read] {
                const Bytes message = make();
                if (message.size() > smallMessage) {
                    throw std::logic_error(std::to_string(message.size()) + " octets are no small message");
                }
                return Prepared{message.size(), [message, read] {
                                    try {
                                        Norvane::MemoryMediaIn in(Norvane::Buffer(
                                            message.data(), static_cast<unsigned int>(message.size()), true));
                                        read(in);
                                    } catch (const Norvane::Exception&) {
                                        ERR_clear_error();
                                    }
                                }};
            }};
}

void readEnvelope(Norvane::MemoryMediaIn& in) {
    static const CMS::KeyStoreLookup keys(envelopeStore());
    CMS::EnvelopeReader reader(in);
    static_cast<void>(reader.recipients());
    static_cast<void>(reader.open(keys));
    Norvane::NullMediaOut out;
    reader.write(out);
}
void decrypt(Norvane::MemoryMediaIn& in) {
    static const NVX509::RefKeyStore keys = envelopeStore();
    CMS::DecrypterMediaIn decrypter(in, keys);
    Norvane::NullMediaOut out;
    decrypter.write(out);
}
void readSigned(Norvane::MemoryMediaIn& in) {
    CMS::SignedReader reader(in);
    Norvane::NullMediaOut out;
    reader.write(out);
}
void decode(Norvane::MemoryMediaIn& in) {
    const CMS::RefContentInfo decoded(in);
    const CMS::SignedData content = CMS::signedData(decoded);
    for (const auto& certificate : content.certificates()) {
        certificate->warm();
    }
}
void readMail(Norvane::MemoryMediaIn& in) {
    static const CMS::KeyStoreLookup keys(envelopeStore());
    SMime::ReadOptions options;
    options.keys = &keys;
    options.wholeMessage = true;
    options.listParts = true;
    Norvane::NullMediaOut out;
    static_cast<void>(SMime::read(in, out, options));
}

Bytes repeated(const Bytes& octets, std::size_t count) {
    Bytes all;
    for (std::size_t i = 0; i < count; ++i) {
        der::append(all, octets);
    }
    return all;
}
Bytes openings() {
    return repeated({0x30, 0x80}, smallMessage / 2);
}

/// As many recipients of the one key as fit, named in as few octets as a name has.
Bytes manyRecipients(std::size_t keyOctets) {
    const Bytes name = der::sequence({norvauthority::Name{{"CN", "Bob"}}.der(), der::integer("b0b")});
    const Bytes one = der::sequence({der::integer("0"), name, der::sequence({der::oid("rsaEncryption"), der::null()}),
                                     der::octetString(Bytes(keyOctets, 1))});
    const Bytes algorithm = der::sequence({der::oid("AES-128-CBC"), der::octetString(Bytes(16, 1))});
    const auto message = [&](std::size_t count) {
        return der::sequence(
            {der::oid("1.2.840.113549.1.7.3"),
             der::element(der::contextConstructed(0),
                          der::sequence({der::integer("0"), der::set(std::vector<Bytes>(count, one)),
                                         der::sequence({der::oid("1.2.840.113549.1.7.1"), algorithm,
                                                        der::element(der::context(0), Bytes(16, 1))})}))});
    };
    std::size_t count = 1;
    while (message(count + 1).size() <= smallMessage) {
        ++count;
    }
    return message(count);
}

/// As many points of as long a name as fit.
Bytes relativePoints() {
    static const norvauthority::Key key = norvauthority::Key::ec();
    std::size_t count = 1;
    const auto structure = [](std::size_t points) {
        return norvtest::certificatesOnly({norvtest::relativePoints(points, points, key).der});
    };
    while (structure(count + 1).size() <= smallMessage) {
        ++count;
    }
    return structure(count);
}
Bytes explicitCurve() {
    return norvtest::certificatesOnly({norvtest::explicitIdentity().certificate.der});
}

Bytes fill(const std::string& before, const std::string& what, const std::string& behind = "\r\n\r\nx") {
    std::string text = before;
    while (text.size() + what.size() + behind.size() <= smallMessage) {
        text += what;
    }
    return norvauthority::bytes(text + behind);
}
Bytes nestedMultiparts() {
    std::string text;
    for (char boundary = 'a'; boundary <= 'q'; ++boundary) {
        text += std::string("Content-Type: multipart/mixed; boundary=") + boundary + "\r\n\r\n--" + boundary + "\r\n";
    }
    return norvauthority::bytes(text);
}

/// Every change that is looked for may have happened to it.
const std::string everything =
    "Content-Type: multipart/mixed; boundary=x\n\nbefore \n--x\nContent-Type: text/plain; charset=utf-8\n"
    "Content-Transfer-Encoding: quoted-printable\n\n=3d=3D \nFrom \n>From \n>>From \n.\n..\n--\r\nx\ry\r\r\n--x\n"
    "Content-Type: text/plain; charset=iso-8859-1\nContent-Transfer-Encoding: base64\n\nAAAA\n--x\n"
    "Content-Type: text/plain; charset=iso-8859-15\nContent-Transfer-Encoding: 8bit\n\nx\n--x--\n.\n.\n.\n.\n.\n.\n.\n";

/// A signature over another body, with what is asked about both.
SmallMessage explained() {
    const norvauthority::Identity signer =
        norvauthority::issue({.subject = {{"CN", "x"}}, .key = norvauthority::Key::ec()});
    CMS::SignedWriter::Options options;
    CMS::SignedWriter::Signer one({Norvane::Crypto::RefKey(new Norvane::Crypto::PrivateKey(signer.key.newReference())),
                                   NVX509::CertificateFactory()(signer.certificate.x509().release(), true)});
    one.include = CMS::SignedWriter::Include::nothing;
    one.capabilities.clear();
    one.signingCertificate = false;
    options.signers = {one};
    options.content = CMS::SignedWriter::Content::detached;
    return {"signed body that shows every change, SMime::explain", [options, certificate = one.pair->certificate] {
                Norvane::MemoryMediaOut out;
                CMS::SignedWriter writer(options);
                writer.attach(out);
                writer.write(reinterpret_cast<const unsigned char*>("x"), 1);
                writer.end();
                const Norvane::Buffer structure = out.content();
                if (structure.length() + everything.size() > smallMessage) {
                    throw std::logic_error("the body and its signature are no small message");
                }
                return prepared(structure.length() + everything.size(), [structure, certificate] {
                    SMime::DiagnosisOptions asked;
                    asked.certificates = {certificate};
                    static_cast<void>(SMime::explain(
                        structure, [] { return Norvane::MediaIn(Norvane::MemoryMediaIn(everything)); }, asked));
                });
            }};
}

} // namespace

std::vector<SmallMessage> smallMessages() {
    const std::string mixed = "Content-Type: multipart/mixed; boundary=x\r\n\r\n";
    return {
        small("enveloped, openings, EnvelopeReader", openings, readEnvelope),
        small("signed, openings, SignedReader", openings, readSigned),
        small("openings, RefContentInfo", openings, decode),
        small(
            "enveloped, recipients of one key, EnvelopeReader", [] { return manyRecipients(1); }, readEnvelope),
        small(
            "enveloped, recipients of one key, DecrypterMediaIn", [] { return manyRecipients(1); }, decrypt),
        small(
            "enveloped, encrypted keys of 256 octets, EnvelopeReader", [] { return manyRecipients(256); },
            readEnvelope),
        small(
            "enveloped, encrypted keys of 256 octets, DecrypterMediaIn", [] { return manyRecipients(256); }, decrypt),
        small("certificates, relative points", relativePoints, decode),
        small("certificates, an explicit curve", explicitCurve, decode),
        small(
            "mail, header fields", [] { return fill("", "X:\r\n"); }, readMail),
        small(
            "mail, groups of addresses in one another", [] { return fill("From: ", "a:"); }, readMail),
        small(
            "mail, addresses", [] { return fill("From: a@b", ",a@b"); }, readMail),
        small(
            "mail, encoded words", [] { return fill("Subject: ", "=?utf-8?Q?a?= "); }, readMail),
        small(
            "mail, parameters", [] { return fill("Content-Type: text/plain", ";a*1=b"); }, readMail),
        small(
            "mail, parts", [mixed] { return fill(mixed, "--x\r\n\r\n"); }, readMail),
        small(
            "mail, structures",
            [mixed] { return fill(mixed, "--x\r\nContent-Type: application/pkcs7-mime\r\n\r\n0\x80\r\n"); }, readMail),
        small("mail, parts in one another", nestedMultiparts, readMail),
        explained(),
    };
}

} // namespace fuzz
