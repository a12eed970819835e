#include "openssl/ContentSink.h"

#include "openssl/ErrorQueue.h"

#include <openssl/err.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>
#include <utility>

namespace Norvane::Crypto::openssl {

bool ContentSink::addBlock() noexcept {
    OwnedMemory<unsigned char> block(static_cast<unsigned char*>(OPENSSL_malloc(blockSize)));
    if (block == nullptr) {
        return false;
    }
    try {
        m_blocks.push_back(std::move(block));
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

bool ContentSink::append(const char* data, std::size_t length) noexcept {
    if (m_failed || length > INT_MAX - m_length) {
        m_failed = true;
        return false;
    }
    while (length != 0) {
        const std::size_t used = m_length % blockSize;
        if (used == 0 && !addBlock()) {
            m_failed = true;
            return false;
        }
        const std::size_t count = std::min(length, blockSize - used);
        std::memcpy(m_blocks.back().get() + used, data, count);
        m_length += count;
        data += count;
        length -= count;
    }
    return true;
}

int ContentSink::onWrite(BIO* bio, const char* data, int length) {
    auto* sink = static_cast<ContentSink*>(BIO_get_data(bio));
    if (sink == nullptr || data == nullptr || length <= 0) {
        return 0;
    }
    if (!sink->append(data, static_cast<std::size_t>(length))) {
        queueError("BIO_write", ERR_LIB_BIO, ERR_R_MALLOC_FAILURE);
        return -1; // not 0, at which the cipher in front would try again for ever
    }
    return length;
}

long ContentSink::onControl(BIO* /*bio*/, int command, long /*number*/, void* argument) {
    switch (command) {
    case BIO_CTRL_INFO:
        if (argument != nullptr) {
            *static_cast<char**>(argument) = nullptr;
        }
        return 0;
    case BIO_CTRL_FLUSH:
    case BIO_C_SET_BUF_MEM_EOF_RETURN:
        return 1;
    default:
        return 0;
    }
}

BIO_METHOD* ContentSink::method() {
    static BIO_METHOD* const made = [] {
        BioMethodPtr method(BIO_meth_new(BIO_TYPE_MEM, "content in blocks"));
        if (!method || BIO_meth_set_write(method.get(), onWrite) == 0 ||
            BIO_meth_set_ctrl(method.get(), onControl) == 0) {
            throw std::bad_alloc();
        }
        return method.release(); // lives as long as the process
    }();
    return made;
}

BioPtr ContentSink::bio() {
    BioPtr bio(BIO_new(method()));
    if (bio != nullptr) {
        BIO_set_data(bio.get(), this);
        BIO_set_init(bio.get(), 1);
    }
    return bio;
}

} // namespace Norvane::Crypto::openssl
