#include "Tasks.h"

#include <norvcmsg/Exception.h>
#include <norvcmsg/Media.h>
#include <norvcrypto-smime/SMimeReader.h>
#include <norvcrypto/CMS.h>
#include <norvcrypto/CMSEnvelopeReader.h>
#include <norvcrypto/CMSSignedReader.h>
#include <norvcrypto/CMSVerification.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/Key.h>
#include <norvcrypto/KeyStore.h>

namespace vectors {

namespace {

using namespace Norvane;
using namespace Norvane::Crypto;

/// "good", or what is said about the signer.
Json factOf(const CMS::SignatureResult& result) {
    switch (result.verdict) {
    case CMS::SignatureVerdict::good:
        return "good";
    case CMS::SignatureVerdict::refused:
        return std::string("refused: ") + CMS::textOf(result.reason);
    case CMS::SignatureVerdict::unsupported:
        return std::string("unsupported: ") + CMS::textOf(result.reason) + " " + result.algorithm;
    }
    return nullptr;
}

Json factsOf(const CMS::SignatureReport& report) {
    Json facts = Json::array();
    for (const CMS::SignatureResult& result : report.signers) {
        facts.push_back(factOf(result));
    }
    return facts;
}

std::list<NVX509::RefCertificate> certificatesIn(const std::string& path) {
    const Bytes content = contentOf(path);
    std::list<NVX509::RefCertificate> found;
    NVX509::CertificateFactory().read(bufferOf(content), found);
    found.remove_if([](const NVX509::RefCertificate& one) { return one.isNull(); });
    return found;
}

/// In constant memory. A signer whose certificate is not in the message is judged by those given.
Json readInOnePass(const Json& task, const Bytes& structure) {
    CMS::SignedReader message{MemoryMediaIn(bufferOf(structure))};
    Bytes content;
    if (message.isDetached()) {
        content = task.contains("content") ? contentOf(task.at("content")) : Bytes();
        message.digest().write(bufferOf(content));
    } else {
        MemoryMediaOut out;
        message.write(out);
        content = bytesOf(out.content());
    }
    Json signers = Json::array();
    for (const CMS::SignedReader::Signer& signer : message.signers()) {
        CMS::SignatureResult result = message.verdict(signer);
        for (const std::string& path : task.value("certificates", std::vector<std::string>())) {
            for (const NVX509::RefCertificate& certificate : certificatesIn(path)) {
                if (result.verdict != CMS::SignatureVerdict::good) {
                    result = message.verdict(signer, certificate);
                }
            }
        }
        signers.push_back(factOf(result));
    }
    return {{"detached", message.isDetached()},
            {"content", sha256Of(content)},
            {"signers", signers},
            {"certificates", message.certificates().size()},
            {"revocationLists", message.revocationLists().size()}};
}

/// Through the views of PKCS#7 1.5, which need the whole structure.
Json readAsStructure(const Json& task, const Bytes& structure) {
    MemoryMediaIn in(bufferOf(structure));
    const CMS::RefContentInfo read(in);
    const CMS::SignedData data = CMS::signedData(read);
    Json facts{{"certificates", data.certificates().size()},
               {"revocationLists", data.certificateRevocationLists().size()}};
    if (CMS::carriedContent(read) == CMS::CarriedContent::octets) {
        facts["signers"] = factsOf(CMS::verifyEmbeddedSignatures(read));
    } else {
        const Bytes content = task.contains("content") ? contentOf(task.at("content")) : Bytes();
        MemoryMediaIn body(bufferOf(content));
        facts["signers"] = factsOf(CMS::verifySignatures(read, body));
    }
    return facts;
}

template <class Read> Json answerOf(Read read, const Json& task, const Bytes& structure) {
    try {
        return read(task, structure);
    } catch (const Exception& failure) {
        return {{"failed", failure.asString()}};
    }
}

NVX509::KeyCertificatePair pairOf(const Json& task) {
    const Bytes encoded = contentOf(task.at("key"));
    const RefKey key(Key::PRIVATE_KEY);
    const std::string passphrase = task.value("passphrase", "");
    const Buffer octets(passphrase.data(), static_cast<unsigned int>(passphrase.size()), true);
    dynamic_cast<PrivateKey&>(*key).readUnattended(bufferOf(encoded), &octets);
    const std::list<NVX509::RefCertificate> certificates = certificatesIn(task.at("certificate"));
    if (certificates.empty()) {
        throw BadTask("no certificate in " + task.at("certificate").get<std::string>());
    }
    return {key, certificates.front()};
}

} // namespace

Json signedData(const Json& task) {
    const Bytes structure = contentOf(task.at("path"));
    return {{"reader", answerOf(readInOnePass, task, structure)},
            {"views", answerOf(readAsStructure, task, structure)}};
}

Json envelopedData(const Json& task) {
    const Bytes structure = contentOf(task.at("path"));
    CMS::EnvelopeReader message{MemoryMediaIn(bufferOf(structure))};
    Json facts{{"cipher", message.cipher()},
               {"authenticated", message.isAuthenticated()},
               {"recipients", message.recipients().size()}};
    if (!task.contains("key")) {
        return facts;
    }
    if (!message.open(CMS::KeyListLookup({pairOf(task)}))) {
        facts["failed"] = "not opened: " + message.unsupported();
        return facts;
    }
    MemoryMediaOut out;
    message.write(out);
    facts["content"] = sha256Of(bytesOf(out.content()));
    return facts;
}

Json mail(const Json& task) {
    const Bytes octets = contentOf(task.at("path"));
    MemoryMediaOut content;
    const SMime::Answer answer = SMime::read(MemoryMediaIn(bufferOf(octets)), content, SMime::ReadOptions());
    Json layers = Json::array();
    for (const SMime::Layer& layer : answer.layers) {
        Json signers = Json::array();
        for (const SMime::LayerSigner& signer : layer.signers) {
            signers.push_back(factOf(signer.result));
        }
        layers.push_back({{"kind", static_cast<int>(layer.kind)},
                          {"certificates", layer.certificates.size()},
                          {"signers", signers},
                          {"detail", layer.detail}});
    }
    return {{"verdict", SMime::nameOf(answer.verdict)},
            {"detail", answer.detail},
            {"content", sha256Of(bytesOf(content.content()))},
            {"layers", layers}};
}

} // namespace vectors
