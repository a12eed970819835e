#pragma once

/// \file
/// The addresses of a certificate.

#include "OpenSsl.h"

#include <string>
#include <unordered_set>
#include <vector>

namespace Norvane::Crypto::Trust::detail {

/// Its rfc822Names, SmtpUTF8Mailboxes and the emailAddress attributes of its subject; a thousand of them are looked at.
class Certified {
public:
    explicit Certified(const X509* certificate);

    /// Each once, in their order.
    [[nodiscard]] const std::vector<std::string>& asTheyStand() const { return m_asTheyStand; }
    /// As `comparableAddress` gives them.
    [[nodiscard]] const std::unordered_set<std::string>& comparable() const { return m_comparable; }
    [[nodiscard]] bool has(const std::string& comparable) const { return m_comparable.count(comparable) > 0; }

private:
    void addName(const GENERAL_NAME* name);
    void addAttribute(const ASN1_STRING* value);
    void add(std::string address, bool international);

    std::size_t m_looked = 0;
    std::vector<std::string> m_asTheyStand;
    std::unordered_set<std::string> m_comparable;
};

/// Whether somebody of the chain above its first certificate excludes an address of that one. OpenSSL compares how addresses are
/// spelled: it overlooks "xn--bcher-kva.example" and "BÜCHER.example" below the exclusion of "bücher.example", and local parts
/// in quotes.
bool hasExcludedAddress(STACK_OF(X509) * chain);

} // namespace Norvane::Crypto::Trust::detail
