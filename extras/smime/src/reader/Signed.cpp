// Signed layers: multipart/signed, and signed data that carries its content.

#include "Signed.h"

#include "LeafParts.h"

#include "mime/Multipart.h"
#include "mime/Transfer.h"

#include <norvcrypto/CMSSignedReader.h>

#include <openssl/x509.h>

#include <algorithm>
#include <array>

namespace Norvane::Crypto::SMime {

using CMS::SignatureReason;
using CMS::SignatureResult;
using CMS::SignatureVerdict;
using CMS::SignedReader;
using mime::ContentType;
using mime::Header;
using mime::SharedOctets;

namespace {

constexpr const char* dataType = "1.2.840.113549.1.7.1";
constexpr std::size_t maximumTrusted = 32; ///< signers whose certificates are judged, in one message

std::string identifierOf(const SignedReader::Signer& signer) {
    try {
        return signer.identifier().asString();
    } catch (const Exception&) {
        return {};
    }
}

/// The different ones that are named, one more than are tried at the most.
std::vector<NVX509::RefCertificate> namedAmong(const std::vector<NVX509::RefCertificate>& certificates,
                                               const CMS::CertificateIdentifier& name) {
    std::vector<NVX509::RefCertificate> named;
    for (const NVX509::RefCertificate& certificate : certificates) {
        const auto isSame = [&](const NVX509::RefCertificate& one) { return X509_cmp(one, certificate) == 0; };
        if (named.size() <= CMS::maximumTries && name.names(certificate) && std::ranges::none_of(named, isSame))
            named.push_back(certificate);
    }
    return named;
}

/// With the caller's certificates where the message has none for a signer, or where those alone count.
SignatureResult verdictOn(Session& session, const SignedReader& reader, const SignedReader::Signer& signer) {
    const ReadOptions& options = session.options;
    const std::vector<NVX509::RefCertificate>& certificates = options.certificates;
    SignatureResult result =
        options.onlyTheseCertificates ? reader.verdict(signer, NVX509::RefCertificate()) : reader.verdict(signer);
    if (result.reason != SignatureReason::certificateMissing || certificates.empty() || identifierOf(signer).empty())
        return result;
    const bool isFirst = session.comparisons == 0;
    session.comparisons += certificates.size();
    if (!isFirst && session.comparisons > CMS::maximumComparisons) {
        result.verdict = SignatureVerdict::unsupported;
        result.reason = SignatureReason::tooMuchWork;
        return result;
    }
    std::size_t tries = 0;
    for (const NVX509::RefCertificate& certificate : namedAmong(certificates, signer.identifier())) {
        if (tries++ == CMS::maximumTries) {
            result.verdict = SignatureVerdict::unsupported;
            result.reason = SignatureReason::tooManyCertificates;
            break;
        }
        result = reader.verdict(signer, certificate);
        if (result.verdict == SignatureVerdict::good)
            break;
    }
    return result;
}

std::optional<Trust::Verdict> trustIn(Session& session, const SignedReader& reader, const LayerSigner& signer) {
    if (session.options.trust == nullptr || signer.result.verdict != SignatureVerdict::good ||
        session.judgedByTrust == maximumTrusted)
        return std::nullopt;
    ++session.judgedByTrust;
    Trust::Options options = session.options.trustOptions;
    if (options.atSigningTime && signer.signingTime)
        options.at = signer.signingTime;
    const auto& certificates = reader.certificates();
    const auto& lists = reader.revocationLists();
    return session.outside(
        [&] { return session.options.trust->judge(signer.result.certificate, certificates, lists, options); });
}

std::vector<LayerSigner> signersOf(Session& session, const SignedReader& reader) {
    std::vector<LayerSigner> signers;
    for (const SignedReader::Signer& from : reader.signers()) {
        LayerSigner signer;
        signer.result = verdictOn(session, reader, from);
        signer.identifier = identifierOf(from);
        signer.digestAlgorithm = from.digestAlgorithm();
        signer.signatureAlgorithm = from.signatureAlgorithm();
        signer.signingTime = from.signingTime();
        signers.push_back(std::move(signer));
    }
    return signers;
}

/// Good when a signature is good and none is wrong: a signer may sign twice, the second time in a way that not everybody
/// can verify (RFC 5752).
LayerStatus statusOf(const std::vector<LayerSigner>& signers) {
    const auto has = [&](SignatureVerdict verdict) {
        return std::ranges::any_of(signers, [&](const LayerSigner& one) { return one.result.verdict == verdict; });
    };
    if (has(SignatureVerdict::refused))
        return LayerStatus::signatureWrong;
    return has(SignatureVerdict::good) ? LayerStatus::good : LayerStatus::unsupported;
}

std::string detailOf(const std::vector<LayerSigner>& signers, LayerStatus status) {
    if (status == LayerStatus::good)
        return {};
    if (signers.empty())
        return "nobody signed it";
    for (const LayerSigner& signer : signers) {
        const bool isWrong = signer.result.verdict == SignatureVerdict::refused;
        if (isWrong == (status == LayerStatus::signatureWrong)) {
            const std::string algorithm = signer.result.algorithm.empty() ? "" : " (" + signer.result.algorithm + ")";
            return CMS::textOf(signer.result.reason) + algorithm;
        }
    }
    return {};
}

/// The detached signature, and the part that it is about, kept to be read again.
struct Detached {
    SwapBufferMediaOut part;
    SwapBufferMediaOut signature;
    mime::LineEnds lineEnds;
};

/// Copies what is left into a place of its own. False beyond the budget.
bool keep(Session& session, mime::Octets& from, SwapBufferMediaOut& into, mime::LineEndCounter* counter = nullptr) {
    for (std::string_view bytes = from.view(1); !bytes.empty(); bytes = from.view(1)) {
        if (!session.mayKeep(bytes.size()))
            return false;
        if (counter != nullptr)
            counter->update(bytes);
        session.outside([&] { mime::put(into, bytes); }); // a full disk is no fault of the message
        from.skip(bytes.size());
    }
    return true;
}

/// In which order the forms of the signed bytes are tried.
std::vector<SignedForm> formsOf(const mime::LineEnds& lineEnds) {
    if (lineEnds.bareLf == 0)
        return {SignedForm::asTheyStand};
    if (lineEnds.crLf == 0)
        return {SignedForm::canonical, SignedForm::asTheyStand};
    return {SignedForm::asTheyStand, SignedForm::canonical};
}

/// Whether another form of the bytes could make a difference: nothing fits this one.
bool bodyDiffers(const std::vector<LayerSigner>& signers) {
    return std::ranges::any_of(signers,
                               [](const LayerSigner& one) {
                                   return one.result.reason == SignatureReason::bodyDiffers ||
                                          one.result.reason == SignatureReason::signatureWrong;
                               }) &&
           std::ranges::none_of(signers,
                                [](const LayerSigner& one) { return one.result.verdict == SignatureVerdict::good; });
}

/// Says why signatures are refused, once in a message.
void explainRefused(Session& session, const Detached& detached, std::vector<LayerSigner>& signers) {
    const auto isRefused = [](const LayerSigner& one) { return one.result.verdict == SignatureVerdict::refused; };
    if (!session.options.explain || session.isExplained || std::ranges::none_of(signers, isRefused))
        return;
    session.isExplained = true;
    DiagnosisOptions options;
    options.certificates.assign(session.options.certificates.begin(), session.options.certificates.end());
    Buffer structure;
    // One octet more than is looked at tells that there are more.
    detached.signature.in().read(structure, static_cast<unsigned int>(options.budget.structure + 1));
    for (Explanation& explanation : explain(
                                        structure, [&] { return detached.part.in(); }, options)
                                        .explanations)
        signers[explanation.signer].explanation = std::move(explanation);
}

/// Judges a detached signature over one form of the part. False when another form should be tried.
bool judgeForm(Session& session, std::size_t index, const Detached& detached, SignedForm form, bool isLast) {
    const SignedReader reader(detached.signature.in());
    Layer& layer = session.layer(index);
    if (!reader.isDetached()) {
        layer.detail = "the signature of a multipart/signed carries a content of its own";
        return true; // whatever the form
    }
    if (reader.signers().empty()) {
        layer.status = LayerStatus::signatureWrong;
        layer.detail = "the signature has no signer";
        return true; // whatever the form
    }
    MediaOut digest = reader.digest();
    if (form == SignedForm::canonical)
        digest = mime::CanonicalMediaOut(digest);
    MediaIn part = detached.part.in();
    part.write(digest);
    std::vector<LayerSigner> signers = signersOf(session, reader);
    if (!isLast && bodyDiffers(signers))
        return false;
    explainRefused(session, detached, signers);
    for (LayerSigner& signer : signers)
        signer.trust = trustIn(session, reader, signer);
    layer.form = form;
    takeSigners(layer, std::move(signers), reader);
    return true;
}

void judgeDetached(Session& session, std::size_t index, const Detached& detached) {
    try {
        const std::vector<SignedForm> forms = formsOf(detached.lineEnds);
        for (const SignedForm form : forms) {
            if (judgeForm(session, index, detached, form, form == forms.back()))
                break;
        }
    } catch (const Exception& failure) {
        session.rethrowOutside(failure);
        tellFailure(session.layer(index), failure);
    }
}

/// The part with the signature. False when there is none that can be used; the layer tells why then.
bool takeSignature(Session& session, std::size_t index, const Place& place, mime::Multipart& parts,
                   Detached& detached) {
    Layer& layer = session.layer(index);
    if (!parts.next()) {
        layer.detail = "the part with the signature is missing";
        return false;
    }
    parts.watch();
    const mime::HeaderLimits limits{session.options.budget.headerOctets, session.options.budget.headerFields};
    Header header;
    if (mime::readHeader(*parts.part(), limits, header) != mime::HeaderEnd::complete) {
        layer.status = LayerStatus::tooCostly;
        layer.detail = "the header of the part with the signature is too long";
        return false;
    }
    if (const std::string line = ambiguousLineIn(header); !line.empty())
        session.addAmbiguity(place, "in front of the signature is " + line);
    const ContentType type = mime::contentTypeOf(header);
    if (!isSignature(type, mime::fileNameOf(header, type)) && !isStructure(type, "")) {
        // Signed in another way, by a sender that does not say in which.
        if (type.type == "application")
            layer.status = LayerStatus::unsupported;
        layer.detail = "the second part of the multipart/signed is no S/MIME signature but " + type.text();
        return false;
    }
    ListedPart part(session, header, type, parts.part(), place.part(2));
    const SharedOctets octets = structureOctets(part.body(), mime::transferOf(header));
    const bool isKept = keep(session, *octets, detached.signature);
    part.finish();
    if (!isKept) {
        layer.status = LayerStatus::tooCostly;
        layer.detail = "the parts to be kept are longer than the budget allows";
        return false;
    }
    return true;
}

/// Parts behind the signature, which no sender makes: nothing covers them, and some readers show them.
void tellMoreParts(Session& session, mime::Multipart& parts, const Place& place) {
    for (std::size_t number = 3; parts.next(); ++number) {
        if (++session.parts > session.options.budget.parts) {
            session.addUncovered(place.part(number), "and those behind it");
            return;
        }
        Header header;
        static_cast<void>(mime::readHeader(*parts.part(), {}, header)); // as far as it goes
        session.addUncovered(place.part(number), mime::contentTypeOf(header).text());
        session.addOddity(place.part(number), "a third part in a multipart/signed");
        ListedPart(session, header, mime::contentTypeOf(header), parts.part(), place.part(number)).finish();
    }
    if (!parts.isClosed())
        session.addOddity(place, "the last boundary of the multipart is missing");
    if (parts.lookAlikes() > 0)
        session.addOddity(place, "lines begin with the boundary but go on: other readers may see other parts");
}

} // namespace

void takeSigners(Layer& layer, std::vector<LayerSigner> signers, const SignedReader& reader) {
    layer.status = signers.empty() ? LayerStatus::signatureWrong : statusOf(signers);
    layer.detail = detailOf(signers, layer.status);
    layer.signers = std::move(signers);
    layer.certificates.assign(reader.certificates().begin(), reader.certificates().end());
}

void judgeOpaque(Session& session, std::size_t index, const SignedReader& reader) {
    std::vector<LayerSigner> signers = signersOf(session, reader);
    for (LayerSigner& signer : signers)
        signer.trust = trustIn(session, reader, signer);
    takeSigners(session.layer(index), std::move(signers), reader);
}

void readOpaque(Session& session, std::size_t index, const SharedOctets& octets, const Place& place) {
    const SignedReader reader(mime::mediaOver(octets));
    Layer& layer = session.layer(index);
    if (reader.isDetached()) {
        if (reader.signers().empty()) {
            layer.kind = LayerKind::certificatesOnly;
            layer.status = LayerStatus::good;
            layer.detail.clear();
            layer.certificates.assign(reader.certificates().begin(), reader.certificates().end());
            return;
        }
        layer.status = LayerStatus::unsupported;
        layer.detail = "a signature outside of a multipart/signed: what it is about is not known";
        return;
    }
    const Role role = session.take(index, place);
    if (reader.contentType() != dataType) {
        layer.status = LayerStatus::unsupported;
        layer.detail = "what is signed is no MIME entity but " + reader.contentType();
        return;
    }
    const auto content = std::make_shared<mime::MediaOctets>(reader);
    readEntity(session, content, place.payload(role));
    mime::drain(*content);
    judgeOpaque(session, index, reader);
}

void readMultipartSigned(Session& session, const Header& header, const ContentType& type, const SharedOctets& body,
                         const Place& place) {
    const std::size_t index = session.addLayer(LayerKind::multipartSigned, place);
    session.addUncovered(place, type.text());
    const Role role = session.take(index, place);
    session.layer(index).micalg = type.micalg;
    if (++session.structures > session.options.budget.layers) {
        session.layer(index).status = LayerStatus::tooCostly;
        session.layer(index).detail = "more than " + std::to_string(session.options.budget.layers) + " structures";
        return;
    }
    if (type.boundary.empty() || type.boundary.size() > mime::maximumBoundary) {
        session.layer(index).detail = "the boundary is missing or too long";
        return;
    }
    mime::Multipart parts(body, type.boundary);
    seekOtherParts(parts, header, type);
    if (!parts.next()) {
        session.layer(index).detail = "there is no part";
        return;
    }
    session.lookAtPreamble(place, parts);
    Detached detached{session.spill(), session.spill(), {}};
    mime::LineEndCounter counter;
    session.parts += 2;
    if (!keep(session, *parts.part(), detached.part, &counter)) {
        session.layer(index).status = LayerStatus::tooCostly;
        session.layer(index).detail = "the parts to be kept are longer than the budget allows";
        return;
    }
    detached.lineEnds = counter.counted();
    if (takeSignature(session, index, place, parts, detached)) {
        tellMoreParts(session, parts, place);
        session.lookBehind(place, parts);
        judgeDetached(session, index, detached);
    }
    readEntity(session, std::make_shared<mime::MediaOctets>(detached.part.in()), place.payload(role));
}

} // namespace Norvane::Crypto::SMime
