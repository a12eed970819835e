#include "write/Shells.h"

#include "write/Fields.h"
#include "write/Filters.h"

#include <algorithm>

namespace Norvane::Crypto::SMime::writing {

namespace {

/// The header of a part that is a CMS structure in base64.
std::string structureHeader(const std::string& type, const std::string& name) {
    return newField("Content-Type", type + "; name=\"" + name + '"') + newField("Content-Transfer-Encoding", "base64") +
           newField("Content-Disposition", "attachment; filename=\"" + name + '"') + "\r\n";
}

std::string pkcs7Header(const std::string& smimeType, const std::string& name = "smime.p7m") {
    return structureHeader("application/pkcs7-mime; smime-type=" + smimeType, name);
}

/// The name of a digest in micalg (RFC 8551, 3.5.3.2).
std::string micalgName(const std::optional<Hasher::Type>& digest) {
    switch (digest.value_or(Hasher::MD4)) {
    case Hasher::SHA1:
        return "sha-1";
    case Hasher::SHA224:
        return "sha-224";
    case Hasher::SHA256:
        return "sha-256";
    case Hasher::SHA384:
        return "sha-384";
    case Hasher::SHA512:
        return "sha-512";
    default:
        return "unknown";
    }
}

/// All of them, each once.
std::string micalgOf(const std::vector<CMS::SignedWriter::Signer>& signers) {
    std::vector<std::string> names;
    for (const CMS::SignedWriter::Signer& signer : signers) {
        const std::string name = micalgName(signer.digest);
        if (std::ranges::find(names, name) == names.end()) {
            names.push_back(name);
        }
    }
    std::string text;
    for (const std::string& name : names) {
        text.append(text.empty() ? "" : ",").append(name);
    }
    return names.size() == 1 ? text : '"' + text + '"';
}

/// What is written goes to the target and into the signature, which follows it as a part of its own.
class MultipartSignedImpl : public MediaOutImpl {
public:
    MultipartSignedImpl(const MediaOut& target, const CMS::SignedWriter& signer, std::string boundary)
        : m_target(target),
          m_signer(signer),
          m_boundary(std::move(boundary)) {}

    using MediaOutImpl::write;
    void write(const unsigned char* data, unsigned int length) override {
        m_signer.write(data, length);
        m_target.write(data, length);
    }
    void end() override {
        put(m_target, "\r\n--" + m_boundary + "\r\n" + structureHeader("application/pkcs7-signature", "smime.p7s"));
        MediaOut letters = base64Lines(keptOpen(m_target));
        m_signer.attach(letters);
        m_signer.end();
        put(m_target, "\r\n--" + m_boundary + "--\r\n");
        m_target.end();
    }

private:
    MediaOut m_target;
    CMS::SignedWriter m_signer;
    std::string m_boundary;
};

class MultipartSignedShell : public Shell {
public:
    MultipartSignedShell(const CMS::SignedWriter::Options& options, std::string boundary)
        : m_signer(options),
          m_micalg(micalgOf(options.signers)),
          m_boundary(std::move(boundary)) {}

    MediaOut open(const MediaOut& target) override {
        MediaOut out(target);
        put(out, newField("Content-Type", "multipart/signed; protocol=\"application/pkcs7-signature\"; micalg=" +
                                              m_micalg + "; boundary=\"" + m_boundary + '"') +
                     "\r\nThis is a signed message in S/MIME format.\r\n\r\n--" + m_boundary + "\r\n");
        return MediaOut(makeReference<MultipartSignedImpl, MediaOutImpl>(target, m_signer, m_boundary));
    }

private:
    CMS::SignedWriter m_signer;
    std::string m_micalg;
    std::string m_boundary;
};

/// A structure that has the entity inside; `Writer` is the stream that makes it.
template <class Writer> class StructureShell : public Shell {
public:
    StructureShell(const Writer& writer, std::string header) : m_writer(writer), m_header(std::move(header)) {}

    MediaOut open(const MediaOut& target) override {
        MediaOut out(target);
        put(out, m_header);
        MediaOut letters = base64Lines(target);
        m_writer.attach(letters);
        return m_writer;
    }

private:
    Writer m_writer;
    std::string m_header;
};

} // namespace

std::unique_ptr<Shell> signingShell(const SignOptions& options, std::vector<CMS::SignedWriter::Signer> signers,
                                    const std::string& boundary) {
    CMS::SignedWriter::Options signing;
    signing.signers = std::move(signers);
    signing.certificates = options.certificates;
    signing.revocationLists = options.revocationLists;
    if (options.form == SigningForm::opaque) {
        return std::make_unique<StructureShell<CMS::SignedWriter>>(CMS::SignedWriter(signing),
                                                                   pkcs7Header("signed-data"));
    }
    signing.content = CMS::SignedWriter::Content::detached;
    return std::make_unique<MultipartSignedShell>(signing, boundary);
}

std::unique_ptr<Shell> encryptingShell(CMS::ContentCipher cipher,
                                       const std::vector<CMS::EnvelopeRecipient>& recipients) {
    const bool authenticates = cipher == CMS::ContentCipher::aes128Gcm || cipher == CMS::ContentCipher::aes192Gcm ||
                               cipher == CMS::ContentCipher::aes256Gcm;
    CMS::EnvelopeOptions options;
    options.cipher = cipher;
    return std::make_unique<StructureShell<CMS::EnvelopeWriter>>(
        CMS::EnvelopeWriter(recipients, options), pkcs7Header(authenticates ? "authEnveloped-data" : "enveloped-data"));
}

std::unique_ptr<Shell> certificatesShell(const std::vector<NVX509::RefCertificate>& certificates,
                                         const std::vector<NVX509::RefCertificateRevocationList>& revocationLists) {
    CMS::SignedWriter::Options options;
    options.certificatesOnly = true;
    options.certificates = certificates;
    options.revocationLists = revocationLists;
    return std::make_unique<StructureShell<CMS::SignedWriter>>(CMS::SignedWriter(options),
                                                               pkcs7Header("certs-only", "smime.p7c"));
}

} // namespace Norvane::Crypto::SMime::writing
