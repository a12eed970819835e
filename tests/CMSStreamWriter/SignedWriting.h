#pragma once

/// \file
/// What the tests of the signing writer share: signers of every kind, structures written through the stream, and the
/// openssl program's verdict on them.

#include "support/Cms.h"
#include "support/Process.h"
#include "support/TemporaryFolder.h"

#include <norvcrypto/CMSSignedWriter.h>

#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <string>
#include <vector>

namespace signedtest {

using namespace cmstest;
using CMS::SignedWriter;
using Crypto::Hasher;
using Content = SignedWriter::Content;
using Encoding = SignedWriter::Encoding;
using Options = SignedWriter::Options;
using Signer = SignedWriter::Signer;

/// Someone under the authority of the tests.
inline Identity person(const char* name, const char* serial, norvauthority::Key key) {
    using namespace norvauthority;
    return issue({.subject = {{"CN", name}, {"O", "Mail"}},
                  .key = std::move(key),
                  .issuer = &identities().authority,
                  .serial = serial,
                  .keyUsage = 0x80,
                  .extendedKeyUsage = {"emailProtection"}});
}

inline norvauthority::Key generated(const char* type) {
    EVP_PKEY* key = EVP_PKEY_Q_keygen(nullptr, nullptr, type);
    norvauthority::Key made = norvauthority::Key::of(key);
    EVP_PKEY_free(key);
    return made;
}

/// A key that is for RSASSA-PSS alone; with a digest, for that one alone.
inline norvauthority::Key pssKey(const EVP_MD* digest = nullptr, int saltLength = 0) {
    EVP_PKEY_CTX* context = EVP_PKEY_CTX_new_id(EVP_PKEY_RSA_PSS, nullptr);
    EVP_PKEY* key = nullptr;
    EXPECT_EQ(EVP_PKEY_keygen_init(context), 1);
    EXPECT_EQ(EVP_PKEY_CTX_set_rsa_keygen_bits(context, 2048), 1);
    if (digest != nullptr) {
        EXPECT_EQ(EVP_PKEY_CTX_set_rsa_pss_keygen_md(context, digest), 1);
        EXPECT_EQ(EVP_PKEY_CTX_set_rsa_pss_keygen_mgf1_md(context, digest), 1);
        EXPECT_EQ(EVP_PKEY_CTX_set_rsa_pss_keygen_saltlen(context, saltLength), 1);
    }
    EXPECT_EQ(EVP_PKEY_keygen(context, &key), 1);
    EVP_PKEY_CTX_free(context);
    norvauthority::Key made = norvauthority::Key::of(key);
    EVP_PKEY_free(key);
    return made;
}

inline const Identity& p384() {
    static const Identity made = person("p384", "384", norvauthority::Key::ec("P-384"));
    return made;
}
inline const Identity& p521() {
    static const Identity made = person("p521", "521", norvauthority::Key::ec("P-521"));
    return made;
}
inline const Identity& ed25519() {
    static const Identity made = person("edward", "25519", norvauthority::Key::ed25519());
    return made;
}
inline const Identity& ed448() {
    static const Identity made = person("goldi", "448", generated("ED448"));
    return made;
}

inline Options optionsFor(const std::vector<Signer>& signers) {
    Options options;
    options.signers = signers;
    return options;
}
inline Options optionsFor(const Identity& identity) {
    return optionsFor({Signer(pairOf(identity))});
}

/// The structure that a writer makes of a body in pieces of that size (0: at once).
inline Bytes written(const Options& options, const Bytes& body, std::size_t piece = 0) {
    Norvane::MemoryMediaOut target;
    SignedWriter writer(options);
    writer.attach(target);
    if (!body.empty()) {
        writeInPieces(writer, body, piece);
    }
    writer.end();
    EXPECT_TRUE(target.ended());
    EXPECT_EQ(ERR_peek_error(), 0UL);
    return bytesOf(target.content());
}

/// The openssl program on one structure.
class OpenSsl {
public:
    OpenSsl() { m_authority = m_folder.write("authority.pem", identities().authority.certificate.pem()); }

    /// Checks a structure against the authority; the body that it gives out, or the reason of a refusal.
    std::string verify(const Bytes& structure, const Bytes* detached = nullptr,
                       const std::vector<std::string>& further = {}) {
        std::vector<std::string> arguments{"openssl", "cms",       "-verify", "-binary",
                                           "-inform", "DER",       "-in",     write("structure", structure),
                                           "-CAfile", m_authority, "-out",    m_folder.path("body")};
        if (detached != nullptr) {
            arguments.insert(arguments.end(), {"-content", write("content", *detached)});
        }
        arguments.insert(arguments.end(), further.begin(), further.end());
        m_folder.write("body", "");
        const interop::Answer answer = interop::run({.arguments = arguments});
        return answer.status == 0 ? m_folder.read("body") : "refused: " + answer.err;
    }

    std::string print(const Bytes& structure) {
        return run({"cms", "-cmsout", "-print", "-noout", "-inform", "DER", "-in", write("structure", structure)});
    }
    std::string parse(const Bytes& structure) {
        return run({"asn1parse", "-inform", "DER", "-in", write("structure", structure)});
    }

private:
    std::string write(const std::string& name, const Bytes& content) {
        return m_folder.write(name, std::string(content.begin(), content.end()));
    }
    static std::string run(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "openssl");
        const interop::Answer answer = interop::run({.arguments = arguments});
        EXPECT_EQ(answer.status, 0) << answer.err;
        return answer.out;
    }

    norvtest::TemporaryFolder m_folder;
    std::string m_authority;
};

inline std::string textOf(const Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
}

inline CmsStructure decoded(const Bytes& structure) {
    const unsigned char* at = structure.data();
    CmsStructure made(d2i_CMS_ContentInfo(nullptr, &at, static_cast<long>(structure.size())));
    EXPECT_NE(made, nullptr);
    EXPECT_EQ(at, structure.data() + structure.size());
    return made;
}

/// What OpenSSL makes of a structure when it encodes it again.
inline Bytes reencoded(const Bytes& structure) {
    const CmsStructure made = decoded(structure);
    unsigned char* octets = nullptr;
    const int length = i2d_CMS_ContentInfo(made.get(), &octets);
    EXPECT_GT(length, 0);
    Bytes all(octets, octets + length);
    OPENSSL_free(octets);
    return all;
}

inline CMS_SignerInfo* signerOf(const CmsStructure& structure, int index = 0) {
    return sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(structure.get()), index);
}

} // namespace signedtest
