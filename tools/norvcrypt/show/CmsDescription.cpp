#include "show/CmsDescription.h"
#include "base/Failure.h"
#include "openssl/CertificateDetails.h"
#include "openssl/CmsNames.h"
#include "recognise/ContentType.h"
#include "show/Facts.h"

#include <norvcmsg/Media.h>
#include <norvcrypto/CMS.h>
#include <norvcrypto/CMSEnvelopeOutline.h>
#include <norvcrypto/CMSEnvelopeReader.h>
#include <norvcrypto/CMSSignedReader.h>

#include <optional>
#include <string>
#include <vector>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
namespace CMS = Norvane::Crypto::CMS;
using CMS::EnvelopeReader;
using CMS::SignedReader;

namespace {

void putName(Description& facts, const std::optional<CMS::CertificateIdentifier>& name) {
    if (!name)
        return;
    if (name->namedBy() == CMS::NamedBy::subjectKeyIdentifier) {
        putText(facts, "keyIdentifier", hexText(name->octets()));
        return;
    }
    putText(facts, "issuer", displayName(*name->issuer()));
    const std::string serial = serialNumberOf(*name);
    putText(facts, "serial", serial);
    if (serial.starts_with('-'))
        problem(facts, "a negative serial number");
}

void putEnveloped(Description& facts, const Norvane::Buffer& structure) {
    const EnvelopeReader message{Norvane::MemoryMediaIn(structure)};
    // The reader has read up to the content; what is cut off behind that is damaged all the same.
    if (CMS::EnvelopeOutline(structure).kind() == CMS::EnvelopeOutline::Damaged)
        throw Failure("malformed: it is cut off, or lacks a part");
    facts["authenticated"] = message.isAuthenticated();
    putText(facts, "cipher", message.cipher());
    if (!message.hasContent())
        problem(facts, "the encrypted content is not in the structure");
    if (!message.unsupported().empty())
        problem(facts, "not supported: " + message.unsupported());
    facts["recipients"] = Description::array();
    for (const EnvelopeReader::Recipient& recipient : message.recipients()) {
        Description one = Description::object();
        one["kind"] = nameOfKind(recipient.kind());
        putName(one, recipient.identifier());
        putText(one, "keyIdentifier", hexText(recipient.keyIdentifier()));
        putText(one, "algorithm", recipient.algorithm());
        if (const std::string lacking = recipient.unsupported(); !lacking.empty())
            problem(one, "not supported: " + lacking);
        facts["recipients"].push_back(one);
    }
}

Description signerFacts(const SignedReader::Signer& signer) {
    Description facts = Description::object();
    try {
        putName(facts, signer.identifier());
    } catch (const Norvane::Exception& failure) {
        problem(facts, "a malformed name of the signer's certificate");
    }
    putText(facts, "digestAlgorithm", signer.digestAlgorithm());
    putText(facts, "signatureAlgorithm", signer.signatureAlgorithm());
    if (const auto time = signer.signingTime())
        putText(facts, "signingTime", isoTime(*time));
    std::vector<std::string> capabilities;
    for (const SignedReader::Signer::Capability& capability : signer.capabilities())
        capabilities.push_back(capability.name);
    putTexts(facts, "capabilities", capabilities);
    for (const SignedReader::Signer& one : signer.countersigners())
        facts["countersigners"].push_back(signerFacts(one));
    if (signer.hasMoreCountersigners())
        problem(facts, "countersignatures that are too many or damaged");
    return facts;
}

void putSigned(Description& facts, const Norvane::Buffer& structure) {
    SignedReader message{Norvane::MemoryMediaIn(structure)};
    Norvane::MediaOut nowhere = Norvane::NullMediaOut();
    message.write(nowhere);
    facts["detached"] = message.isDetached();
    facts["signers"] = Description::array();
    for (const SignedReader::Signer& signer : message.signers())
        facts["signers"].push_back(signerFacts(signer));
    facts["certificates"] = Description::array();
    for (const NVX509::RefCertificate& certificate : message.certificates())
        facts["certificates"].push_back(certificateFacts(certificate));
    facts["crls"] = Description::array();
    for (const NVX509::RefCertificateRevocationList& list : message.revocationLists())
        facts["crls"].push_back(listFacts(list));
}

/// Whether the structure is one of PKCS#7 all the same: then `refused` tells what keeps it from being looked into.
void requirePkcs7(const Norvane::Buffer& structure) {
    Norvane::MemoryMediaIn in(structure);
    const CMS::RefContentInfo decoded(in);
}

} // namespace

const char* nameOfKind(EnvelopeReader::Recipient::Kind kind) {
    using Recipient = EnvelopeReader::Recipient;
    switch (kind) {
    case Recipient::keyTransport:
        return "keyTransport";
    case Recipient::keyAgreement:
        return "keyAgreement";
    case Recipient::keyEncryptionKey:
        return "keyEncryptionKey";
    case Recipient::password:
        return "password";
    case Recipient::other:
        break;
    }
    return "other";
}

Description cmsFacts(const Norvane::Buffer& structure) {
    const std::string type = contentTypeOf(structure).name;
    Description facts = Description::object();
    putText(facts, "contentType", type);
    try {
        if (type == "pkcs7-signedData")
            putSigned(facts, structure);
        else if (type == "pkcs7-envelopedData" || type == "id-smime-ct-authEnvelopedData")
            putEnveloped(facts, structure);
        else
            requirePkcs7(structure);
    } catch (const Norvane::Crypto::TooCostlyException&) {
        throw;
    } catch (const Norvane::Exception& failure) {
        requirePkcs7(structure);
        facts = {{"contentType", type}};
        problem(facts, inPlainWords(failure));
    }
    return facts;
}

} // namespace norvcrypt
