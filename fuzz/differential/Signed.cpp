#include "Signed.h"

#include "Messages.h"

#include <norvcrypto/CMSSignedReader.h>

#include <openssl/err.h>

namespace fuzz {

namespace CMS = Norvane::Crypto::CMS;

namespace {

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

} // namespace

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
        BioPtr given;
        if (detached) { // OpenSSL reads memory by a BIO of its own, which it loses where it does not begin: not memory alone
            given.reset(BIO_push(BIO_new(BIO_f_buffer()),
                                 BIO_new_mem_buf(detachedBody().data(), static_cast<int>(detachedBody().size()))));
        }
        const BioPtr out(BIO_new(BIO_s_mem()));
        answer.accepted = CMS_verify(structure.get(), nullptr, nullptr, given.get(), out.get(),
                                     CMS_NO_SIGNER_CERT_VERIFY | CMS_BINARY) == 1;
        answer.content = contentOf(out.get());
    }
    answer.text = opensslReasons();
    return answer;
}

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
