// What is left of secrets by encrypting: the content key, and pieces of what was encrypted.

#include "SecretsInMemory.h"

#include <norvcmsg/File.h>
#include <norvcrypto-smime/SMimeWriter.h>
#include <norvcrypto/CMSEncryptionMedia.h>

#include <cstdlib>

namespace {

using namespace secrettesting;
using Norvane::File;
using Norvane::FileMediaIn;
using Norvane::FileMediaOut;

NVX509::RefCertificate recipientIn(const std::string& folder) {
    Norvane::Buffer der;
    FileMediaIn(File::Path(folder + "/alice.der")).read(der, 0);
    return NVX509::CertificateFactory().readDER(der);
}

/// Encrypts the clear file into "out".
template <class Stream> void encrypt(const std::string& folder, Stream stream) {
    FileMediaOut out(File::Path(folder + "/out"));
    stream.attach(out);
    FileMediaIn clear(File::Path(folder + "/clear"));
    clear.write(stream);
    stream.end();
}

void encryptsAsPrescribed(const std::string& folder) {
    encrypt(folder, CMS::EncrypterMediaOut(AES_256_CBC, {recipientIn(folder)}));
}

void writesEnvelope(const std::string& folder, CMS::ContentCipher cipher) {
    CMS::EnvelopeOptions options;
    options.cipher = cipher;
    encrypt(folder, CMS::EnvelopeWriter({CMS::EnvelopeRecipient(recipientIn(folder))}, options));
}

void wrapsMail(const std::string& folder) {
    SMime::SignOptions signing;
    signing.signers.emplace_back(keysIn(folder)->findSigningKey(owner()));
    SMime::EncryptOptions encrypting;
    encrypting.certificates.push_back(recipientIn(folder));
    FileMediaOut out(File::Path(folder + "/out"));
    SMime::signAndEncrypt(FileMediaIn(File::Path(folder + "/clear.eml")), signing, encrypting, out);
    out.end();
}

const AddedWork s_works[] = {
    {"encrypt", encryptsAsPrescribed},
    {"writeEnvelope", [](const std::string& folder) { writesEnvelope(folder, CMS::ContentCipher::aes256Cbc); }},
    {"writeAuthenticatedEnvelope",
     [](const std::string& folder) { writesEnvelope(folder, CMS::ContentCipher::aes256Gcm); }},
    {"wrapMail", wrapsMail},
};

class SecretsOfEncrypting : public SecretsInMemory {
protected:
    static Found left(const std::string& work) {
        return leftByUs(work, [](Secrets& secrets) { secrets["content key"] = contentKey(read("out")); });
    }
};

TEST_F(SecretsOfEncrypting, NothingIsLeftByEncryptingAsPrescribed) {
    EXPECT_EQ(left("encrypt"), Found());
}

TEST_F(SecretsOfEncrypting, NothingIsLeftByWritingAnEnvelope) {
    EXPECT_EQ(left("writeEnvelope"), Found());
    EXPECT_EQ(left("writeAuthenticatedEnvelope"), Found());
}

TEST_F(SecretsOfEncrypting, NothingIsLeftBySigningAndEncryptingAMail) {
    EXPECT_EQ(left("wrapMail"), Found());
}

} // namespace
