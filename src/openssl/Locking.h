#pragma once

/// \file
/// The locks that OpenSSL asked its host program for until release 1.1. The installed one locks by itself and the hooks
/// expand to nothing; they are installed all the same, for a build against one that calls them.

#include <pthread.h>

#include <cstddef>
#include <vector>

namespace Norvane::Crypto::openssl {

/// One lock for each of OpenSSL's lock numbers. Never destroyed: OpenSSL may use them until the process ends.
class LockTable {
public:
    explicit LockTable(std::size_t count);
    LockTable(const LockTable&) = delete;
    LockTable& operator=(const LockTable&) = delete;
    ~LockTable() = delete;

    /// Locks number `index` when bit 0 of `mode` is set, unlocks it otherwise; readers and writers are not told apart.
    void change(int mode, int index);

private:
    std::vector<pthread_mutex_t> m_locks;
};

/// Makes a new table and installs it with the hooks. An earlier table stays where it is.
void installLocking();

} // namespace Norvane::Crypto::openssl
