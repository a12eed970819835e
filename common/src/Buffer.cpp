#include <norvcmsg/Buffer.h>

#include <norvcmsg/Exception.h>

#include "Base64.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <string_view>
#include <utility>

namespace Norvane {

namespace {

/// What `data()` points to when there is no memory; never written, since the capacity is then 0.
unsigned char s_nothing[1];

unsigned char* allocateZeroed(unsigned int capacity) {
    if (capacity == 0) {
        return s_nothing;
    }
    // What the C library keeps at hand for a thread it gives out by malloc alone; large memory is zero as it comes.
    constexpr unsigned int small = 1024;
    void* const bytes = capacity <= small ? std::malloc(capacity) : std::calloc(capacity, 1);
    if (bytes == nullptr) {
        throw std::bad_alloc();
    }
    if (capacity <= small) {
        std::memset(bytes, 0, capacity);
    }
    return static_cast<unsigned char*>(bytes);
}

std::string_view viewOf(const Buffer& buffer) {
    return {reinterpret_cast<const char*>(buffer.data()), buffer.length()};
}

} // namespace

Buffer::Buffer() : m_bytes(s_nothing) {}

Buffer::Buffer(const void* bytes, unsigned int length, bool borrow) : m_bytes(s_nothing) {
    if (length == 0) {
        return;
    }
    if (bytes == nullptr) {
        throw Exception("Buffer::Buffer", 4, "Buffer", __LINE__).stringParameter("no bytes, but a length");
    }
    if (borrow) {
        // Never written: every change makes the buffer own its bytes first.
        m_bytes = static_cast<unsigned char*>(const_cast<void*>(bytes));
    } else {
        m_bytes = allocateZeroed(length);
        std::memcpy(m_bytes, bytes, length);
    }
    m_length = length;
    m_size = length;
    m_borrowed = borrow;
}

Buffer::Buffer(int capacity, int length) : m_bytes(s_nothing) {
    if (capacity < 0 || length < 0) {
        throw Exception("Buffer::Buffer", 4, "Buffer", __LINE__).stringParameter("negative capacity or length");
    }
    m_size = static_cast<unsigned int>(std::max(capacity, length));
    m_bytes = allocateZeroed(m_size);
    m_length = static_cast<unsigned int>(length);
}

Buffer::Buffer(const Buffer& other) : Buffer(other.m_bytes, other.m_length, false) {
    m_protected = other.m_protected;
}

// Not noexcept: borrowed bytes have to be copied.
Buffer::Buffer(Buffer&& other) : m_bytes(s_nothing) { // NOLINT(performance-noexcept-move-constructor)
    other.own();
    take(other);
}

Buffer& Buffer::operator=(const Buffer& other) {
    if (this != &other) {
        Buffer copy(other);
        take(copy);
    }
    return *this;
}

Buffer& Buffer::operator=(Buffer&& other) { // NOLINT(performance-noexcept-move-constructor): as above
    if (this != &other) {
        other.own();
        take(other);
    }
    return *this;
}

Buffer::~Buffer() {
    release();
}

/// Gives up the memory, wiping it when it is owned and protected. The mark stays.
void Buffer::release() noexcept {
    if (!m_borrowed && m_size != 0) {
        if (m_protected) {
            explicit_bzero(m_bytes, m_size);
        }
        std::free(m_bytes);
    }
    m_bytes = s_nothing;
    m_length = 0;
    m_size = 0;
    m_borrowed = false;
}

/// Takes over the memory of an owning buffer.
void Buffer::take(Buffer& other) noexcept {
    release();
    std::swap(m_bytes, other.m_bytes);
    std::swap(m_length, other.m_length);
    std::swap(m_size, other.m_size);
    m_protected = m_protected || other.m_protected;
}

/// Moves the bytes, those past the length included, to owned memory of another capacity, zeroed where it is new.
void Buffer::moveTo(unsigned int capacity) {
    auto* bytes = allocateZeroed(capacity);
    const auto length = m_length;
    std::memcpy(bytes, m_bytes, std::min(m_size, capacity));
    release();
    m_bytes = bytes;
    m_length = length;
    m_size = capacity;
}

void Buffer::own() {
    if (m_borrowed) {
        moveTo(m_size);
    }
}

const unsigned char* Buffer::data() const noexcept {
    return m_bytes;
}

unsigned char* Buffer::data() {
    own();
    return m_bytes;
}

unsigned int Buffer::length() const noexcept {
    return m_length;
}

void Buffer::length(unsigned int newLength) {
    own();
    if (newLength > m_size) {
        moveTo(newLength);
    }
    m_length = newLength;
}

unsigned int Buffer::size() const noexcept {
    return m_size;
}

unsigned char Buffer::at(int index) const {
    if (index < 0 || static_cast<unsigned int>(index) >= m_length) {
        throw Exception("Buffer::at", 4, "Buffer", __LINE__).intParameter(index);
    }
    return m_bytes[index];
}

void Buffer::append(const Buffer& other) {
    constexpr auto limit = std::numeric_limits<unsigned int>::max();
    const auto added = other.m_length;
    if (added > limit - m_length) {
        throw Exception("Buffer::append", 4, "Buffer", __LINE__).stringParameter("the length would not fit 32 bits");
    }
    m_protected = m_protected || other.m_protected;
    if (added == 0) {
        return;
    }
    const auto needed = m_length + added;
    if (needed > m_size) { // true of every borrowing buffer, which has no room
        // Put together beside the old memory: `other` may be this buffer or borrow its bytes.
        Buffer grown;
        grown.moveTo(std::max(needed, m_size > limit / 2 ? limit : m_size * 2));
        std::memcpy(grown.m_bytes, m_bytes, m_length);
        std::memcpy(grown.m_bytes + m_length, other.m_bytes, added);
        take(grown);
    } else {
        std::memmove(m_bytes + m_length, other.m_bytes, added);
    }
    m_length = needed;
}

void Buffer::protect() {
    m_protected = true;
}

bool Buffer::isProtected() const noexcept {
    return m_protected;
}

bool Buffer::decodeBase64(Buffer& decoded) const {
    const auto text = viewOf(*this);
    const auto capacity = std::max(decoded.m_size, base64::decodedBound(text.size()));
    Buffer result(static_cast<const void*>(nullptr), 0, false);
    result.m_protected = m_protected || decoded.m_protected;
    result.moveTo(capacity);
    const auto length = base64::decode(text, result.m_bytes);
    if (!length) {
        decoded.length(0);
        return false;
    }
    result.m_length = *length;
    decoded.take(result);
    return true;
}

std::string Buffer::toBase64String() const {
    return base64::encode(viewOf(*this));
}

bool Buffer::operator==(const Buffer& other) const noexcept {
    if (m_length != other.m_length) {
        return false;
    }
    if (!m_protected && !other.m_protected) {
        return std::memcmp(m_bytes, other.m_bytes, m_length) == 0;
    }
    volatile unsigned int difference = 0;
    for (unsigned int i = 0; i < m_length; ++i) {
        difference = difference | (static_cast<unsigned int>(m_bytes[i]) ^ other.m_bytes[i]);
    }
    return difference == 0;
}

} // namespace Norvane
