#include "openssl/ContentChain.h"

#include "openssl/ErrorQueue.h"
#include "openssl/Signatures.h"

#include <openssl/err.h>
#include <openssl/pkcs7.h>

#include <algorithm>
#include <climits>
#include <span>
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

/// Whether each signature of the structure is one: see Signatures.h.
bool areSigned(PKCS7* structure, BIO* chain) {
    const STACK_OF(PKCS7_SIGNER_INFO)* signers = PKCS7_get_signer_info(structure);
    for (int i = 0; i < sk_PKCS7_SIGNER_INFO_num(signers); ++i) {
        const PKCS7_SIGNER_INFO* signer = sk_PKCS7_SIGNER_INFO_value(signers, i);
        const int length = ASN1_STRING_length(signer->enc_digest);
        EVP_MD_CTX* digested = nullptr;
        if (length < 0 || BIO_get_md_ctx(BIO_find_type(chain, BIO_TYPE_MD), &digested) <= 0 ||
            !isSound(digested, ASN1_STRING_get0_data(signer->enc_digest), static_cast<std::size_t>(length),
                     signer->pkey)) {
            return false;
        }
    }
    return true;
}

} // namespace

ContentChain::ContentChain(std::unique_ptr<ContentSink> sink, BioChainPtr head) noexcept
    : m_sink(std::move(sink)),
      m_head(std::move(head)) {
    if (m_sink != nullptr) {
        static_cast<void>(BIO_get_cipher_ctx(m_head.get(), &m_cipher));
    }
}

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

void ContentChain::writeLong(const unsigned char* bytes, std::size_t length) noexcept {
    if (m_cipher == nullptr) {
        write(bytes, length);
        return;
    }
    // The cipher BIO holds nothing back between two writes, since the sink takes all or fails for good.
    while (length != 0 && !m_failed) {
        // Whole blocks of the cipher come out and the room is a whole number of them: what it held back fits too.
        const std::span<unsigned char> room = m_sink->room();
        const std::size_t piece = std::min(length, room.size());
        int made = 0;
        m_failed = room.empty() ||
                   EVP_CipherUpdate(m_cipher, room.data(), &made, bytes, static_cast<int>(piece)) != 1 ||
                   !m_sink->filled(static_cast<std::size_t>(made));
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
    // Twice, since a wrong signature renews what made it wrong.
    for (int turn = 0; turn < 2; ++turn) {
        if (lost || PKCS7_dataFinal(structure, m_head.get()) != 1) {
            return false;
        }
        if (areSigned(structure, m_head.get())) {
            return true;
        }
    }
    queueError("PKCS7_dataFinal", ERR_LIB_PKCS7, PKCS7_R_SIGNATURE_FAILURE);
    return false;
}

} // namespace Norvane::Crypto::openssl
