#ifndef NORVCRYPTO_SMIME_SMIME_WRITER_H
#define NORVCRYPTO_SMIME_SMIME_WRITER_H

/// \file
/// Writing S/MIME messages (RFC 8551): a mail goes in, and a mail that is signed, encrypted, or both comes out. Part of
/// libnorvcrypto-smime.
///
/// \code
/// using namespace Norvane::Crypto;
/// initialize();                                                        // once, before anything else
/// SMime::SignOptions signing;
/// signing.keys = store;                                                // the sender's pair is found by the field From
/// SMime::EncryptOptions encrypting;
/// encrypting.keys = store;
/// encrypting.addressesOfMessage = true;                                // To, Cc and Bcc
///
/// Norvane::FileMediaIn message(Norvane::File::Path("mail.eml"));
/// Norvane::MemoryMediaOut sent;
/// SMime::signAndEncrypt(message, signing, encrypting, sent);
/// \endcode
///
/// **What comes in** is a mail: header fields, an empty line, a body, with CRLF or LF at the ends of its lines. It is read
/// twice: once to learn what has to be changed, once to write. A stream that knows its position and can go back to it (a
/// file, memory) is read where it is; of any other a copy is kept, beyond 64 KiB in a file without a name (mode 0600).
/// Nothing else grows with the message.
///
/// **What stays outside**: all header fields but MIME-Version and those whose names begin with "Content-", byte for byte
/// but for their line ends, in their order; Bcc too, which whoever hands the mail to its relay takes away as ever. The
/// Content- fields and the body are what is signed or encrypted. A mail without Content-Type gets one: text/plain.
///
/// **What is signed** is 7-bit and arrives as it was sent (RFC 8551, 3.1): lines end with CRLF and have at most 990
/// characters. Parts that are otherwise, at any depth of multiparts and forwarded messages, get another transfer
/// encoding: quoted-printable for text, base64 else. So do texts with what mail systems change on the way: blanks at
/// the ends of lines, lines that begin with "From " or are a dot; but not message/delivery-status and the like. Parts
/// in base64 or quoted-printable are mended without changing their content. Header fields of parts that are not 7-bit
/// or too long are encoded (RFC 2047, RFC 2231) and folded; domains become A-labels. A multipart whose boundary would
/// not be found any more is refused. A preamble or epilogue, which no reader shows, is left out when it is none that
/// can be sent.
///
/// Malformed quoted-printable ("==", "=4Z", an "=" at the end), of which readers make different things, keeps its octets. Where
/// it is not 7-bit or has too long lines, and the signature is a part beside it, it becomes base64 of what `read` makes of it.
///
/// Lines in the header of a part or forwarded message that are no field stay as they are, but for a "From " line of a mailbox
/// and blanks at their ends where the signature is a part beside the body. There, one that would not arrive as it is sent is
/// refused; opaque signatures and encryption carry all of them, octet for octet.
///
/// Nothing is changed but line ends in parts that are signed or encrypted already (multipart/signed, multipart/encrypted).
/// Where such a part is not 7-bit, a multipart/signed around it would not survive its way and is refused; opaque signatures
/// and encryption carry it as it is.
///
/// **What comes out** is 7-bit as far as it is ours (header fields stay as they are), with lines of at most 78 characters
/// in what is ours and CRLF or LF at their ends.
///
/// **Header protection** (RFC 9788) on request: header fields are repeated inside, with hp="clear" or, when encrypting,
/// hp="cipher" in the Content-Type and a field HP-Outer for each field outside. When encrypting, what is outside follows
/// the policy hcp_baseline: "[...]" for Subject, no Comments, no Keywords. Not repeated are Bcc, trace fields (Received,
/// Return-Path, Resent-, DKIM-Signature, ARC-, Authentication-Results) and whatever begins with "HP-". The fields are 7-bit
/// then, inside and outside: an address that has no such form, one with other letters in front of its "@", is refused. With
/// `legacyDisplay` programs that do not know header protection show the hidden Subject at the start of the text.
///
/// **Certificates** that are expired, not yet valid, or whose key usage (extended key usage included: emailProtection)
/// does not allow the purpose are refused. Whether they deserve trust, and whose they are, is not asked of those that the
/// caller gives; addresses are looked up in a `KeyStore`: as they stand and, where their domains are of another script, as
/// A-labels and as U-labels, so that either may be in the store.
///
/// **Failures** are thrown as Exception "SMime::Writer", code 4, file "SMimeWriter", with a sentence for people as detail,
/// which names what is of a message as it is: escape it (`asString()` does). They are listed with the functions. What the
/// streams throw passes through unchanged, and so do the exceptions of `CMS::SignedWriter` and `CMS::EnvelopeWriter`.
/// All that can be known beforehand is found before the first byte is written; a failure later leaves a message that is
/// cut off, and its target not ended. `WriteBudget` bounds what a stranger's mail may cost.
///
/// **Threads.** Any number of calls may run at once, on streams of their own.

#include <norvcmsg/EmailAddress.h>
#include <norvcmsg/Media.h>
#include <norvcrypto/CMSEnvelopeWriter.h>
#include <norvcrypto/CMSSignedWriter.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/CertificateRevocationList.h>
#include <norvcrypto/Export.h>
#include <norvcrypto/Hasher.h>
#include <norvcrypto/KeyStore.h>

#include <cstddef>
#include <ctime>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace Norvane::Crypto::SMime {

/// How lines end in what is written. The numbers are fixed.
enum class LineEnds : int {
    crlf = 0,      ///< as mail travels (RFC 5321, 2.3.8)
    lf = 1,        ///< as mail lies in files of Unix; whoever sends it makes CRLF of it
    asMessage = 2, ///< as the first line of the message that comes in; CRLF for one without header fields
};

/// How the body and its signature go together. The numbers are fixed.
enum class SigningForm : int {
    multipartSigned = 0, ///< the signature is a part beside the body, which every mail program shows (RFC 8551, 3.5.3)
    opaque = 1,          ///< the body is inside the signature: application/pkcs7-mime (RFC 8551, 3.5.2)
};

/// How a mail is signed.
struct NORVCRYPTO_EXPORT SignOptions {
    SignOptions();
    SignOptions(const SignOptions& other);
    SignOptions& operator=(const SignOptions& other);
    ~SignOptions();

    SigningForm form = SigningForm::multipartSigned;
    /// All who sign. Empty: the pair that `keys` has for the sender. The digest of each is named in the parameter micalg.
    std::vector<CMS::SignedWriter::Signer> signers;
    /// For every signer that names none. Unset: what suits each key, see `CMS::SignedWriter::Signer::digest`.
    std::optional<Hasher::Type> digest;
    bool pss = false;         ///< RSASSA-PSS for every signer with an RSA key
    NVX509::RefKeyStore keys; ///< at first an empty handle
    /// The sender; unset: the one address of From, or of Sender where From has several.
    std::optional<EmailAddress> from;
    /// Further certificates, and revocation lists, to be sent along.
    std::vector<NVX509::RefCertificate> certificates;
    std::vector<NVX509::RefCertificateRevocationList> revocationLists;
};

/// How a mail is encrypted. Recipients are all of those named here together, each certificate once.
struct NORVCRYPTO_EXPORT EncryptOptions {
    EncryptOptions();
    EncryptOptions(const EncryptOptions& other);
    EncryptOptions& operator=(const EncryptOptions& other);
    ~EncryptOptions();

    std::vector<NVX509::RefCertificate> certificates;
    /// Recipients as the caller made them (a password, RSAES-OAEP), whose certificates are not looked at.
    std::vector<CMS::EnvelopeRecipient> recipients;
    std::vector<EmailAddress> addresses; ///< whose certificates `keys` has
    /// The addresses of To, Cc and Bcc likewise. A message names the certificates of all its recipients, for each of them to
    /// see: those in Bcc are hidden from the others only by messages of their own.
    bool addressesOfMessage = false;
    /// The sender likewise, who could not read the own mail otherwise: `from`, or as `SignOptions::from` is read.
    bool sender = false;
    std::optional<EmailAddress> from;
    NVX509::RefKeyStore keys; ///< at first an empty handle
    /// GCM gives an authEnveloped-data message (RFC 8551, 3.4), which older programs do not read, the others an
    /// enveloped-data message (3.3).
    CMS::ContentCipher cipher = CMS::ContentCipher::aes256Cbc;
    /// Set: RSAES-OAEP for every certificate with an RSA key, which older programs do not read. Unset: PKCS#1 1.5.
    std::optional<CMS::OaepParameters> oaep;
};

/// What a mail may have that is written; more is refused.
struct WriteBudget {
    std::size_t headerOctets = std::size_t{256} << 10U; ///< of a header, and of that of each part
    std::size_t headerFields = 2000;                    ///< likewise
    std::size_t depth = 20;                             ///< parts within parts and forwarded messages
    std::size_t parts = 10000;                          ///< in all
    std::size_t recipients = CMS::maximumRecipients;    ///< addresses of the message
};

/// What holds for the whole message.
struct WriteOptions {
    LineEnds lineEnds = LineEnds::crlf;
    bool protectHeader = false;      ///< header protection, see the top of this file
    std::optional<std::time_t> at{}; ///< the moment at which certificates have to be valid; unset: now
    WriteBudget budget{};
    /// Where a copy of the message is kept, if it must be: a path that ends in "XXXXXX" (see `SwapBufferMediaOut`). Empty:
    /// "norvcrypto-XXXXXX" in the system's folder for temporary files.
    std::string spillTemplate{};
    /// With header protection, when encrypting: the texts that are shown first (text/plain and text/html, alternatives of each
    /// other, no attachments) begin with the Subject that is hidden outside, for programs that do not know header protection
    /// (RFC 9788, 5.2.2 and 5.2.3). Programs that do leave that beginning out (hp-legacy-display="1"). It is written in the
    /// character set of the text, UTF-8 where that is ASCII alone. A text without a place for it gets none: HTML without a
    /// body, malformed quoted-printable, a character set that is not known or does not have ASCII as it is.
    /// Likewise the 17th alternative and those behind it, and all where the Subject has more than 1,000 octets of UTF-8.
    bool legacyDisplay = false;
};

/// Signs a mail, and ends `out`.
/// \throws Exception as said above:
///         - "there is nobody to sign: no signer was given, and no store to find the sender in"
///         - "the message has no From", "the message has several From addresses and no Sender: say who signs",
///           "the From of the message is no address", "there is no key to sign with for anna@example.com"
///         - "the certificate of CN=Anna expired on 2026-01-31T12:00:00Z", "... is not valid before ...", "... does not
///           allow signing: its key usage has neither digitalSignature nor nonRepudiation", "... its extended key usage has
///           no emailProtection"
///         - "the part at 1.2 is signed already and is not 7-bit ...", "the part at 1.2 has the transfer encoding x-uuencode and
///           is not 7-bit ...", "the part at 1.2 is a multipart without any part, ..." (for a signature beside it alone). The
///           message is at 1, its parts are at 1.1, 1.2, as the reader counts them
///         - "the header of the part at 1.2 has a line that is no field and not 7-bit text with short lines: ..." (likewise)
///         - "the header of the message has a line that is no field, at which many readers begin the body". The first line of a
///           mailbox file ("From ") is none of these
///         - "the header of the part at 1.2 has more than 262144 octets" and so on for all of `WriteBudget`
///         - "the field Content-ID of the part at 1.2 has a line of 1200 characters that cannot be folded"
///         - with header protection: "the header of a message that is signed or encrypted already cannot be protected: sign and
///           encrypt it in one step", "the header of the message is protected already", "the Content-Type of the message is
///           not one to which header protection can be added"
///         - "the message changed while it was read"
///         - "there are no random bytes for a boundary", "a boundary that was made at random stands in the message: try again"
NORVCRYPTO_EXPORT void sign(const MediaIn& message, const SignOptions& options, MediaOut& out,
                            const WriteOptions& how = WriteOptions());

/// Encrypts a mail, and ends `out`.
/// \throws Exception as `sign`, and:
///         - "there is nobody to encrypt to"
///         - "there is no certificate for bert@example.com, carla@example.org": all of them at once
///         - "To, Cc or Bcc of the message have what is no address: ...", "the message has more than 10000 recipients", "there is
///           no store to find the recipients in", "the certificate of a recipient is an empty handle"
///         - "the certificate of CN=Bert does not allow encryption: its key usage has no keyEncipherment" (keyAgreement for
///           keys on elliptic curves)
NORVCRYPTO_EXPORT void encrypt(const MediaIn& message, const EncryptOptions& options, MediaOut& out,
                               const WriteOptions& how = WriteOptions());

/// Signs a mail, encrypts the signed one in the same pass, and ends `out`. \throws Exception as both
NORVCRYPTO_EXPORT void signAndEncrypt(const MediaIn& message, const SignOptions& signing,
                                      const EncryptOptions& encrypting, MediaOut& out,
                                      const WriteOptions& how = WriteOptions());

/// One of the shells around a mail.
using Wrapping = std::variant<SignOptions, EncryptOptions>;

/// Puts shells around a mail, the innermost first, and ends `out`: signed, encrypted and signed again is the triple wrapping
/// of RFC 2634, 1.1. Header protection is in the innermost one. \throws Exception as all of the above; "there is nothing to
/// do with the message", "there are more than 8 shells"
NORVCRYPTO_EXPORT void wrap(const MediaIn& message, const std::vector<Wrapping>& shells, MediaOut& out,
                            const WriteOptions& how = WriteOptions());

/// Writes a mail that carries certificates and revocation lists, signed by nobody (RFC 8551, 3.8: certs-only), and ends
/// `out`. \param message its header fields; those that `sign` would take inside go, and its body is empty
/// \throws Exception as said above: "a message of certificates has no body", the budget; and as `CMS::SignedWriter`
NORVCRYPTO_EXPORT void writeCertificates(const MediaIn& message,
                                         const std::vector<NVX509::RefCertificate>& certificates,
                                         const std::vector<NVX509::RefCertificateRevocationList>& revocationLists,
                                         MediaOut& out, const WriteOptions& how = WriteOptions());

/// The addresses of a mail in their order, groups taken apart; domains of other scripts as U-labels, also where A-labels stand
/// in the mail.
struct Correspondents {
    std::vector<EmailAddress> from;
    std::vector<EmailAddress> sender;
    std::vector<EmailAddress> to;         ///< of To, Cc and Bcc
    std::vector<std::string> noAddresses; ///< what stands among them and is no address
};

/// Reads the header of a mail, and no more of it than buffering takes.
/// \throws Exception as said above: the budget
NORVCRYPTO_EXPORT Correspondents correspondentsOf(const MediaIn& message, const WriteBudget& budget = WriteBudget());

} // namespace Norvane::Crypto::SMime

#endif
