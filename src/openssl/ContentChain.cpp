#include "openssl/ContentChain.h"

#include <algorithm>
#include <climits>
#include <utility>

namespace Norvane::Crypto::openssl {

namespace {

/// Puts a sink that keeps nothing in the place of the memory sink, which is the last link. OpenSSL looks for the memory
/// sink only when it embeds the content.
bool dropContent(BioChainPtr& head) {
    BIO* collecting = BIO_find_type(head.get(), BIO_TYPE_MEM);
    if (collecting == nullptr) {
        return true;
    }
    BioPtr dropping(BIO_new(BIO_s_null()));
    if (dropping == nullptr) {
        return false;
    }
    if (collecting == head.get()) {
        head.reset(dropping.release());
        return true;
    }
    static_cast<void>(BIO_pop(collecting));
    BIO_free(collecting);
    BIO_push(head.get(), dropping.release());
    return true;
}

} // namespace

ContentChain::ContentChain(BioChainPtr head) noexcept : m_head(std::move(head)) {}

ContentChain::~ContentChain() = default;

std::unique_ptr<ContentChain> ContentChain::open(PKCS7* structure, Sink sink) {
    BioChainPtr head(PKCS7_dataInit(structure, nullptr));
    if (head == nullptr || (sink == Sink::drop && !dropContent(head))) {
        return nullptr;
    }
    return std::unique_ptr<ContentChain>(new ContentChain(std::move(head)));
}

void ContentChain::write(const unsigned char* bytes, std::size_t length) noexcept {
    while (length != 0) {
        const std::size_t piece = std::min<std::size_t>(length, INT_MAX);
        static_cast<void>(BIO_write(m_head.get(), bytes, static_cast<int>(piece)));
        bytes += piece;
        length -= piece;
    }
}

void ContentChain::flush() noexcept {
    static_cast<void>(BIO_ctrl(m_head.get(), BIO_CTRL_FLUSH, 0, nullptr));
}

bool ContentChain::finish(PKCS7* structure) noexcept {
    return PKCS7_dataFinal(structure, m_head.get()) == 1;
}

} // namespace Norvane::Crypto::openssl
