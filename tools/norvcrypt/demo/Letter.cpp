// What whoever tries the commands for whole mails needs: a short letter, signed, and signed and encrypted.
#include "demo/Demo.h"

#include <norvcrypto-smime/SMimeWriter.h>
#include <norvcrypto/KeyStore.h>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
namespace SMime = Norvane::Crypto::SMime;

namespace {

constexpr std::string_view letter = "From: Alice Example <alice@example.org>\r\n"
                                    "To: Bob Example <bob@example.org>\r\n"
                                    "Subject: Lunch\r\n"
                                    "Date: Thu, 01 Jan 2026 09:00:00 +0000\r\n"
                                    "Message-ID: <demo-2@example.org>\r\n"
                                    "MIME-Version: 1.0\r\n"
                                    "Content-Type: text/plain; charset=UTF-8\r\n"
                                    "\r\n"
                                    "Dear Bob,\r\n\r\nhow about lunch at the café on Friday?\r\n\r\nAlice\r\n";

} // namespace

void Demo::makeLetter() {
    put("letter.eml", letter);
    tell("   " + path("letter.eml") + "  a short mail");
    SMime::SignOptions signing;
    signing.signers.emplace_back(
        NVX509::KeyCertificatePair(keyOf(m_alice), certificateOf(m_alice), {certificateOf(m_authority)}));
    SMime::EncryptOptions encrypting;
    encrypting.certificates = {certificateOf(m_alice), certificateOf(m_bob)};
    const auto write = [this](const std::string& name, const std::vector<SMime::Wrapping>& shells) {
        const Norvane::MediaIn message = m_inputs.open(path("letter.eml"));
        OutputFile file(path(name), m_inputs, OutputFile::Access::everyone, existing());
        OutputStream out(file);
        SMime::wrap(message, shells, out, SMime::WriteOptions());
        file.commit();
    };
    write("letter-signed.eml", {signing});
    tell("   " + path("letter-signed.eml") + "  the same, signed by Alice");
    command("openssl cms -verify -in " + argument("letter-signed.eml") + " -CAfile " + argument("root.pem") +
            " -out /dev/null");
    write("letter-secret.eml", {signing, encrypting});
    tell("   " + path("letter-secret.eml") + "  signed by Alice and encrypted for Bob and herself");
    command("openssl cms -decrypt -in " + argument("letter-secret.eml") + " -recip " + argument("bob.pem") +
            " -inkey " + argument("bob.key") + " -out /dev/null");
}

} // namespace norvcrypt
