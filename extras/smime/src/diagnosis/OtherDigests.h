#pragma once

/// \file
/// The digests of a body by algorithms that its signers do not name.

#include <norvcmsg/Buffer.h>

#include <openssl/evp.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

namespace Norvane::Crypto::SMime::diagnosis {

class OtherDigests {
public:
    /// \param lengths of the digests that are asked for, in octets
    explicit OtherDigests(const std::set<std::size_t>& lengths);

    void update(const unsigned char* octets, std::size_t count);
    /// The names of those that give this digest.
    [[nodiscard]] std::vector<std::string> namesOf(const Buffer& digest) const;
    [[nodiscard]] std::size_t count() const noexcept { return m_running.size(); }

private:
    struct Freeing {
        void operator()(EVP_MD_CTX* context) const noexcept { EVP_MD_CTX_free(context); }
    };
    struct Running {
        const char* name;
        std::unique_ptr<EVP_MD_CTX, Freeing> context;
    };
    std::vector<Running> m_running;
};

} // namespace Norvane::Crypto::SMime::diagnosis
