#include "Compared.h"
#include "Messages.h"

#include <norvcrypto/CMSSignedReader.h>
#include <norvcrypto/Key.h>

#include <openssl/err.h>

#include <algorithm>

namespace fuzz {

namespace {

namespace CMS = Norvane::Crypto::CMS;
namespace der = norvauthority::der;
using CMS::SignatureReason;

/// What the reader found out beside its answer.
struct Judged {
    std::vector<Bytes> certificates; ///< of the signers
};

Answer readOnce(Norvane::MediaIn& in, Judged& judged) {
    Answer answer;
    judged = Judged();
    try {
        CMS::SignedReader message(in);
        if (message.isDetached()) {
            Norvane::MediaOut body = message.digest();
            body.write(detachedBody().data(), static_cast<unsigned int>(detachedBody().size()));
            answer.content = detachedBody();
        } else {
            Norvane::MemoryMediaOut out;
            message.write(out);
            const Norvane::Buffer content = out.content();
            answer.content.assign(content.data(), content.data() + content.length());
        }
        const CMS::SignatureReport report = message.report();
        answer.accepted = report.allGood();
        answer.text = report.signers.empty() ? "nobody signed" : "";
        for (const CMS::SignatureResult& signer : report.signers) {
            if (signer.verdict != CMS::SignatureVerdict::good && answer.reason == 0) {
                answer.reason = static_cast<int>(signer.reason);
                answer.text = std::string(CMS::textOf(signer.reason)) + " " + signer.algorithm;
            }
            if (!signer.certificate.isNull()) {
                unsigned char* encoded = nullptr;
                const int length = i2d_X509(signer.certificate, &encoded);
                judged.certificates.emplace_back(encoded, encoded + length);
                OPENSSL_free(encoded);
            }
        }
    } catch (const Norvane::Crypto::TooCostlyException& failure) {
        answer.costly = true;
        answer.text = failure.asString();
    } catch (const Norvane::Exception& failure) {
        answer.text = failure.asString();
    }
    return answer;
}

Answer readerSays(const Bytes& octets, Judged& judged, std::string& finding) {
    return inBothWays(
        octets, [&judged](Norvane::MediaIn& in) { return readOnce(in, judged); }, finding);
}

Answer opensslSays(const Bytes& octets) {
    Answer answer;
    const unsigned char* cursor = octets.data();
    const CmsPtr structure(d2i_CMS_ContentInfo(nullptr, &cursor, static_cast<long>(octets.size())));
    if (structure != nullptr && OBJ_obj2nid(CMS_get0_type(structure.get())) == NID_pkcs7_signed) {
        answer.consumed = static_cast<std::size_t>(cursor - octets.data());
        const bool detached = CMS_is_detached(structure.get()) == 1;
        const BioPtr given(detached ? BIO_new_mem_buf(detachedBody().data(), static_cast<int>(detachedBody().size()))
                                    : nullptr);
        const BioPtr out(BIO_new(BIO_s_mem()));
        answer.accepted = CMS_verify(structure.get(), nullptr, nullptr, given.get(), out.get(),
                                     CMS_NO_SIGNER_CERT_VERIFY | CMS_BINARY) == 1;
        answer.content = contentOf(out.get());
    }
    answer.text = "OpenSSL";
    for (unsigned long code = ERR_get_error(); code != 0; code = ERR_get_error()) {
        const char* reason = ERR_reason_error_string(code);
        answer.text += std::string(" / ") + (reason == nullptr ? "?" : reason);
    }
    return answer;
}

/// Whether each signature is right by OpenSSL's calls with the certificate that the reader found for it, whatever the
/// certificate's extensions are.
bool isRightWith(const Bytes& octets, const std::vector<Bytes>& certificates) {
    std::size_t consumed = 0;
    const CmsPtr structure = decoded(octets, consumed);
    auto* const signers = structure == nullptr ? nullptr : CMS_get0_SignerInfos(structure.get());
    const int count = sk_CMS_SignerInfo_num(signers);
    if (count < 1 || static_cast<std::size_t>(count) != certificates.size()) {
        return false;
    }
    const bool detached = CMS_is_detached(structure.get()) == 1;
    BIO* const given =
        detached ? BIO_new_mem_buf(detachedBody().data(), static_cast<int>(detachedBody().size())) : nullptr;
    const BioPtr content(CMS_dataInit(structure.get(), given));
    if (content == nullptr) {
        ERR_clear_error();
        return false;
    }
    Bytes piece(1000);
    while (BIO_read(content.get(), piece.data(), static_cast<int>(piece.size())) > 0) {
    }
    bool good = true;
    for (int i = 0; i < count && good; ++i) {
        CMS_SignerInfo* const signer = sk_CMS_SignerInfo_value(signers, i);
        const norvauthority::X509Ptr certificate =
            norvauthority::Certificate{certificates[static_cast<std::size_t>(i)]}.x509();
        CMS_SignerInfo_set1_signer_cert(signer, certificate.get());
        good = (CMS_signed_get_attr_count(signer) < 0 || CMS_SignerInfo_verify(signer) == 1) &&
               CMS_SignerInfo_verify_content(signer, content.get()) == 1;
    }
    ERR_clear_error();
    return good;
}

/// Where the parts of a message are.
struct Parts {
    explicit Parts(Node& root) : body(at(root, {1, 0})) {
        if (body == nullptr || body->parts.size() < 4) {
            body = nullptr;
            return;
        }
        content = at(root, {1, 0, 2, 1, 0});
        for (std::size_t i = 3; i < body->parts.size(); ++i) {
            if (body->parts[i].isContext(0)) {
                certificates = i;
            } else if (body->parts[i].isContext(1)) {
                lists = i;
            }
        }
    }
    [[nodiscard]] std::vector<Node>& signers() const { return body->parts.back().parts; }
    [[nodiscard]] std::vector<Node>& algorithms() const { return body->parts[1].parts; }

    Node* body; ///< null when it is no such message
    Node* content = nullptr;
    std::size_t certificates = 0; ///< 0: none
    std::size_t lists = 0;
};

bool dropLists(Node& root) {
    const Parts parts(root);
    if (parts.body == nullptr || parts.lists == 0) {
        return false;
    }
    parts.body->parts.erase(parts.body->parts.begin() + static_cast<std::ptrdiff_t>(parts.lists));
    return true;
}

bool dropUnsigned(Node& root) {
    const Parts parts(root);
    bool changed = false;
    if (parts.body != nullptr) {
        for (Node& signer : parts.signers()) {
            if (signer.parts.size() > 1 && signer.parts.back().isContext(1)) {
                signer.parts.pop_back();
                changed = true;
            }
        }
    }
    return changed;
}

/// Leaves the certificates that the reader found for the signers, once each.
bool keepNamed(Node& root, const std::vector<Bytes>& certificates) {
    const Parts parts(root);
    if (parts.body == nullptr || parts.certificates == 0) {
        return false;
    }
    std::vector<Bytes> each = certificates;
    std::sort(each.begin(), each.end());
    each.erase(std::unique(each.begin(), each.end()), each.end());
    Node& set = parts.body->parts[parts.certificates];
    set.parts.clear();
    set.content.clear();
    for (const Bytes& certificate : each) {
        if (auto node = parse(certificate)) {
            set.parts.push_back(std::move(*node));
        }
    }
    return true;
}

/// The identifier of the digest algorithm of a signer.
const Node* digestOf(Node& signer) {
    return at(signer, {2, 0});
}

/// Leaves the digest algorithms that signers name.
bool keepUsed(Node& root) {
    const Parts parts(root);
    if (parts.body == nullptr) {
        return false;
    }
    std::vector<Bytes> used;
    for (Node& signer : parts.signers()) {
        if (const Node* const identifier = digestOf(signer)) {
            used.push_back(identifier->content);
        }
    }
    auto& algorithms = parts.algorithms();
    const auto isUnused = [&used](const Node& algorithm) {
        return algorithm.parts.empty() || std::find(used.begin(), used.end(), algorithm.parts[0].content) == used.end();
    };
    return std::erase_if(algorithms, isUnused) != 0;
}

/// Has each signer name the first digest algorithm of the message.
bool nameDigest(Node& root) {
    const Parts parts(root);
    if (parts.body == nullptr || parts.algorithms().empty()) {
        return false;
    }
    bool changed = false;
    for (Node& signer : parts.signers()) {
        Node* const algorithm = at(signer, {2});
        if (algorithm != nullptr && encode(*algorithm) != encode(parts.algorithms()[0])) {
            *algorithm = parts.algorithms()[0];
            changed = true;
        }
    }
    return changed;
}

/// The signed attributes of each signer.
std::vector<Node*> signedAttributes(Node& root) {
    const Parts parts(root);
    std::vector<Node*> all;
    if (parts.body != nullptr) {
        for (Node& signer : parts.signers()) {
            Node* const attributes = at(signer, {3});
            if (attributes != nullptr && attributes->isContext(0)) {
                all.push_back(attributes);
            }
        }
    }
    return all;
}

bool shorter(const Node& left, const Node& right) {
    return encode(left) < encode(right);
}

/// Brings signed attributes into the order of DER.
bool sortAttributes(Node& root) {
    bool changed = false;
    for (Node* const attributes : signedAttributes(root)) {
        const Bytes before = encode(*attributes);
        for (Node& attribute : attributes->parts) {
            if (Node* const values = at(attribute, {1})) {
                std::sort(values->parts.begin(), values->parts.end(), shorter);
            }
        }
        std::sort(attributes->parts.begin(), attributes->parts.end(), shorter);
        changed = changed || encode(*attributes) != before;
    }
    return changed;
}

/// Brings signed attributes into DER: lengths, and strings in one piece.
bool encodeAttributes(Node& root) {
    bool changed = false;
    for (Node* const attributes : signedAttributes(root)) {
        const Bytes before = encode(*attributes);
        forEach(*attributes, [](Node& node) {
            const bool isUniversal = (node.identifier.front() & 0xC0U) == 0;
            if (isUniversal && node.isConstructed() && !node.isUniversal(16) && !node.isUniversal(17)) {
                Node string = node;
                string.setTag(0x24);
                joinSegments(string, nullptr);
                node.content = string.content;
                node.parts.clear();
                node.setConstructed(false);
            }
            node.indefinite = false;
            node.lengthOctets = 1;
            if (node.tag < 0x1F) {
                node.setTag(static_cast<unsigned char>((node.identifier.front() & 0xE0U) |
                                                       static_cast<unsigned int>(node.tag)));
            }
        });
        changed = changed || encode(*attributes) != before;
    }
    return changed;
}

bool join(Node& root) {
    return joinSegments(root, nullptr);
}

/// Whether it is by signers on Edwards curves alone, of a structure that OpenSSL decodes.
bool isEdwards(Node root) {
    static const Bytes ed25519 = der::oid("1.3.101.112");
    static const Bytes ed448 = der::oid("1.3.101.113");
    const Parts parts(root);
    std::size_t consumed = 0;
    if (parts.body == nullptr || parts.signers().empty() || decoded(encode(root), consumed) == nullptr) {
        return false;
    }
    bool some = false;
    for (Node& signer : parts.signers()) {
        const Node* const fourth = at(signer, {3});
        const Node* const algorithm = at(signer, {fourth != nullptr && fourth->isContext(0) ? 4U : 3U, 0});
        const auto is = [&](const Bytes& oid) {
            return algorithm != nullptr &&
                   std::equal(algorithm->content.begin(), algorithm->content.end(), oid.begin() + 2, oid.end());
        };
        some = some || is(ed25519) || is(ed448);
    }
    return some;
}

std::optional<Outcome> whyWider(const Bytes& octets, const Answer& reader, const Judged& judged) {
    const auto agrees = [&](const Node& message) {
        const Answer answer = opensslSays(encode(message));
        return answer.accepted && answer.content == reader.content;
    };
    const std::vector<Change> drops{
        {Outcome::unsignedAttributes, dropUnsigned},
        {Outcome::revocationLists, dropLists},
        {Outcome::otherCertificates, [&](Node& root) { return keepNamed(root, judged.certificates); }},
        {Outcome::otherDigestAlgorithms, keepUsed},
        {Outcome::attributesInOrder, sortAttributes},
        {Outcome::nestedSegments, join}};
    if (const auto outcome = explain(octets, drops, Outcome::severalWider, agrees)) {
        return outcome;
    }
    auto root = parse(octets);
    if (!root) {
        return std::nullopt;
    }
    Node named = *root;
    if (nameDigest(named) && agrees(named)) {
        return Outcome::signatureAsDigest;
    }
    for (const Change& drop : drops) {
        drop.apply(*root);
    }
    if (isRightWith(encode(*root), judged.certificates)) {
        return Outcome::certificateExtensions;
    }
    return isEdwards(*root) ? std::optional(Outcome::edwardsCurve) : std::nullopt;
}

/// What the reader's own reason says, of which there is one for each of these.
std::optional<Outcome> outcomeOf(int reason) {
    switch (static_cast<SignatureReason>(reason)) {
    case SignatureReason::attributesMissing:
    case SignatureReason::contentTypeMissing:
    case SignatureReason::contentTypeRepeated:
    case SignatureReason::contentTypeDiffers:
    case SignatureReason::messageDigestMissing:
    case SignatureReason::messageDigestRepeated:
    case SignatureReason::signingTimeRepeated:
    case SignatureReason::bodyIsAttributes:
    case SignatureReason::signingCertificateDiffers:
        return Outcome::attributesForbidden;
    case SignatureReason::algorithmDiffers:
    case SignatureReason::digestDiffers:
    case SignatureReason::parametersWrong:
    case SignatureReason::digestNotAnnounced:
        return Outcome::algorithmsDiffer;
    case SignatureReason::digestAlgorithm:
    case SignatureReason::signatureAlgorithm:
    case SignatureReason::keyAlgorithm:
        return Outcome::notSupported;
    case SignatureReason::certificateRefused:
        return Outcome::certificateRefused;
    case SignatureReason::keyTooLarge:
    case SignatureReason::tooManyDigests:
    case SignatureReason::tooManyCertificates:
    case SignatureReason::tooMuchWork:
    case SignatureReason::attributesNotDer:
    case SignatureReason::contentNotKept:
        return Outcome::budget;
    default:
        return std::nullopt;
    }
}

std::optional<Outcome> whyStricter(const Bytes& octets, const Answer& reader, const Answer& openssl,
                                   std::string& finding) {
    const std::vector<Change> repairs{
        {Outcome::segmentOfAnotherTag, [](Node& root) { return retagSegments(root, Parts(root).content, false); }},
        {Outcome::segmentOfTagZero, [](Node& root) { return retagSegments(root, Parts(root).content, true); }},
        {Outcome::primitiveSet, constructSets},
        {Outcome::attributesNotDer, encodeAttributes}};
    int reason = reader.reason;
    const auto agrees = [&](const Node& message) {
        Judged judged;
        const Answer answer = readerSays(encode(message), judged, finding);
        reason = answer.reason;
        return answer.accepted && answer.content == openssl.content;
    };
    if (const auto outcome = explain(octets, repairs, Outcome::severalStricter, agrees)) {
        return outcome;
    }
    if (reader.costly) {
        return Outcome::budget;
    }
    const auto root = parse(octets);
    if (root && depthOf(*root) >= 32) {
        return Outcome::tooDeep;
    }
    if (reader.reason != 0) {
        return outcomeOf(reader.reason);
    }
    if (reason != 0 && outcomeOf(reason)) {
        return Outcome::severalStricter;
    }
    finding += "; after all repairs reason " + std::to_string(reason);
    return std::nullopt;
}

} // namespace

Comparison compareSigned(const Bytes& octets) {
    std::string finding;
    Judged judged;
    const Answer reader = readerSays(octets, judged, finding);
    const Answer openssl = opensslSays(octets);
    if (!finding.empty()) {
        return {Outcome::unexplained, finding};
    }
    const auto said = [&] { return "reader " + described(reader) + "\nOpenSSL " + described(openssl); };
    if (reader.accepted == openssl.accepted) {
        return reader.sameAs(openssl) ? Comparison{reader.accepted ? Outcome::bothAccept : Outcome::bothRefuse, {}}
                                      : Comparison{Outcome::unexplained, said()};
    }
    const auto why = reader.accepted ? whyWider(octets, reader, judged) : whyStricter(octets, reader, openssl, finding);
    return {finding.empty() ? why.value_or(Outcome::unexplained) : Outcome::unexplained, said() + finding};
}

} // namespace fuzz
