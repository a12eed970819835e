#include "demo/Demo.h"

#include <norvcrypto/CMSSignerMedia.h>
#include <norvcrypto/Hasher.h>
#include <norvcrypto/KeyStore.h>

#include <array>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
namespace CMS = Norvane::Crypto::CMS;
using Norvane::Crypto::Hasher;

void Demo::sign() {
    tell("3. Alice signs it");
    const NVX509::KeyCertificatePair pair(keyOf(m_alice), certificateOf(m_alice), {certificateOf(m_authority)});
    Progress progress("signing");
    Norvane::MediaIn body = m_inputs.open(path("message.eml"), &progress);
    Norvane::MemoryMediaOut signature;
    CMS::SignerMediaOut signer(Hasher::SHA256, pair);
    signer.attach(signature);
    body.write(signer);
    signer.end();
    const Norvane::Buffer& der = signature.content();
    put("message.p7s", {reinterpret_cast<const char*>(der.data()), der.length()});
    tell("   " + path("message.p7s") + "  " + std::to_string(der.length()) + " bytes: a detached signature, with the " +
         "certificates of Alice and of the authority");
    command("openssl cms -cmsout -print -noout -inform DER -in " + argument("message.p7s"));
}

bool Demo::verifies(const std::string& body, const Identity& identity) const {
    Inputs inputs;
    Norvane::MediaIn signature = inputs.open(path("message.p7s"));
    const CMS::CMSVerifier verifier(signature);
    const CMS::SignedData data = CMS::signedData(verifier.contentInfo());
    Progress progress("verifying");
    Norvane::MediaIn in = inputs.open(path(body), &progress);
    return data.signerInfo().size() == 1 && verifier.isValid(in, data.signerInfo().front(), certificateOf(identity));
}

void Demo::verify() {
    tell("4. Anyone verifies it");
    const bool good = verifies("message.eml", m_alice);
    verdict(good ? "the signature is good; trust in the certificate is another matter, which OpenSSL checks here too"
                 : "the signature is refused",
            good);
    command("openssl cms -verify -binary -inform DER -in " + argument("message.p7s") + " -content " +
            argument("message.eml") + " -CAfile " + argument("root.pem") + " -purpose smimesign -out /dev/null");
}

void Demo::refuseChangedByte() {
    tell("5. One changed byte");
    const std::uint64_t position = m_size / 2;
    {
        OutputFile file(path("message-changed.eml"), m_inputs, OutputFile::Access::everyone, existing());
        Norvane::MediaIn in = m_inputs.open(path("message.eml"));
        std::array<unsigned char, 65536> chunk{};
        std::uint64_t at = 0;
        for (int count = in.read(chunk.data(), chunk.size()); count > 0; count = in.read(chunk.data(), chunk.size())) {
            const auto length = static_cast<std::uint64_t>(count);
            if (position >= at && position < at + length)
                chunk[position - at] ^= 1U;
            file.write(chunk.data(), length);
            at += length;
        }
        if (m_size == 0)
            file.write("!", 1); // an empty message can only grow
        file.commit();
    }
    const bool refused = !verifies("message-changed.eml", m_alice);
    verdict(path("message-changed.eml") + "  byte " + std::to_string(position) +
                (refused ? " differs: the signature is refused" : " differs, and the signature is good"),
            refused);
    tell("      OpenSSL refuses it too; this command fails:");
    command("openssl cms -verify -binary -inform DER -in " + argument("message.p7s") + " -content " +
            argument("message-changed.eml") + " -CAfile " + argument("root.pem") +
            " -purpose smimesign -out /dev/null");
}

void Demo::refuseStranger() {
    tell("6. Bob's certificate instead of Alice's");
    const bool refused = !verifies("message.eml", m_bob);
    verdict(refused ? "the signature is refused" : "the signature is good", refused);
    tell("      OpenSSL refuses it too; this command fails:");
    command("openssl cms -verify -binary -inform DER -in " + argument("message.p7s") + " -content " +
            argument("message.eml") + " -nointern -certfile " + argument("bob.pem") + " -CAfile " +
            argument("root.pem") + " -purpose smimesign -out /dev/null");
}

} // namespace norvcrypt
