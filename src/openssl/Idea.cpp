// Ciphers of one's own are deprecated in OpenSSL 3.0, whose providers are too much for one cipher.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "openssl/Idea.h"

#include "openssl/ErrorQueue.h"
#include "openssl/Pointers.h"

#include <dlfcn.h>
#include <gcrypt.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>

#include <array>
#include <cstring>
#include <new>

namespace Norvane::Crypto::openssl {

namespace {

constexpr int blockLength = 8;
constexpr int keyLength = 16;

/// The functions of libgcrypt that are used. It is loaded by the first key ever: few processes have one, and loading it takes a
/// short-lived process as long as verifying a signature. A program that has libgcrypt already gets its own.
class Gcrypt {
public:
    /// Null without libgcrypt.
    static const Gcrypt* instance() {
        static const Gcrypt loaded;
        return loaded.m_usable ? &loaded : nullptr;
    }

    decltype(&gcry_cipher_open) open = nullptr;
    decltype(&gcry_cipher_close) close = nullptr;
    decltype(&gcry_cipher_setkey) setKey = nullptr;
    decltype(&gcry_cipher_setiv) setVector = nullptr;
    decltype(&gcry_cipher_encrypt) encrypt = nullptr;
    decltype(&gcry_cipher_decrypt) decrypt = nullptr;

private:
    Gcrypt() {
        void* const library = dlopen("libgcrypt.so.20", RTLD_NOW | RTLD_LOCAL); // for good, as we are
        decltype(&gcry_check_version) start = nullptr;
        m_usable = library != nullptr && find(library, "gcry_check_version", start) &&
                   find(library, "gcry_cipher_open", open) && find(library, "gcry_cipher_close", close) &&
                   find(library, "gcry_cipher_setkey", setKey) && find(library, "gcry_cipher_setiv", setVector) &&
                   find(library, "gcry_cipher_encrypt", encrypt) && find(library, "gcry_cipher_decrypt", decrypt);
        if (!m_usable) {
            return;
        }
        start(nullptr); // what else there is to set is for the program to choose
        // The first key makes libgcrypt test its IDEA and keep the result without a lock.
        static constexpr std::array<unsigned char, keyLength> first{};
        gcry_cipher_hd_t handle = nullptr;
        if (open(&handle, GCRY_CIPHER_IDEA, GCRY_CIPHER_MODE_CBC, 0) == 0) {
            static_cast<void>(setKey(handle, first.data(), first.size()));
            close(handle);
        }
    }

    /// A program's own definition goes first, as it would for a function that the linker finds.
    template <class Function> static bool find(void* library, const char* name, Function& function) {
        void* found = dlsym(RTLD_DEFAULT, name);
        if (found == nullptr) {
            found = dlsym(library, name);
        }
        function = reinterpret_cast<Function>(found);
        return function != nullptr;
    }

    bool m_usable = false;
};

/// What a context keeps: zeroed by OpenSSL at first. The key is there because libgcrypt cannot copy a handle.
struct State {
    gcry_cipher_hd_t handle;
    unsigned char key[keyLength];
};

State& stateOf(EVP_CIPHER_CTX* context) {
    return *static_cast<State*>(EVP_CIPHER_CTX_get_cipher_data(context));
}

/// Gives the handle, which is made when there is none, the key of the state.
bool useKey(State& state) {
    const Gcrypt* const gcrypt = Gcrypt::instance();
    if (gcrypt == nullptr ||
        (state.handle == nullptr && gcrypt->open(&state.handle, GCRY_CIPHER_IDEA, GCRY_CIPHER_MODE_CBC, 0) != 0) ||
        gcrypt->setKey(state.handle, state.key, keyLength) != 0) {
        queueError("idea_cbc", ERR_LIB_EVP, EVP_R_INITIALIZATION_ERROR);
        return false;
    }
    return true;
}

void wipe(State& state) {
    if (state.handle != nullptr) {
        Gcrypt::instance()->close(state.handle); // wipes the key schedule
    }
    OPENSSL_cleanse(&state, sizeof state);
}

/// Called only with a key. The IV is OpenSSL's to keep: it may come later, or change under the same key.
int begin(EVP_CIPHER_CTX* context, const unsigned char* key, const unsigned char* /*iv*/, int /*encrypt*/) {
    State& state = stateOf(context);
    std::memcpy(state.key, key, keyLength);
    if (!useKey(state)) {
        wipe(state);
        return 0;
    }
    return 1;
}

/// Takes the IV from the context and leaves the next one there, so that a context can be copied between two blocks.
int crypt(EVP_CIPHER_CTX* context, unsigned char* out, const unsigned char* in, std::size_t length) {
    const State& state = stateOf(context);
    if (state.handle == nullptr) {
        queueError("idea_cbc", ERR_LIB_EVP, EVP_R_NO_KEY_SET);
        return 0;
    }
    if (length < blockLength) {
        return length == 0 ? 1 : 0;
    }
    const bool encrypt = EVP_CIPHER_CTX_is_encrypting(context) != 0;
    unsigned char* iv = EVP_CIPHER_CTX_iv_noconst(context);
    std::array<unsigned char, blockLength> next{};
    if (!encrypt) {
        std::memcpy(next.data(), in + length - blockLength, blockLength); // `out` may be `in`
    }
    const Gcrypt& gcrypt = *Gcrypt::instance(); // which made the handle
    if (gcrypt.setVector(state.handle, iv, blockLength) != 0 ||
        (encrypt ? gcrypt.encrypt : gcrypt.decrypt)(state.handle, out, length, in, length) != 0) {
        queueError("idea_cbc", ERR_LIB_EVP, ERR_R_INTERNAL_ERROR);
        return 0;
    }
    std::memcpy(iv, encrypt ? out + length - blockLength : next.data(), blockLength);
    return 1;
}

/// Called a second time, without a state, where a context gets another cipher.
int end(EVP_CIPHER_CTX* context) {
    if (EVP_CIPHER_CTX_get_cipher_data(context) != nullptr) {
        wipe(stateOf(context));
    }
    return 1;
}

/// Called to complete a copy, whose state is byte for byte the original's: the handle is not to be shared.
int control(EVP_CIPHER_CTX* /*context*/, int type, int /*argument*/, void* pointer) {
    if (type != EVP_CTRL_COPY) {
        return -1; // not supported
    }
    State& copy = stateOf(static_cast<EVP_CIPHER_CTX*>(pointer));
    const bool keyed = copy.handle != nullptr;
    copy.handle = nullptr;
    if (keyed && !useKey(copy)) {
        wipe(copy);
        return 0;
    }
    return 1;
}

using CipherPtr = Owned<EVP_CIPHER, EVP_CIPHER_meth_free>;

const EVP_CIPHER* make() {
    CipherPtr cipher(EVP_CIPHER_meth_new(NID_idea_cbc, blockLength, keyLength));
    if (!cipher || EVP_CIPHER_meth_set_iv_length(cipher.get(), blockLength) != 1 ||
        EVP_CIPHER_meth_set_flags(cipher.get(),
                                  EVP_CIPH_CBC_MODE | EVP_CIPH_FLAG_DEFAULT_ASN1 | EVP_CIPH_CUSTOM_COPY) != 1 ||
        EVP_CIPHER_meth_set_impl_ctx_size(cipher.get(), sizeof(State)) != 1 ||
        EVP_CIPHER_meth_set_init(cipher.get(), begin) != 1 || EVP_CIPHER_meth_set_do_cipher(cipher.get(), crypt) != 1 ||
        EVP_CIPHER_meth_set_cleanup(cipher.get(), end) != 1 || EVP_CIPHER_meth_set_ctrl(cipher.get(), control) != 1) {
        throw std::bad_alloc();
    }
    if (EVP_add_cipher(cipher.get()) != 1) {
        throw std::bad_alloc();
    }
    return cipher.release(); // for good: OpenSSL's table refers to it
}

} // namespace

const EVP_CIPHER* ideaCbc() {
    static const EVP_CIPHER* const cipher = make();
    return cipher;
}

bool isIdeaUsable() noexcept {
    const ErrorMark mark;
    State probe{};
    const bool usable = useKey(probe);
    wipe(probe);
    return usable;
}

void addIdea() noexcept {
    try {
        ideaCbc();
    } catch (const std::bad_alloc&) {
        return;
    }
}

} // namespace Norvane::Crypto::openssl
