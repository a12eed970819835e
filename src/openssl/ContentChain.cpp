#include "openssl/ContentChain.h"

#include <algorithm>
#include <climits>
#include <utility>

namespace Norvane::Crypto::openssl {

namespace {

/// Puts a sink in the place of the memory sink, which is the last link and would move its bytes each time it grows. A
/// structure without digest or cipher has nothing but that link.
bool replaceSink(BioChainPtr& head, BioPtr sink) {
    if (sink == nullptr) {
        return false;
    }
    BIO* collecting = BIO_find_type(head.get(), BIO_TYPE_MEM);
    if (collecting == nullptr) {
        return true;
    }
    if (collecting == head.get()) {
        head.reset(sink.release());
        return true;
    }
    static_cast<void>(BIO_pop(collecting));
    BIO_free(collecting);
    BIO_push(head.get(), sink.release());
    return true;
}

} // namespace

ContentChain::ContentChain(std::unique_ptr<ContentSink> sink, BioChainPtr head) noexcept
    : m_sink(std::move(sink)),
      m_head(std::move(head)) {}

ContentChain::~ContentChain() = default;

std::unique_ptr<ContentChain> ContentChain::open(PKCS7* structure, Sink sink) {
    auto collected = sink == Sink::collect ? std::make_unique<ContentSink>() : nullptr;
    BioChainPtr head(PKCS7_dataInit(structure, nullptr));
    if (head == nullptr || !replaceSink(head, collected ? collected->bio() : BioPtr(BIO_new(BIO_s_null())))) {
        return nullptr;
    }
    return std::unique_ptr<ContentChain>(new ContentChain(std::move(collected), std::move(head)));
}

void ContentChain::write(const unsigned char* bytes, std::size_t length) noexcept {
    while (length != 0 && !m_failed) {
        const std::size_t piece = std::min<std::size_t>(length, INT_MAX);
        m_failed = BIO_write(m_head.get(), bytes, static_cast<int>(piece)) != static_cast<int>(piece);
        bytes += piece;
        length -= piece;
    }
}

void ContentChain::flush() noexcept {
    if (!m_failed) {
        m_failed = BIO_ctrl(m_head.get(), BIO_CTRL_FLUSH, 0, nullptr) <= 0;
    }
}

bool ContentChain::finish(PKCS7* structure) noexcept {
    const bool lost = m_failed || (m_sink != nullptr && m_sink->failed());
    return !lost && PKCS7_dataFinal(structure, m_head.get()) == 1;
}

} // namespace Norvane::Crypto::openssl
