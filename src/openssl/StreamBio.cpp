#include "openssl/StreamBio.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace Norvane::Crypto::openssl {

namespace {

constexpr int mediaType = BIO_TYPE_SOURCE_SINK | 1;

StreamBio* bodyOf(BIO* bio) {
    return bio == nullptr ? nullptr : static_cast<StreamBio*>(BIO_get_data(bio));
}

int answersNothing(BIO* /*bio*/, char* /*out*/, int /*length*/) {
    return 0;
}

int takesNothing(BIO* /*bio*/, const char* /*data*/, int /*length*/) {
    return 0;
}

int putsNothing(BIO* /*bio*/, const char* /*text*/) {
    return 0;
}

} // namespace

template <class Work> int StreamBio::guarded(Work work) noexcept {
    if (m_exception) {
        return -1;
    }
    try {
        return work();
    } catch (...) {
        m_exception = std::current_exception();
        return -1;
    }
}

int StreamBio::read(unsigned char* out, int length) noexcept {
    return guarded([&] {
        int total = 0;
        while (total < length) {
            const int count = m_source->read(out + total, static_cast<unsigned int>(length - total));
            if (count <= 0) {
                break;
            }
            // A stream that claims more than it was asked for must not make the position run past the buffer.
            total += std::min(count, length - total);
        }
        return total;
    });
}

int StreamBio::onWrite(BIO* bio, const char* data, int length) {
    StreamBio* body = bodyOf(bio);
    if (body == nullptr || data == nullptr || length <= 0) {
        return 0;
    }
    return body->guarded([&] {
        body->m_sink->write(reinterpret_cast<const unsigned char*>(data), static_cast<unsigned int>(length));
        return length;
    });
}

int StreamBio::onPuts(BIO* bio, const char* text) {
    return text == nullptr ? 0 : onWrite(bio, text, static_cast<int>(std::strlen(text)));
}

int StreamBio::onRead(BIO* bio, char* out, int length) {
    StreamBio* body = bodyOf(bio);
    if (body == nullptr || out == nullptr || length <= 0) {
        return 0;
    }
    // The requested length is reported whatever the stream delivered: what it did not deliver must not be whatever lay
    // in the reader's memory.
    std::memset(out, 0, static_cast<std::size_t>(length));
    return body->guarded([&] {
        body->m_source->read(reinterpret_cast<unsigned char*>(out), static_cast<unsigned int>(length));
        return length;
    });
}

long StreamBio::onControl(BIO* bio, int command, long /*number*/, void* argument) {
    StreamBio* body = bodyOf(bio);
    if (body == nullptr || body->m_pending == nullptr) {
        return 0;
    }
    if (command == BIO_C_GET_BUF_MEM_PTR && argument != nullptr) {
        body->guarded([&] {
            *static_cast<unsigned char**>(argument) = body->m_pending->data();
            return 0;
        });
    }
    if (command == BIO_C_SET_BUF_MEM_EOF_RETURN) {
        body->guarded([&] {
            body->m_sink->write(*body->m_pending);
            return 0;
        });
    }
    return 0;
}

int StreamBio::onCreate(BIO* bio) {
    BIO_set_init(bio, 1);
    return 1;
}

int StreamBio::onDestroy(BIO* bio) {
    if (StreamBio* body = bodyOf(bio)) {
        body->m_bio = nullptr;
    }
    return 0;
}

BIO_METHOD* StreamBio::makeMethod(const char* name, bool input) {
    BioMethodPtr method(BIO_meth_new(mediaType, name));
    if (!method || BIO_meth_set_read(method.get(), input ? onRead : answersNothing) == 0 ||
        BIO_meth_set_write(method.get(), input ? takesNothing : onWrite) == 0 ||
        BIO_meth_set_puts(method.get(), input ? putsNothing : onPuts) == 0 ||
        BIO_meth_set_gets(method.get(), answersNothing) == 0 || BIO_meth_set_ctrl(method.get(), onControl) == 0 ||
        BIO_meth_set_create(method.get(), onCreate) == 0 || BIO_meth_set_destroy(method.get(), onDestroy) == 0) {
        throw std::bad_alloc();
    }
    return method.release(); // lives as long as the process: bodies of static objects use it until the very end
}

BIO_METHOD* StreamBio::inputMethod() {
    static BIO_METHOD* const method = makeMethod("MediaIn", true);
    return method;
}

BIO_METHOD* StreamBio::outputMethod() {
    static BIO_METHOD* const method = makeMethod("MediaOut", false);
    return method;
}

void StreamBio::open(BIO_METHOD* method) {
    m_bio = BIO_new(method);
    if (m_bio == nullptr) {
        throw std::bad_alloc();
    }
    BIO_set_data(m_bio, this);
}

StreamBio::StreamBio(MediaInImpl& source) : m_source(&source) {
    open(inputMethod());
}

StreamBio::StreamBio(MediaOutImpl& sink, Buffer& pending) : m_sink(&sink), m_pending(&pending) {
    open(outputMethod());
}

StreamBio::~StreamBio() {
    if (m_bio != nullptr) {
        BIO_set_data(m_bio, nullptr);
        BIO_free(m_bio);
    }
}

std::exception_ptr StreamBio::takeException() noexcept {
    return std::exchange(m_exception, nullptr);
}

StreamBio* StreamBio::behind(BIO* bio) noexcept {
    if (bio == nullptr || BIO_method_type(bio) != mediaType) {
        return nullptr;
    }
    const char* name = BIO_method_name(bio);
    // The type number is not ours alone (0x401 is a memory BIO's as well); the name is our own literal.
    if (std::strcmp(name, "MediaIn") != 0 && std::strcmp(name, "MediaOut") != 0) {
        return nullptr;
    }
    return bodyOf(bio);
}

} // namespace Norvane::Crypto::openssl
