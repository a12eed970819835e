// The library's older streams.
#include "Contestants.h"
#include "OurMedia.h"

#include <norvcmsg/Media.h>
#include <norvcrypto/CMSEncryptionMedia.h>
#include <norvcrypto/CMSSignerMedia.h>
#include <norvcrypto/CertificateRevocationList.h>
#include <norvcrypto/Encryption.h>
#include <norvcrypto/Hasher.h>

#include <memory>

namespace bench {

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

Run cipherRun(std::size_t size, bool encrypt) {
    const Buffer key(32, 32);
    const Buffer vector(16, 16);
    if (encrypt) {
        return writing(size, [key, vector] { return EncrypterMediaOut(AES_256_CBC, key, vector); });
    }
    const auto secret = std::make_shared<MemoryMediaOut>();
    EncrypterMediaOut encrypter(AES_256_CBC, key, vector);
    encrypter.attach(*secret);
    encrypter.write(body(size).data(), static_cast<unsigned int>(size - 1));
    encrypter.end();
    const auto bytes =
        std::make_shared<Bytes>(secret->content().data(), secret->content().data() + secret->content().length());
    const auto target = std::make_shared<NullMediaOut>();
    return [bytes, key, vector, target] {
        DecrypterMediaOut out(AES_256_CBC, key, vector);
        out.attach(*target);
        inPieces(*bytes, bytes->size(),
                 [&](const unsigned char* data, unsigned int length) { out.write(data, length); });
        out.end();
    };
}

Run opening(const Material& material, const Bytes& message) {
    const auto source = std::make_shared<MemoryMediaIn>(bufferOf(message));
    const auto target = std::make_shared<NullMediaOut>();
    return [&material, source, target] {
        MediaIn in(*source);
        in.setpos(0);
        CMS::DecrypterMediaIn decrypter(in, material.store());
        decrypter.write(*target);
        require(decrypter.decryptionSucceeded(), "not decrypted");
    };
}

/// Every signer is asked for.
Run verifying(const Material& material, std::size_t size, const Bytes& signature) {
    const auto source = std::make_shared<MemoryMediaIn>(bufferOf(signature));
    return [&material, source, size] {
        MediaIn in(*source);
        in.setpos(0);
        CMS::CMSVerifier verifier(in);
        const CMS::SignedData content = CMS::signedData(verifier.contentInfo());
        VerifierMediaOut digested = verifier.verifierMediaOut(content.signerInfo().front());
        inPieces(body(size), size,
                 [&](const unsigned char* data, unsigned int length) { digested.write(data, length); });
        for (const CMS::SignerInfo& signer : content.signerInfo()) {
            require(verifier.isValid(digested, signer, material.pair()->certificate), "not verified");
        }
    };
}

Run listReading(std::size_t entries) {
    const auto der = std::make_shared<Bytes>(Material::revocationList(entries));
    return [der] {
        const auto list = NVX509::CertificateRevocationListFactory().readDER(bufferOf(*der));
        keep(list->crlNumber().asInt());
    };
}

} // namespace

void addOurs(Contest& contest, const Material& material) {
    contest.add("digest", "HasherMediaOut", [](std::size_t size) -> Run {
        return [size] {
            HasherMediaOut out(Hasher::SHA256);
            writeBody(out, size);
            keep(out.hasher()->digest());
        };
    });
    contest.add("encrypt", "EncrypterMediaOut", [](std::size_t size) { return cipherRun(size, true); });
    contest.add("decrypt", "DecrypterMediaOut", [](std::size_t size) { return cipherRun(size, false); });
    contest.add("sign", "SignerMediaOut", [&material](std::size_t size) {
        return writing(size, [&material] { return CMS::SignerMediaOut(Hasher::SHA256, material.pair()); });
    });
    contest.add("verify", "CMSVerifier", [&material](std::size_t size) {
        return verifying(material, size, material.signedMessage(size, true));
    });
    contest.add("envelope", "CMS::EncrypterMediaOut", [&material](std::size_t size) {
        const std::list<NVX509::RefCertificate> recipients(1, material.pair()->certificate);
        return writing(size, [recipients] { return CMS::EncrypterMediaOut(AES_256_CBC, recipients); });
    });
    contest.add("open", "CMS::DecrypterMediaIn",
                [&material](std::size_t size) { return opening(material, material.envelopedMessage(size)); });
    contest.add("open BER", "CMS::DecrypterMediaIn",
                [&material](std::size_t size) { return opening(material, material.envelopedMessage(size, true)); });

    contest.add("envelope for recipients", "CMS::EncrypterMediaOut", [&material](std::size_t count) {
        const std::list<NVX509::RefCertificate> recipients(count, material.pair()->certificate);
        return writing(1024, [recipients] { return CMS::EncrypterMediaOut(AES_256_CBC, recipients); });
    });
    contest.add("open as last of recipients", "CMS::DecrypterMediaIn", [&material](std::size_t count) {
        return opening(material, material.envelopedMessage(1024, false, count));
    });
    contest.add("sign with certificates", "SignerMediaOut", [&material](std::size_t count) {
        NVX509::KeyCertificatePair pair(material.pair()->key, material.pair()->certificate);
        pair->chain.resize(count - 1, material.pair()->certificate);
        return writing(1024, [pair] { return CMS::SignerMediaOut(Hasher::SHA256, pair); });
    });
    contest.add("verify among certificates", "CMSVerifier", [&material](std::size_t count) {
        return verifying(material, 1024, material.signedMessage(1024, true, false, 1, count));
    });
    contest.add("verify signers", "CMSVerifier", [&material](std::size_t count) {
        return verifying(material, 1024, material.signedMessage(1024, true, false, count));
    });
    contest.add("read list of entries", "RefCertificateRevocationList",
                [](std::size_t count) { return listReading(count); });
}

} // namespace bench
