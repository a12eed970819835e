#pragma once

// Makes BIO_new fail, and counts what BIO_free is called for. A program that includes this, in one source, stands in for
// both.

#include "support/Interpose.h"

#include <openssl/bio.h>

#include <map>

namespace norvtest {

inline bool bioNewFails = false;
inline std::map<const void*, int>* freedBios = nullptr; ///< how often each was freed; null: nobody counts

/// Counts what BIO_free is called for while it lives.
class CountingFrees {
public:
    CountingFrees() { freedBios = &m_freed; }
    ~CountingFrees() { freedBios = nullptr; }
    CountingFrees(const CountingFrees&) = delete;
    CountingFrees& operator=(const CountingFrees&) = delete;
    int of(const BIO* bio) { return m_freed[bio]; }
    int total() const {
        int sum = 0;
        for (const auto& entry : m_freed) {
            sum += entry.second;
        }
        return sum;
    }

private:
    std::map<const void*, int> m_freed;
};

} // namespace norvtest

extern "C" BIO* BIO_new(const BIO_METHOD* method) {
    return norvtest::bioNewFails ? nullptr : norvtest::next<&BIO_new>("BIO_new")(method);
}

extern "C" int BIO_free(BIO* bio) {
    if (norvtest::freedBios != nullptr) {
        ++(*norvtest::freedBios)[bio];
    }
    return norvtest::next<&BIO_free>("BIO_free")(bio);
}
