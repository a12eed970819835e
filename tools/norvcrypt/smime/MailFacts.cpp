#include "openssl/CertificateDetails.h"
#include "show/DiagnosisReport.h"
#include "show/Facts.h"
#include "show/SignatureReport.h"
#include "smime/MailReport.h"
#include "trust/TrustReport.h"

namespace norvcrypt {

namespace SMime = Norvane::Crypto::SMime;
namespace Trust = Norvane::Crypto::Trust;

namespace {

Description signerFacts(const SMime::LayerSigner& signer, const SMime::Answer& answer,
                        const std::optional<Trust::Options>& trust) {
    Description facts = resultFacts(signer.result, signer.identifier);
    putText(facts, "identifier", signer.identifier);
    putText(facts, "digestAlgorithm", signer.digestAlgorithm);
    putText(facts, "signatureAlgorithm", signer.signatureAlgorithm);
    if (signer.signingTime)
        facts["signingTime"] = isoTime(*signer.signingTime);
    if (signer.explanation)
        facts["explanation"] = explanationFacts(*signer.explanation);
    if (signer.sender)
        facts["senderRelation"] = Trust::nameOf(signer.sender->relation);
    if (signer.trust && trust)
        facts["trust"] = trustFacts({*signer.trust, *trust, answer.from, signer.sender});
    return facts;
}

Description recipientFacts(const SMime::LayerRecipient& recipient) {
    Description facts = Description::object();
    putText(facts, "identifier", recipient.identifier);
    putText(facts, "algorithm", recipient.algorithm);
    facts["opened"] = recipient.opened;
    return facts;
}

Description layerFacts(const SMime::Layer& layer, const SMime::Answer& answer,
                       const std::optional<Trust::Options>& trust) {
    Description facts{{"part", layer.path},
                      {"kind", SMime::nameOf(layer.kind)},
                      {"status", SMime::nameOf(layer.status)},
                      {"coversContent", layer.coversContent}};
    putText(facts, "detail", layer.detail);
    putText(facts, "micalg", layer.micalg);
    if (layer.kind == SMime::LayerKind::multipartSigned && layer.status == SMime::LayerStatus::good)
        facts["signedForm"] = SMime::nameOf(layer.form);
    if (layer.kind == SMime::LayerKind::multipartSigned || layer.kind == SMime::LayerKind::opaqueSigned)
        facts["signers"] = Description::array();
    for (const SMime::LayerSigner& signer : layer.signers)
        facts["signers"].push_back(signerFacts(signer, answer, trust));
    if (!layer.cipher.empty()) {
        facts["cipher"] = layer.cipher;
        facts["authenticated"] = layer.authenticated;
    }
    if (layer.kind == SMime::LayerKind::enveloped || layer.kind == SMime::LayerKind::authEnveloped)
        facts["recipients"] = Description::array();
    for (const SMime::LayerRecipient& recipient : layer.recipients)
        facts["recipients"].push_back(recipientFacts(recipient));
    if (layer.kind == SMime::LayerKind::certificatesOnly) {
        facts["certificates"] = Description::array();
        for (const auto& certificate : layer.certificates)
            facts["certificates"].push_back(certificateFacts(certificate));
    }
    return facts;
}

Description headerFacts(const SMime::HeaderProtection& headers) {
    Description facts{{"scheme", SMime::nameOf(headers.scheme)},
                      {"signed", headers.isSigned},
                      {"encrypted", headers.isEncrypted},
                      {"fields", Description::array()}};
    for (const SMime::ProtectedField& field : headers.fields) {
        Description one{{"name", field.name}, {"value", field.value}, {"state", SMime::nameOf(field.state)}};
        if (field.outside)
            one["outside"] = *field.outside;
        facts["fields"].push_back(one);
    }
    facts["outsideOnly"] = headers.outsideOnly;
    putTexts(facts, "legacyDisplay", headers.legacyDisplay);
    return facts;
}

} // namespace

bool isRead(const SMime::Answer& answer) noexcept {
    return answer.verdict != SMime::Verdict::damaged && answer.verdict != SMime::Verdict::tooCostly;
}

Description mailFacts(const SMime::Answer& answer, const std::optional<Trust::Options>& trust,
                      const std::string& file) {
    Description facts{{"file", file},
                      {"type", answer.layers.empty() ? "mail" : "S/MIME message"},
                      {"verdict", SMime::nameOf(answer.verdict)},
                      {"detail", answer.detail},
                      {"trustChecked", trust.has_value()}};
    facts["from"] = answer.from;
    facts["sender"] = answer.sender;
    putText(facts, "contentPart", answer.contentPath);
    putText(facts, "contentType", answer.contentType);
    facts["layers"] = Description::array();
    for (const SMime::Layer& layer : answer.layers)
        facts["layers"].push_back(layerFacts(layer, answer, trust));
    if (answer.headers.scheme != SMime::HeaderScheme::none)
        facts["headerProtection"] = headerFacts(answer.headers);
    facts["notCovered"] = Description::array();
    for (const SMime::UncoveredPart& part : answer.notCovered)
        facts["notCovered"].push_back({{"part", part.path}, {"contentType", part.type}});
    for (const SMime::LeafPart& part : answer.parts) {
        Description one{{"part", part.path}, {"contentType", part.type}};
        putText(one, "name", part.name);
        one["transferEncoding"] = part.transferEncoding;
        one["octets"] = part.octets;
        facts["parts"].push_back(std::move(one));
    }
    facts["oddities"] = answer.oddities;
    return facts;
}

} // namespace norvcrypt
