#ifndef NORVCRYPTO_SMIME_SMIME_READER_H
#define NORVCRYPTO_SMIME_SMIME_READER_H

/// \file
/// Whole S/MIME messages (RFC 8551), read in one go and constant memory: signatures judged, encrypted parts opened, layer by
/// layer, and the content in the middle handed on.
///
/// \code
/// using namespace Norvane::Crypto;
/// initialize();                                             // once, before anything else
/// Norvane::FileMediaIn mail(Norvane::File::Path("mail.eml"));
/// Norvane::SwapBufferMediaOut content(0x10000, "/var/tmp/contentXXXXXX");
/// SMime::ReadOptions options;
/// options.keys = &keys;                                     // a CMS::KeyLookup: what encrypted parts are opened with
/// const SMime::Answer answer = SMime::read(mail, content, options);
/// if (answer.verdict == SMime::Verdict::signatureGood && answer.notCovered.empty()) {
///     content.in().write(destination);
/// }
/// \endcode
///
/// THE CONTENT IS OUT BEFORE IT IS JUDGED, as with the readers of CMS that this stands on: who may not use what nobody
/// signed, or half of a message that turns out to be damaged, keeps it apart until there is an answer.
///
/// What is handed on is one entity: the one in the middle of the layers that begin at the message itself, or, where the
/// message is a multipart with S/MIME parts in it (a mailing list's footer behind the signed part), that of the first of
/// them. Nothing from outside these layers gets into it: bytes that a stranger put around an encrypted part never stand in
/// one text with what was decrypted (efail). What was left outside is named in `Answer::notCovered`. A message without any
/// S/MIME part hands nothing on.
///
/// A good signature is not trust, see CMSVerification.h. EnvelopedData is not authenticated, see CMSEnvelopeReader.h: never
/// tell its sender whether decrypting succeeded. `Layer::authenticated` tells which.
///
/// Which bytes a detached signature covers: those behind the line end of the delimiter in front of the part, header block
/// included, up to and without the line end in front of the next delimiter (RFC 1847, RFC 2046). Where all these lines end
/// in CRLF the bytes as they stand are digested. Where some end in LF alone, as files on disk do, the bytes are tried with
/// CRLF in place of each bare LF (RFC 8551, 3.1.1), and as they stand; which comes first depends on whether there are CRLFs
/// among them, and the form that fits is told. A CR without LF is left alone.
///
/// Nothing is thrown for what a message holds. What `message`, `content` and the `KeyLookup` throw passes through, and so does the
/// `MediaException` of a file without a name that cannot be made or written.
/// Several threads may read messages at once, each its own.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Media.h>
#include <norvcrypto-smime/SMimeAnswer.h>
#include <norvcrypto-trust/Trust.h>
#include <norvcrypto/CMSEnvelopeReader.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Norvane::Crypto::SMime {

/// What a stranger may choose. What is beyond is not looked at, and told: as an oddity where it lies within a part that is
/// covered or does not matter, as `tooCostly` where there is no verdict without it.
struct ReadBudget {
    std::size_t headerOctets = std::size_t{256} << 10U; ///< of one header block
    std::size_t headerFields = 2000;                    ///< of one header block
    std::size_t depth = 24;                             ///< entities within entities
    std::size_t parts = 1000;                           ///< of all multiparts together
    std::size_t layers = 16;                            ///< CMS structures that are read
    std::uint64_t spill = UINT64_C(0x400000000);        ///< octets in files without a name, all together
};

/// How a message is read.
struct ReadOptions {
    /// What encrypted parts are opened with; null: nothing is opened. Borrowed.
    const CMS::KeyLookup* keys = nullptr;
    /// The octets of a password, and of a key-encryption key (16, 24 or 32), for what is encrypted with one (RFC 5652, 6.2.3 and
    /// 6.2.4); null: there is none. Used where none of `keys` fits, for the first recipient of their kind alone, since a
    /// message is read once; of one message three structures are opened with the password, since each may cost a second. Borrowed.
    const Buffer* password = nullptr;
    const Buffer* keyEncryptionKey = nullptr;
    /// Certificates of signers, beside those in the messages. How often signers are compared with them is bounded, see
    /// `CMS::maximumComparisons`; `CMS::maximumTries` different ones are tried for one signer.
    std::vector<NVX509::RefCertificate> certificates;
    /// Whether those alone are used, and none of the messages: nobody else's signature is good then, since anybody may put
    /// a certificate of his own into a message.
    bool onlyTheseCertificates = false;
    /// Who judges the certificates of signers; null: nobody, and no message is `accepted`. Borrowed.
    const Trust::Verifier* trust = nullptr;
    /// What it judges them by. With `atSigningTime` a signature is judged by the time at which its signer says to have signed.
    Trust::Options trustOptions;
    /// True hands a whole message on: the header fields of the outermost one, protected fields in place of those outside,
    /// and the content with its own Content-* fields. False the content entity alone, as it stands.
    bool wholeMessage = false;
    /// True takes encryption off and leaves signatures on: where the content lies within an encrypted layer, the entity that the
    /// innermost of these holds is handed on as it stands, with all signed layers in it (`Answer::deliveredPath`). So who gets
    /// it can verify it once more. It is kept until its layer was read to its end: of one that is damaged, nothing is handed on.
    /// Where nothing is encrypted, the content as with false.
    bool keepSignatures = false;
    /// The addresses that the signer is compared with; those in From and Sender when there are none. Where the layers cover
    /// a From of their own, the signer must be that of both.
    std::vector<std::string> from;
    /// Whether to find out why a detached signature is refused, for the first one that is; see SMimeDiagnosis.h.
    bool explain = false;
    /// Whether to list the parts that hold no others in `Answer::parts`.
    bool listParts = false;
    ReadBudget budget;
    /// Where files without a name are made (mode 0600), as for `SwapBufferMediaOut`; the system's folder for temporary files
    /// when it is empty. Signed parts of up to 64 KB stay in memory.
    std::string spillTemplate;
};

/// Reads a message to its end.
/// \param message RFC 5322; lines end in CRLF or LF
/// \param content gets the content; it is not ended
NORVCRYPTO_EXPORT Answer read(const MediaIn& message, MediaOut& content, const ReadOptions& options);

} // namespace Norvane::Crypto::SMime

#endif
