#pragma once

// Operations on messages, certificates, lists and keys, of which each call may fail.

#include "faults/FaultsTesting.h"

#include "support/Envelope.h"
#include "support/EnvelopeWriting.h"

#include <norvcrypto/CMSEnvelopeReader.h>
#include <norvcrypto/CMSSignedWriter.h>

namespace faultsofmessages {

using namespace cmstest;
using namespace faultstesting;
using CMS::ContentCipher;
using CMS::EnvelopeEncoding;
using CMS::EnvelopeReader;
using CMS::EnvelopeRecipient;
using CMS::SignedWriter;

inline const Bytes& body() {
    static const Bytes bytes = bodyOf(3000);
    return bytes;
}
inline const Identity& curve() {
    return onCurve("P-256");
}

/// Whether OpenSSL finds the signature of `by` good.
Answer verified(const Target& target, const Bytes& over, const Identity& by);

// Signing: done where that is so.
Operation signsAsPrescribed();
Operation signsADigest();
Operation signs(const std::string& name, const Identity& who,
                const std::function<void(SignedWriter::Options&)>& change);

// Verifying. What is `bad` must be refused.
Operation verifiesAsPrescribed(const std::string& name, const Bytes& structure, const Bytes& over, bool bad);
Operation verifies(const std::string& name, const Bytes& structure, const Bytes& over, bool bad);
Operation readsSigned(const std::string& name, const Bytes& structure, const std::string& over, bool bad);

// Encrypting: done where OpenSSL opens it.
Operation encryptsAsPrescribed();
Operation encrypts(const std::string& name, const Addressee& to, ContentCipher cipher, EnvelopeEncoding encoding);

// Decrypting.
Operation decryptsAsPrescribed(const std::string& name, const Bytes& structure, const NVX509::RefKeyStore& keys,
                               bool bad);
Operation readsEnvelope(const std::string& name, const Bytes& structure,
                        const std::function<bool(EnvelopeReader&)>& open, bool bad);

// What is read, and digested.
Operation readsCertificate();
Operation readsCertificates();
Operation readsList();
Operation readsKey(const std::string& passphrase, bool bad);
Operation hashes();

} // namespace faultsofmessages
