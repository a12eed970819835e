// What OpenSSL 3.0 does without memory that nobody who calls it can tell from something else. Each row has an experiment
// with OpenSSL alone in messages/WithoutMemoryTest.cpp.

#include "OpensslDefects.h"

#include <array>

namespace faults {

namespace {

struct Defect {
    const char* operation; ///< what its name begins with
    const char* what;      ///< likewise what was found
    const char* why;
};

constexpr const char* keyless = "d2i_X509 succeeds without memory for the public key, and tells nobody: the "
                                "certificate counts as one whose key does not decode";

constexpr const char* derivation = "EVP_KDF_CTX_new ends the process without memory for the context of ANSI X9.63's "
                                   "derivation, into which it writes all the same";

constexpr std::array<Defect, 3> defects{{
    {"SMime::read", "misjudged: refused: the public key of", keyless},
    {"EnvelopeWriter ECDH", "crash: exit code 1 AddressSanitizer: SEGV", derivation},
    {"EnvelopeReader ECDH", "crash: exit code 1 AddressSanitizer: SEGV", derivation},
}};

} // namespace

bool isOpensslsOwn(const Finding& finding) {
    if (finding.kind != Kind::opensslAllocation) {
        return false;
    }
    for (const Defect& one : defects) {
        if (finding.operation.rfind(one.operation, 0) == 0 && finding.what.rfind(one.what, 0) == 0) {
            return true;
        }
    }
    return false;
}

} // namespace faults
