#include "diagnosis/OtherDigests.h"

#include <openssl/err.h>

#include <algorithm>
#include <array>

namespace Norvane::Crypto::SMime::diagnosis {

namespace {

/// Those that mail is signed with, under OpenSSL's long names.
constexpr std::array names{"sha1", "sha224", "sha256", "sha384", "sha512", "md5"};

} // namespace

OtherDigests::OtherDigests(const std::set<std::size_t>& lengths) {
    for (const char* const name : names) {
        const EVP_MD* const algorithm = EVP_get_digestbyname(name);
        if (algorithm == nullptr || !lengths.contains(static_cast<std::size_t>(EVP_MD_get_size(algorithm)))) {
            continue;
        }
        ERR_set_mark();
        Running one{name, std::unique_ptr<EVP_MD_CTX, Freeing>(EVP_MD_CTX_new())};
        if (one.context != nullptr && EVP_DigestInit_ex(one.context.get(), algorithm, nullptr) == 1) {
            m_running.push_back(std::move(one));
        }
        ERR_pop_to_mark();
    }
}

void OtherDigests::update(const unsigned char* octets, std::size_t count) {
    for (const Running& one : m_running) {
        static_cast<void>(EVP_DigestUpdate(one.context.get(), octets, count)); // fails for no digest
    }
}

std::vector<std::string> OtherDigests::namesOf(const Buffer& digest) const {
    std::vector<std::string> fitting;
    for (const Running& one : m_running) {
        const std::unique_ptr<EVP_MD_CTX, Freeing> copy(EVP_MD_CTX_new());
        std::array<unsigned char, EVP_MAX_MD_SIZE> value{};
        unsigned int length = 0;
        if (copy != nullptr && EVP_MD_CTX_copy_ex(copy.get(), one.context.get()) == 1 &&
            EVP_DigestFinal_ex(copy.get(), value.data(), &length) == 1 && length == digest.length() &&
            std::equal(digest.data(), digest.data() + length, value.begin())) {
            fitting.emplace_back(one.name);
        }
    }
    return fitting;
}

} // namespace Norvane::Crypto::SMime::diagnosis
