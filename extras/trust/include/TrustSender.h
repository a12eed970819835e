#ifndef NORVCRYPTO_TRUST_TRUST_SENDER_H
#define NORVCRYPTO_TRUST_TRUST_SENDER_H

/// \file
/// Whether a certificate is that of the sender of a mail (RFC 8550, section 3; RFC 9598).
///
/// \code
/// const auto match = Trust::matchSender(signer, {"anna@example.org"}, "");
/// if (!match.matches()) {
///     show(match.reasons.front().text);      // "the certificate is for bob@example.net, not for anna@example.org"
/// }
/// \endcode
///
/// Addresses of a certificate are its rfc822Names and SmtpUTF8Mailboxes (RFC 9598, RFC 8398), and the emailAddress attributes
/// of its subject. They are compared as RFC 5321 has it: the local part byte by byte (a quoted one without its quotes), the
/// domain without regard to the case of ASCII letters, and internationalised domains as A-labels (IDNA2008 with the mapping of
/// UTS 46), so that "anna@bücher.example" is "anna@xn--bcher-kva.example".
///
/// Says nothing about whether to believe the certificate. May be called from any number of threads at once, for warmed
/// certificates or others each.

#include <norvcrypto-trust/TrustVerdict.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/Export.h>

#include <cstddef>
#include <string>
#include <vector>

namespace Norvane::Crypto::Trust {

inline constexpr std::size_t maximumFromAddresses = 1000; ///< of a mail; one with more is nobody's

/// Whose certificate it is.
enum class SenderRelation : int {
    none = 0,   ///< somebody else's
    from = 1,   ///< that of every From address
    sender = 2, ///< that of the Sender, who is not (all of) From: what a mail client shows as its author did not sign
};
/// "none", "from", "sender".
NORVCRYPTO_EXPORT const char* nameOf(SenderRelation relation) noexcept;

/// What became of it.
struct SenderMatch {
    SenderRelation relation = SenderRelation::none;
    /// Why it is not that of every From address; of `Reason`, the depth is 0.
    std::vector<Reason> reasons;
    std::vector<std::string>
        certified; ///< the addresses of the certificate as they stand in it, in its order, each once
    std::vector<std::string> uncertified; ///< the From addresses that are not among them

    [[nodiscard]] bool matches() const noexcept { return relation == SenderRelation::from; }
};

/// Compares the addresses of a certificate with those of a mail.
/// \param from   the addr-specs of the field From, UTF-8, without display names, groups or comments; all must match
/// \param sender the addr-spec of the field Sender; empty when there is none
[[nodiscard]] NORVCRYPTO_EXPORT SenderMatch matchSender(const NVX509::RefCertificate& certificate,
                                                        const std::vector<std::string>& from,
                                                        const std::string& sender = std::string());

/// An address in the form in which addresses are compared: two are the same exactly when these are. Empty for what is no
/// addr-spec.
[[nodiscard]] NORVCRYPTO_EXPORT std::string comparableAddress(const std::string& address);

} // namespace Norvane::Crypto::Trust

#endif
