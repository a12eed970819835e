#ifndef NORVCRYPTO_SMIME_SMIME_ANSWER_H
#define NORVCRYPTO_SMIME_SMIME_ANSWER_H

/// \file
/// What was found in a message (see SMimeReader.h). Plain values: they outlive the message, and copies may be used by
/// several threads, each its own.
///
/// **Paths** name the parts of a message. The message itself is "1". The parts of a multipart are counted from 1 behind its
/// own path: "1.1", "1.2". What a CMS structure holds is its only part, and so is the message within a message/rfc822: the
/// text of an encrypted message is "1.1".

#include <norvcrypto-smime/SMimeDiagnosis.h>
#include <norvcrypto-trust/TrustSender.h>
#include <norvcrypto-trust/TrustVerdict.h>
#include <norvcrypto/CMSVerification.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/Export.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace Norvane::Crypto::SMime {

/// The kinds of layers; the numbers are fixed.
enum class LayerKind : int {
    multipartSigned = 0,  ///< a part and its detached signature (RFC 8551, 3.5.3)
    opaqueSigned = 1,     ///< signed data that carries the part (RFC 8551, 3.5.2)
    enveloped = 2,        ///< EnvelopedData (RFC 8551, 3.3): not authenticated
    authEnveloped = 3,    ///< AuthEnvelopedData (RFC 8551, 3.4)
    certificatesOnly = 4, ///< signed data without signers (RFC 8551, 3.8)
    forwarded = 5,        ///< a message/rfc822
    other = 6,            ///< a CMS structure of another type, or of none that could be found
};

/// What became of a layer; the numbers are fixed.
enum class LayerStatus : int {
    good = 0,           ///< signed: a signer's signature is good, and none is wrong. Encrypted: opened to its end
    signatureWrong = 1, ///< a signature is not good; see the signers
    noKey = 2,          ///< encrypted, and there is no key for it
    unsupported = 3,    ///< something that the sender may rightly have used is not supported; the detail names it
    damaged = 4,   ///< the structure, or what was decrypted, is damaged or cut off; the key may have been a wrong one
    tooCostly = 5, ///< beyond the budget, which the detail names
};

/// One who signed.
struct LayerSigner {
    CMS::SignatureResult result;            ///< the verdict on the signature alone
    std::string identifier;                 ///< the name of the certificate, for people; empty when it does not decode
    std::string digestAlgorithm;            ///< "sha256"
    std::string signatureAlgorithm;         ///< "rsaEncryption"
    std::optional<std::time_t> signingTime; ///< as the signer says
    /// Whether to trust the certificate; nothing when nobody asked, or the signature is not good.
    std::optional<Trust::Verdict> trust;
    /// Whether it is that of the sender; nothing when the signature is not good.
    std::optional<Trust::SenderMatch> sender;
    /// Why a detached signature is refused, where that was asked and found out (see `ReadOptions::explain`). It changes
    /// nothing: what arrived is not what was signed.
    std::optional<Explanation> explanation;

    /// A good signature by a certificate that is trusted and the sender's.
    [[nodiscard]] bool isAccepted() const noexcept {
        return result.verdict == CMS::SignatureVerdict::good && trust && trust->accepted && sender && sender->matches();
    }
};

/// One who can open an encrypted layer.
struct LayerRecipient {
    /// For people: the name of the certificate, "password", or "key-encryption key c0ffee"; empty for other kinds of recipients.
    std::string identifier;
    std::string algorithm; ///< of the encrypted content key
    bool opened = false;   ///< whether the content was read with this one's key
};

/// Which of two forms of the signed bytes a detached signature fits.
enum class SignedForm : int {
    asTheyStand = 0, ///< the bytes between the delimiters
    canonical = 1,   ///< those bytes with CRLF for each bare LF (RFC 8551, 3.1.1)
};

/// A layer of the message.
struct Layer {
    LayerKind kind = LayerKind::other;
    std::string path;
    LayerStatus status = LayerStatus::damaged;
    std::string detail; ///< what is in the way, for people; empty when the status is good
    /// Whether what is handed on lies within this layer. Layers of parts that are looked at in passing do not count for the
    /// verdict on the message.
    bool coversContent = false;

    // signed
    std::vector<LayerSigner> signers;
    std::vector<NVX509::RefCertificate> certificates; ///< of signed layers: those in the structure
    SignedForm form = SignedForm::asTheyStand;        ///< multipartSigned
    std::string micalg;                               ///< what multipart/signed announced; not relied on

    // encrypted
    std::vector<LayerRecipient> recipients;
    std::string cipher;         ///< "AES-256-CBC (2.16.840.1.101.3.4.1.42)"
    bool authenticated = false; ///< nothing came out before all of it was found authentic
};

/// How header fields are protected; the numbers are fixed.
enum class HeaderScheme : int {
    none = 0,
    clear = 1,     ///< RFC 9788, hp="clear": signed
    cipher = 2,    ///< RFC 9788, hp="cipher": signed or encrypted, with HP-Outer
    wrapped = 3,   ///< RFC 8551, 3.1: the message as a message/rfc822
    parameter = 4, ///< protected-headers="v1"
};

/// How a protected field and the one outside agree; the numbers are fixed.
enum class FieldState : int {
    same = 0,
    obscured = 1, ///< outside stands what the sender said would stand there, or nothing where nothing should
    differs = 2,  ///< outside stands something else than what the sender put there
    missing = 3,  ///< outside stands nothing, and the sender put something there
};

/// A field that is covered.
struct ProtectedField {
    std::string name;
    std::string value;                  ///< decoded, UTF-8
    std::optional<std::string> outside; ///< likewise, as it stands outside
    FieldState state = FieldState::same;
};

/// Which header fields are covered by the layers around the content.
struct HeaderProtection {
    HeaderScheme scheme = HeaderScheme::none;
    std::vector<ProtectedField> fields;
    /// Names of fields that stand outside alone; Received and such stand there rightly.
    std::vector<std::string> outsideOnly;
    bool isSigned = false;    ///< within a signed layer that is good
    bool isEncrypted = false; ///< within an encrypted layer
    /// Paths of the texts in the content of an encrypted message that begin with fields which stand in `fields`, too: their
    /// sender put them there for programs that do not know header protection (hp-legacy-display="1", RFC 9788, 2.1.2). They
    /// are handed on as they stand. Who shows `fields` leaves them out: of a text/plain, without its transfer encoding, all
    /// lines up to and with the first empty one; of a text/html the div of the class header-protection-legacy-display that is
    /// the first of its body (RFC 9788, 4.5.3).
    std::vector<std::string> legacyDisplay;
};

/// A part that no layer covers, or none that counts for the verdict.
struct UncoveredPart {
    std::string path;
    std::string type; ///< "text/plain"
};

/// A part that holds no others: a text, an attachment, a CMS structure. Which of the latter were opened tell the layers of the
/// same path; what they hold follows them.
struct LeafPart {
    std::string path;
    std::string type; ///< "application/pdf"
    std::string name; ///< of the file, UTF-8 as its sender chose it; may be empty, and is no path to write to
    std::string transferEncoding; ///< the word that stands there, in lower case; "7bit" where none does
    std::uint64_t octets = 0;     ///< of its body, without the transfer encoding
};

/// What is to be said of the whole message; the numbers are fixed.
enum class Verdict : int {
    notSMime = 0,      ///< nothing of the message itself is signed or encrypted; nothing was handed on
    accepted = 1,      ///< the content is signed, by somebody who is trusted and is the sender
    signatureGood = 2, ///< the content is signed; nobody asked whether the signer is to be trusted
    decrypted = 3,     ///< the content was encrypted, and nobody signed it: anybody may have sent it
    certificates = 4,  ///< the message brings certificates and nothing else
    refused = 5,       ///< a signature is wrong, the signer is not trusted, or is not the sender
    noKey = 6,         ///< there is no key to open the message with
    unsupported = 7,
    damaged = 8,
    tooCostly = 9,
};

/// The answer to `read`.
struct Answer {
    Verdict verdict = Verdict::notSMime;
    std::string detail;        ///< what the verdict comes from, one line for people
    std::vector<Layer> layers; ///< from the outside, in the message's order
    HeaderProtection headers;
    std::vector<std::string> from;   ///< the addresses that the signer was compared with, UTF-8
    std::vector<std::string> sender; ///< likewise of the field Sender
    std::string contentPath;         ///< of the entity that was handed on; empty when none was
    std::string contentType;         ///< of that entity
    /// Of the entity that was handed on: `contentPath`, or that of a signed one around it with `ReadOptions::keepSignatures`;
    /// empty when none was.
    std::string deliveredPath;
    /// What a reader of the message is shown beside the content although the signature that the verdict comes from does not
    /// cover it: what lies in layers around that one is anybody's. Whoever takes the verdict for the whole message asks that
    /// it is empty.
    std::vector<UncoveredPart> notCovered;
    /// With `ReadOptions::listParts`, in the message's order, at most `ReadBudget::parts`.
    std::vector<LeafPart> parts;
    /// What is odd about the message, for people: parts that were not looked at, a last boundary that is missing, fields
    /// that stand twice.
    std::vector<std::string> oddities;
};

/// The stable name of a number, as it stands in JSON: "multipart-signed", "signature-wrong", "accepted".
NORVCRYPTO_EXPORT const char* nameOf(LayerKind kind) noexcept;
NORVCRYPTO_EXPORT const char* nameOf(LayerStatus status) noexcept;
NORVCRYPTO_EXPORT const char* nameOf(SignedForm form) noexcept;
NORVCRYPTO_EXPORT const char* nameOf(HeaderScheme scheme) noexcept;
NORVCRYPTO_EXPORT const char* nameOf(FieldState state) noexcept;
NORVCRYPTO_EXPORT const char* nameOf(Verdict verdict) noexcept;

} // namespace Norvane::Crypto::SMime

#endif
