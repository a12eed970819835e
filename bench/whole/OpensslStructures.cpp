// OpenSSL's own structures, through its two interfaces: PKCS7 and CMS.
#include "Contestants.h"

#include <openssl/bio.h>
#include <openssl/pkcs7.h>

#include <memory>

namespace bench {

namespace {

using BioPtr = std::unique_ptr<BIO, With<BIO_free_all>>;
using Pkcs7Ptr = std::unique_ptr<PKCS7, With<PKCS7_free>>;
using CmsPtr = std::unique_ptr<CMS_ContentInfo, With<CMS_ContentInfo_free>>;

constexpr const char* pkcs7 = "OpenSSL PKCS7";
constexpr const char* cms = "OpenSSL CMS";

void writeBody(BIO* chain, std::size_t size) {
    inPieces(body(size), size,
             [&](const unsigned char* data, unsigned int length) { BIO_write(chain, data, static_cast<int>(length)); });
    require(BIO_flush(chain) == 1, "not flushed");
}

BioPtr reading(const Bytes& bytes) {
    return BioPtr(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
}

Run pkcs7Signer(const Material& material, std::size_t size, std::size_t certificates) {
    return [&material, size, certificates] {
        const Pkcs7Ptr structure(PKCS7_new());
        PKCS7_set_type(structure.get(), NID_pkcs7_signed);
        PKCS7_add_signature(structure.get(), material.certificate.get(), material.key.get(), EVP_sha256());
        for (std::size_t i = 0; i != certificates; ++i) {
            PKCS7_add_certificate(structure.get(), material.certificate.get());
        }
        PKCS7_content_new(structure.get(), NID_pkcs7_data);
        PKCS7_set_detached(structure.get(), 1);
        const BioPtr chain(PKCS7_dataInit(structure.get(), nullptr));
        writeBody(chain.get(), size);
        const BioPtr out(BIO_new(BIO_s_null()));
        require(PKCS7_dataFinal(structure.get(), chain.get()) == 1 && i2d_PKCS7_bio(out.get(), structure.get()) == 1,
                "not signed");
    };
}

Run cmsSigner(const Material& material, std::size_t size, bool detached) {
    return [&material, size, detached] {
        const unsigned int flags = CMS_BINARY | CMS_NOATTR | CMS_STREAM | (detached ? CMS_DETACHED : 0U);
        const CmsPtr structure(CMS_sign(material.certificate.get(), material.key.get(), nullptr, nullptr, flags));
        const BioPtr out(BIO_new(BIO_s_null()));
        require(structure != nullptr, "not signed");
        if (detached) {
            const BioPtr chain(CMS_dataInit(structure.get(), out.get()));
            writeBody(chain.get(), size);
            require(CMS_dataFinal(structure.get(), chain.get()) == 1, "not signed");
            BIO_pop(chain.get()); // from the sink, which is freed alone
            require(i2d_CMS_bio(out.get(), structure.get()) == 1, "not written");
        } else {
            const BioPtr content(BIO_new_mem_buf(body(size).data(), static_cast<int>(size)));
            require(i2d_CMS_bio_stream(out.get(), structure.get(), content.get(), static_cast<int>(flags)) == 1,
                    "not written");
        }
    };
}

Run pkcs7Enveloper(const Material& material, std::size_t size, std::size_t recipients) {
    return [&material, size, recipients] {
        const Pkcs7Ptr structure(PKCS7_new());
        PKCS7_set_type(structure.get(), NID_pkcs7_enveloped);
        PKCS7_set_cipher(structure.get(), EVP_aes_256_cbc());
        for (std::size_t i = 0; i != recipients; ++i) {
            PKCS7_add_recipient(structure.get(), material.certificate.get());
        }
        const BioPtr chain(PKCS7_dataInit(structure.get(), nullptr));
        writeBody(chain.get(), size);
        const BioPtr out(BIO_new(BIO_s_null()));
        require(PKCS7_dataFinal(structure.get(), chain.get()) == 1 && i2d_PKCS7_bio(out.get(), structure.get()) == 1,
                "not encrypted");
    };
}

Run cmsEnveloper(const Material& material, std::size_t size, std::size_t recipients) {
    return [&material, size, recipients] {
        constexpr unsigned int flags = CMS_BINARY | CMS_PARTIAL | CMS_STREAM;
        const CmsPtr structure(CMS_encrypt(nullptr, nullptr, EVP_aes_256_cbc(), flags));
        for (std::size_t i = 0; i != recipients; ++i) {
            CMS_add1_recipient_cert(structure.get(), material.certificate.get(), 0);
        }
        const BioPtr out(BIO_new(BIO_s_null()));
        const BioPtr content(BIO_new_mem_buf(body(size).data(), static_cast<int>(size)));
        require(i2d_CMS_bio_stream(out.get(), structure.get(), content.get(), CMS_BINARY | CMS_STREAM) == 1,
                "not encrypted");
    };
}

Run pkcs7Opener(const Material& material, const Bytes& bytes) {
    const auto message = std::make_shared<Bytes>(bytes);
    return [&material, message] {
        const BioPtr in = reading(*message);
        const Pkcs7Ptr structure(d2i_PKCS7_bio(in.get(), nullptr));
        const BioPtr out(BIO_new(BIO_s_null()));
        require(structure != nullptr &&
                    PKCS7_decrypt(structure.get(), material.key.get(), material.certificate.get(), out.get(), 0) == 1,
                "not decrypted");
    };
}

Run cmsOpener(const Material& material, const Bytes& bytes) {
    const auto message = std::make_shared<Bytes>(bytes);
    return [&material, message] {
        const BioPtr in = reading(*message);
        const CmsPtr structure(d2i_CMS_bio(in.get(), nullptr));
        const BioPtr out(BIO_new(BIO_s_null()));
        require(structure != nullptr && CMS_decrypt(structure.get(), material.key.get(), material.certificate.get(),
                                                    nullptr, out.get(), CMS_BINARY) == 1,
                "not decrypted");
    };
}

/// The signer's certificate is given, chains are not asked for.
Run pkcs7Verifier(const Material& material, std::size_t size, const Bytes& bytes) {
    const auto message = std::make_shared<Bytes>(bytes);
    return [&material, size, message] {
        const BioPtr in = reading(*message);
        const Pkcs7Ptr structure(d2i_PKCS7_bio(in.get(), nullptr));
        require(structure != nullptr, "not read");
        const BioPtr chain(PKCS7_dataInit(structure.get(), BIO_new(BIO_s_null())));
        writeBody(chain.get(), size);
        STACK_OF(PKCS7_SIGNER_INFO)* signers = PKCS7_get_signer_info(structure.get());
        for (int i = 0; i != sk_PKCS7_SIGNER_INFO_num(signers); ++i) {
            require(PKCS7_signatureVerify(chain.get(), structure.get(), sk_PKCS7_SIGNER_INFO_value(signers, i),
                                          material.certificate.get()) == 1,
                    "not verified");
        }
    };
}

Run cmsVerifier(const Material& material, std::size_t size, const Bytes& bytes, bool detached) {
    const auto message = std::make_shared<Bytes>(bytes);
    return [&material, size, message, detached] {
        const BioPtr in = reading(*message);
        const CmsPtr structure(d2i_CMS_bio(in.get(), nullptr));
        const BioPtr content(detached ? BIO_new_mem_buf(body(size).data(), static_cast<int>(size)) : nullptr);
        const BioPtr out(BIO_new(BIO_s_null()));
        const std::unique_ptr<STACK_OF(X509), void (*)(STACK_OF(X509)*)> certificates(
            sk_X509_new_null(), [](STACK_OF(X509) * stack) { sk_X509_free(stack); });
        sk_X509_push(certificates.get(), material.certificate.get());
        require(structure != nullptr &&
                    CMS_verify(structure.get(), certificates.get(), nullptr, content.get(), out.get(),
                               CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY | CMS_NOINTERN) == 1,
                "not verified");
    };
}

} // namespace

void addOpensslStructures(Contest& contest, const Material& material) {
    contest.add("sign", pkcs7, [&](std::size_t size) { return pkcs7Signer(material, size, 1); });
    contest.add("sign", cms, [&](std::size_t size) { return cmsSigner(material, size, true); });
    contest.add("sign attached", cms, [&](std::size_t size) { return cmsSigner(material, size, false); });
    contest.add("verify", pkcs7,
                [&](std::size_t size) { return pkcs7Verifier(material, size, material.signedMessage(size, true)); });
    contest.add("verify", cms, [&](std::size_t size) {
        return cmsVerifier(material, size, material.signedMessage(size, true), true);
    });
    contest.add("verify attached", cms, [&](std::size_t size) {
        return cmsVerifier(material, size, material.signedMessage(size, false), false);
    });
    contest.add("envelope", pkcs7, [&](std::size_t size) { return pkcs7Enveloper(material, size, 1); });
    contest.add("envelope", cms, [&](std::size_t size) { return cmsEnveloper(material, size, 1); });
    contest.add("open", pkcs7,
                [&](std::size_t size) { return pkcs7Opener(material, material.envelopedMessage(size)); });
    contest.add("open", cms, [&](std::size_t size) { return cmsOpener(material, material.envelopedMessage(size)); });
    contest.add("open BER", pkcs7,
                [&](std::size_t size) { return pkcs7Opener(material, material.envelopedMessage(size, true)); });
    contest.add("open BER", cms,
                [&](std::size_t size) { return cmsOpener(material, material.envelopedMessage(size, true)); });
    contest.add("open authenticated", cms,
                [&](std::size_t size) { return cmsOpener(material, material.envelopedMessage(size, false, 1, true)); });

    contest.add("envelope for recipients", pkcs7,
                [&](std::size_t count) { return pkcs7Enveloper(material, 1024, count); });
    contest.add("envelope for recipients", cms, [&](std::size_t count) { return cmsEnveloper(material, 1024, count); });
    contest.add("open as last of recipients", pkcs7, [&](std::size_t count) {
        return pkcs7Opener(material, material.envelopedMessage(1024, false, count));
    });
    contest.add("open as last of recipients", cms,
                [&](std::size_t count) { return cmsOpener(material, material.envelopedMessage(1024, false, count)); });
    contest.add("sign with certificates", pkcs7, [&](std::size_t count) { return pkcs7Signer(material, 1024, count); });
    contest.add("verify among certificates", pkcs7, [&](std::size_t count) {
        return pkcs7Verifier(material, 1024, material.signedMessage(1024, true, false, 1, count));
    });
    contest.add("verify among certificates", cms, [&](std::size_t count) {
        return cmsVerifier(material, 1024, material.signedMessage(1024, true, false, 1, count), true);
    });
    contest.add("verify signers", pkcs7, [&](std::size_t count) {
        return pkcs7Verifier(material, 1024, material.signedMessage(1024, true, false, count));
    });
    contest.add("verify signers", cms, [&](std::size_t count) {
        return cmsVerifier(material, 1024, material.signedMessage(1024, true, false, count), true);
    });
}

} // namespace bench
