#pragma once

/// \file
/// How much one message may cost whoever decrypts it, before anything about its sender is known.

#include "openssl/Pkcs7.h"

#include <algorithm>
#include <cstddef>
#include <vector>

namespace Norvane::Crypto::CMS {

/// Counts what the recipients of one message have cost so far. The content is decrypted once for each try and may be
/// large, and a sender may repeat a recipient as often as he likes.
class TryLimits {
public:
    /// A certificate that was put in twice needs two.
    static constexpr std::size_t s_triesOfOneName = 3;
    static constexpr std::size_t s_triesOfOneMessage = 12;
    /// As many recipients as mail servers let a message have. Each is a private-key operation for a key of another name.
    static constexpr std::size_t s_otherNameOperations = 1000;

    /// Whether there was a try: before one no name is used up.
    [[nodiscard]] bool hasTried() const noexcept { return !m_tried.empty(); }
    [[nodiscard]] bool isNameUsedUp(const PKCS7_RECIP_INFO* recipient) const noexcept {
        const auto same = [recipient](const PKCS7_RECIP_INFO* tried) { return openssl::haveOneName(tried, recipient); };
        return static_cast<std::size_t>(std::count_if(m_tried.begin(), m_tried.end(), same)) >= s_triesOfOneName;
    }
    [[nodiscard]] bool isMessageUsedUp() const noexcept { return m_tried.size() >= s_triesOfOneMessage; }
    void countTry(const PKCS7_RECIP_INFO* recipient) { m_tried.push_back(recipient); }

    /// Whether a key of another name went over the recipients before: the answer is known then.
    [[nodiscard]] bool wasTriedOnAll(const EVP_PKEY* key) const noexcept {
        return std::any_of(m_keys.begin(), m_keys.end(),
                           [key](const openssl::KeyPtr& tried) { return EVP_PKEY_eq(tried.get(), key) == 1; });
    }
    void rememberOnAll(EVP_PKEY* key) {
        EVP_PKEY_up_ref(key);
        m_keys.emplace_back(key);
    }

    [[nodiscard]] bool areOperationsUsedUp() const noexcept { return m_operations == 0; }
    /// False when there is none left.
    bool takeOperation() noexcept { return m_operations != 0 && m_operations-- != 0; }

private:
    std::vector<const PKCS7_RECIP_INFO*> m_tried;
    std::vector<openssl::KeyPtr> m_keys;
    std::size_t m_operations = s_otherNameOperations;
};

} // namespace Norvane::Crypto::CMS
