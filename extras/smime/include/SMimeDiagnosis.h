#ifndef NORVCRYPTO_SMIME_SMIME_DIAGNOSIS_H
#define NORVCRYPTO_SMIME_SMIME_DIAGNOSIS_H

/// \file
/// Why a signature does not fit: finds out what was done on the way to the body of a detached signature, or which
/// certificate or digest the signer should have named.
///
/// \code
/// const auto body = [] { return Norvane::MediaIn(Norvane::FileMediaIn(Norvane::File::Path("body"))); };
/// const SMime::Diagnosis diagnosis = SMime::explain(structure, body); // structure: the bytes of the .p7s
/// for (const SMime::Explanation& explanation : diagnosis.explanations) {
///     for (const SMime::Finding& finding : explanation.findings) {
///         std::cout << finding.text << "; " << finding.advice << '\n';
///     }
/// }
/// \endcode
///
/// AN EXPLANATION CHANGES NO VERDICT. What arrived is not what was signed, and stays refused. An explanation is given only
/// for a signature that is good over the body with the named changes undone, so nobody can have one who did not sign;
/// what it says is a help for those who run the relays on the way. Trust in the certificate is another question.
///
/// What is tried: all values of `Change`, each alone; those of single lines, parts and header fields together with one of
/// line ends (`lineEndsMadeLf` to `carriageReturnsDoubled`) and with lines or line ends at the end of the body
/// (`lastLineEndLost`, `lastLineEndAdded`, `footerAtEnd`). What was cut off or replaced by a relay cannot be guessed: a text
/// that was changed, blanks that were stripped (but for the one of the line "-- "), attachments that were taken out.
///
/// What a stranger may make this cost: see `DiagnosisBudget`. The body is never kept: it is read twice at most when it
/// has more than 64 KB, and up to six times when it is shorter, so that a short one needs little memory.
///
/// Functions, which any number of threads may call at the same time; a source is used by the call that opened it.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Media.h>
#include <norvcrypto/CMSSignedReader.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/Export.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <string>
#include <vector>

namespace Norvane::Crypto::SMime {

/// What made a good signature one that does not fit. The numbers are stable.
enum class Change : int {
    // line ends
    lineEndsMadeLf = 1,     ///< the signed text ended its lines with CR LF, what is here with LF, at least in places
    lineEndsMadeCrLf,       ///< with LF alone, what is here with CR LF
    lineEndsMadeCr,         ///< with CR LF, what is here with CR alone, at least in places
    carriageReturnsDoubled, ///< with CR LF, what is here with CR CR LF, at least in places

    // the end of the body
    lastLineEndLost = 11, ///< one line end or more, up to three
    lastLineEndAdded,     ///< one or more
    footerAtEnd,          ///< lines behind the end of what was signed: 64 of them at most, in 16 KB

    // single lines
    blanksAddedAtLineEnds = 21,
    separatorBlankLost, ///< "-- " in front of a signature block is "--" now
    dotsDoubled,        ///< leading dots, by a relay whose receiver did not undo it (RFC 5321, 4.5.2)
    dotsLost,           ///< one of two leading dots, undone where nothing was doubled
    fromEscaped,        ///< ">From " for "From ", as in files of many messages
    fromUnescaped,      ///< "From " for ">From "

    // parts
    preambleChanged = 31, ///< the text in front of the first boundary: lost or replaced
    preambleAdded,
    footerAfterLastBoundary,

    // transfer encodings
    base64Rewrapped = 41,
    quotedPrintableReencoded,
    quotedPrintableMadeBase64,
    base64MadeQuotedPrintable,
    madeSevenBit,        ///< 8-bit or plain text was made quoted-printable or base64
    madeEightBit,        ///< quoted-printable or base64 was made 8-bit text
    characterSetChanged, ///< with the parameter that names it

    // header fields of the parts
    headerRefolded = 51,
    headerBlanksChanged,
    headerNamesRespelled,  ///< capital or small letters
    parametersRequoted,    ///< quotes around values
    characterSetRespelled, ///< capital or small letters

    // the signature
    digestOfOtherAlgorithm = 71, ///< the digest is the body's by another algorithm than the signer says
    certificateRenewed,          ///< the key is that of another certificate of the issuer that the signer names
    otherCertificate,            ///< the key is that of another certificate than the signer names
};

/// A name for logs and JSON, which is stable: "line-ends-lf".
NORVCRYPTO_EXPORT const char* nameOf(Change change) noexcept;

/// One thing that was changed.
struct Finding {
    Change change = Change::lineEndsMadeLf;
    /// A sentence without an end, with what exactly was changed: "the signed text ended its lines with CR LF; on the way
    /// LF was made of 12 of 14". It may have names out of certificates, escaped for display.
    std::string text;
    std::string advice; ///< what to do about it, likewise
};

/// Why the signature of one signer does not fit.
struct Explanation {
    std::size_t signer = 0;             ///< its place among `SignedReader::signers`
    std::vector<Finding> findings;      ///< all of them together make the signature fit
    NVX509::RefCertificate certificate; ///< whose key made the signature; trust in it was not checked
};

/// How much is tried.
struct DiagnosisBudget {
    std::uint64_t body = std::uint64_t{64} << 20U;     ///< octets that a body may have
    std::uint64_t structure = std::uint64_t{1} << 20U; ///< octets that the structure may have
    std::uint64_t digested = std::uint64_t{2} << 30U;  ///< octets that all tries together may digest
    std::size_t signers = 8;                           ///< signers whose signature does not fit
    std::size_t verifications = 256;                   ///< signatures that are verified, for all of them
};

struct DiagnosisOptions {
    /// Certificates that may be meant, beside those in the message: a store's, those of files. 1,000 are looked at.
    std::list<NVX509::RefCertificate> certificates{};
    DiagnosisBudget budget{};
};

/// What was found out.
struct Diagnosis {
    std::vector<Explanation> explanations; ///< one at most for each signer, that with the fewest findings
    /// What was not looked at, in plain words; empty when all was: "the body has more than 67108864 bytes: it was not tried
    /// what may have happened to it".
    std::string notLooked;
    std::size_t passes = 0;        ///< how often the body was read
    std::size_t tries = 0;         ///< changes that were undone
    std::uint64_t digested = 0;    ///< octets that were digested for that
    std::size_t verifications = 0; ///< signatures that were verified
};

/// Opens the body once more, from its beginning.
using BodySource = std::function<MediaIn()>;

/// Finds out why the signatures in a detached structure do not fit a body. Nothing is explained of signers whose signature
/// is good.
/// \param structure the whole ContentInfo, BER or DER
/// \param body what came beside it: for multipart/signed the first part with its header fields and without the line end in
///        front of the boundary
/// \throws what `CMS::SignedReader`, `body` and its source throw
NORVCRYPTO_EXPORT Diagnosis explain(const Buffer& structure, const BodySource& body,
                                    const DiagnosisOptions& options = {});

/// Finds out for the signers of a message that was read to its end whether another certificate fits; for messages that
/// carry their content, which no relay changes. Explanations have one finding.
/// \throws what `CMS::SignedReader` throws
NORVCRYPTO_EXPORT Diagnosis explainSigners(const CMS::SignedReader& message, const DiagnosisOptions& options = {});

} // namespace Norvane::Crypto::SMime

#endif
