#include "openssl/ContentSink.h"

#include "openssl/ErrorQueue.h"

#include <openssl/err.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <new>
#include <sys/mman.h>
#include <utility>

namespace Norvane::Crypto::openssl {

unsigned char* ContentSink::begin(std::size_t index) const noexcept {
    unsigned char* const block = m_blocks[index].get();
    if (!isLarge(index)) {
        return block;
    }
    return block + (hugePage - reinterpret_cast<std::uintptr_t>(block) % hugePage) % hugePage;
}

bool ContentSink::addBlock() noexcept {
    const std::size_t index = m_blocks.size();
    const std::size_t size = sizeOfBlock(index);
    OwnedMemory<unsigned char> block(
        static_cast<unsigned char*>(OPENSSL_malloc(isLarge(index) ? size + hugePage : size)));
    if (block == nullptr) {
        return false;
    }
    try {
        m_blocks.push_back(std::move(block));
    } catch (const std::bad_alloc&) {
        return false;
    }
    if (isLarge(index)) {
        madvise(begin(index), size, MADV_HUGEPAGE); // refused where there are none, which makes no difference
    }
    m_room = size;
    return true;
}

void ContentSink::refuse() noexcept {
    m_failed = true;
    queueError("BIO_write", ERR_LIB_BIO, ERR_R_MALLOC_FAILURE);
}

std::span<unsigned char> ContentSink::room() noexcept {
    if (m_failed || (m_room == 0 && !addBlock())) {
        refuse();
        return {};
    }
    const std::size_t last = m_blocks.size() - 1;
    return {begin(last) + sizeOfBlock(last) - m_room, m_room};
}

bool ContentSink::filled(std::size_t count) noexcept {
    if (count > INT_MAX - m_length) {
        refuse();
        return false;
    }
    m_length += count;
    m_room -= count;
    return true;
}

bool ContentSink::append(const char* data, std::size_t length) noexcept {
    if (m_failed || length > INT_MAX - m_length) {
        refuse();
        return false;
    }
    while (length != 0) {
        const std::span<unsigned char> place = room();
        if (place.empty()) {
            return false;
        }
        const std::size_t count = std::min(length, place.size());
        std::memcpy(place.data(), data, count);
        m_length += count;
        m_room -= count;
        data += count;
        length -= count;
    }
    return true;
}

int ContentSink::onWrite(BIO* bio, const char* data, int length) {
    auto* sink = static_cast<ContentSink*>(BIO_get_data(bio));
    if (data == nullptr) {
        return 0;
    }
    if (!sink->append(data, static_cast<std::size_t>(length))) {
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
