#pragma once

/// \file
/// What goes around a mail: each shell takes an entity (header fields, empty line, body, with CRLF at the ends of lines) and
/// makes another one of it.

#include <norvcmsg/Media.h>
#include <norvcrypto-smime/SMimeWriter.h>

#include <memory>
#include <string>
#include <vector>

namespace Norvane::Crypto::SMime::writing {

/// A shell that is ready: whatever can be refused was refused.
class Shell {
public:
    Shell() = default;
    Shell(const Shell&) = delete;
    Shell& operator=(const Shell&) = delete;
    virtual ~Shell() = default;

    /// Begins the entity in `target`; what is written to the sink that is returned goes inside, and ending that completes the
    /// entity and ends the target. Once.
    virtual MediaOut open(const MediaOut& target) = 0;
};

/// \param boundary for a multipart/signed
std::unique_ptr<Shell> signingShell(const SignOptions& options, std::vector<CMS::SignedWriter::Signer> signers,
                                    const std::string& boundary);

std::unique_ptr<Shell> encryptingShell(CMS::ContentCipher cipher,
                                       const std::vector<CMS::EnvelopeRecipient>& recipients);

/// For nothing but certificates and lists: its sink takes no content.
std::unique_ptr<Shell> certificatesShell(const std::vector<NVX509::RefCertificate>& certificates,
                                         const std::vector<NVX509::RefCertificateRevocationList>& revocationLists);

} // namespace Norvane::Crypto::SMime::writing
