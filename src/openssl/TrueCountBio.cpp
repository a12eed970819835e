#include "openssl/TrueCountBio.h"

#include "openssl/StreamBio.h"

#include <new>

namespace Norvane::Crypto::openssl {

namespace {

constexpr int filterType = BIO_TYPE_FILTER | 1;

int readTrue(BIO* bio, char* out, int length) {
    StreamBio* stream = StreamBio::behind(static_cast<BIO*>(BIO_get_data(bio)));
    if (stream == nullptr || out == nullptr || length <= 0) {
        return 0;
    }
    return stream->read(reinterpret_cast<unsigned char*>(out), length);
}

long controlNothing(BIO* /*bio*/, int /*command*/, long /*number*/, void* /*argument*/) {
    return 0;
}

int create(BIO* bio) {
    BIO_set_init(bio, 1);
    return 1;
}

BIO_METHOD* makeMethod() {
    BioMethodPtr method(BIO_meth_new(filterType, "MediaIn with true counts"));
    if (!method || BIO_meth_set_read(method.get(), readTrue) == 0 ||
        BIO_meth_set_ctrl(method.get(), controlNothing) == 0 || BIO_meth_set_create(method.get(), create) == 0) {
        throw std::bad_alloc();
    }
    return method.release();
}

} // namespace

BioPtr trueCountBio(BIO* adapter) {
    const StreamBio* stream = StreamBio::behind(adapter);
    if (stream == nullptr || !stream->reads()) {
        return nullptr;
    }
    static BIO_METHOD* const method = makeMethod();
    BioPtr bio(BIO_new(method));
    if (!bio) {
        throw std::bad_alloc();
    }
    BIO_set_data(bio.get(), adapter);
    return bio;
}

} // namespace Norvane::Crypto::openssl
