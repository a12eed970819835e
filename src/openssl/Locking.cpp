#include "openssl/Locking.h"

#include <openssl/crypto.h>

namespace Norvane::Crypto::openssl {

LockTable::LockTable(std::size_t count) : m_locks(count) {
    for (pthread_mutex_t& lock : m_locks) {
        pthread_mutex_init(&lock, nullptr);
    }
}

void LockTable::change(int mode, int index) {
    constexpr unsigned int lockBit = 1;
    pthread_mutex_t* lock = &m_locks.at(static_cast<std::size_t>(index));
    if ((static_cast<unsigned int>(mode) & lockBit) != 0) {
        pthread_mutex_lock(lock);
    } else {
        pthread_mutex_unlock(lock);
    }
}

namespace {

LockTable* s_current = nullptr;

/// All tables ever made, so that those that were replaced stay within reach: OpenSSL may be inside one of them.
std::vector<LockTable*>& tables() {
    static auto& all = *new std::vector<LockTable*>;
    return all;
}

[[maybe_unused]] unsigned long threadIdCallback() {
    return pthread_self();
}

[[maybe_unused]] void lockingCallback(int mode, int index, const char* /*file*/, int /*line*/) {
    s_current->change(mode, index);
}

} // namespace

void installLocking() {
    tables().push_back(new LockTable(static_cast<std::size_t>(CRYPTO_num_locks())));
    s_current = tables().back();
    CRYPTO_set_id_callback(threadIdCallback);
    CRYPTO_set_locking_callback(lockingCallback);
}

} // namespace Norvane::Crypto::openssl
