#include "cms/TrialDecryption.h"
#include "demo/Demo.h"
#include "files/HeldBody.h"
#include "read/StructureFile.h"
#include "show/DecryptionReport.h"

#include <norvcrypto/CMSEncryptionMedia.h>
#include <norvcrypto/Hasher.h>

#include <utility>

namespace norvcrypt {

namespace CMS = Norvane::Crypto::CMS;

void Demo::encrypt() {
    tell("7. Encrypted for Alice, Bob and Carol, with AES-256");
    OutputFile file(path("message.p7m"), m_inputs, OutputFile::Access::everyone, existing());
    {
        Progress progress("encrypting");
        Norvane::MediaIn body = m_inputs.open(path("message.eml"), &progress);
        OutputStream target(file);
        CMS::EncrypterMediaOut encrypter(Norvane::Crypto::AES_256_CBC,
                                         {certificateOf(m_alice), certificateOf(m_bob), certificateOf(m_carol)});
        encrypter.attach(target);
        body.write(encrypter);
        encrypter.end();
    }
    file.commit();
    tell("   " + path("message.p7m") + "  the encrypted message, with its key encrypted for each of them");
    command("openssl cms -cmsout -print -noout -inform DER -in " + argument("message.p7m") + " | grep -A 1 issuer:");
}

std::string Demo::digestDecryptedBy(const std::string& name, const Identity& identity) {
    const DecryptionKeys keys({{certificateOf(identity), keyOf(identity), path(name + ".key")}}, {}, {}, {});
    TrialDecryption decryption(keys);
    Norvane::Crypto::HasherMediaOut hasher(Norvane::Crypto::Hasher::SHA256);
    HeldBody body(hasher);
    Progress progress("decrypting");
    StructureFile file(m_inputs, path("message.p7m"), &progress);
    const DecryptionResult result = decryption.run(file, body);
    progress.clear();
    for (const std::string& line : decryptionReport(result))
        tell("      " + line);
    if (!result.decrypted)
        return {};
    decryption.deliver(body);
    hasher.end();
    return hasher.hasher()->digestAsHexString();
}

void Demo::decrypt() {
    tell("8. Each of them decrypts it; the commands print nothing when OpenSSL gets the same bytes");
    for (const auto& [name, identity] : {std::pair{"alice", &m_alice}, {"bob", &m_bob}, {"carol", &m_carol}}) {
        tell("   with " + path(std::string(name) + ".key"));
        const bool same = digestDecryptedBy(name, *identity) == m_digest;
        verdict(same ? "it is the message that was encrypted" : "that is another message", same);
        command("openssl cms -decrypt -binary -inform DER -in " + argument("message.p7m") + " -recip " +
                argument(std::string(name) + ".pem") + " -inkey " + argument(std::string(name) + ".key") + " | cmp - " +
                argument("message.eml"));
    }
}

void Demo::refuseOutsider() {
    tell("9. Mallory, for whom it was not encrypted");
    const bool refused = digestDecryptedBy("mallory", m_mallory).empty();
    verdict(refused ? "nothing is decrypted" : "it is decrypted", refused);
    tell("      OpenSSL refuses it too; this command fails:");
    command("openssl cms -decrypt -binary -inform DER -in " + argument("message.p7m") + " -recip " +
            argument("mallory.pem") + " -inkey " + argument("mallory.key") + " -out /dev/null");
}

} // namespace norvcrypt
