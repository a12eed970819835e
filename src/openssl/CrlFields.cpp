#include "openssl/CrlFields.h"

#include "openssl/ErrorQueue.h"

namespace Norvane::Crypto::openssl {

namespace {

// The bits keep the numbers that the list's own field has in OpenSSL.
static_assert(IDP_PRESENT == 0x01 && IDP_INVALID == 0x02 && IDP_ONLYUSER == 0x04 && IDP_ONLYCA == 0x08);
static_assert(IDP_ONLYATTR == 0x10 && IDP_INDIRECT == 0x20 && IDP_REASONS == 0x40);

unsigned int scopeFlags(const ISSUING_DIST_POINT& point) {
    unsigned int flags = IDP_PRESENT;
    int exclusive = 0;
    const auto only = [&](int field, unsigned int flag) {
        if (field > 0) {
            flags |= flag;
            ++exclusive;
        }
    };
    only(point.onlyuser, IDP_ONLYUSER);
    only(point.onlyCA, IDP_ONLYCA);
    only(point.onlyattr, IDP_ONLYATTR);
    if (exclusive > 1) {
        flags |= IDP_INVALID;
    }
    if (point.indirectCRL > 0) {
        flags |= IDP_INDIRECT;
    }
    if (point.onlysomereasons != nullptr) {
        flags |= IDP_REASONS;
    }
    return flags;
}

unsigned int reasonsMask(const ASN1_BIT_STRING* reasons) {
    unsigned int mask = allReasons;
    if (reasons != nullptr && reasons->length > 0) {
        mask = reasons->data[0];
    }
    if (reasons != nullptr && reasons->length > 1) {
        mask |= static_cast<unsigned int>(reasons->data[1]) << 8U;
    }
    return mask & allReasons;
}

} // namespace

CrlScope crlScope(const X509_CRL* list) {
    CrlScope scope;
    if (list == nullptr) {
        return scope;
    }
    const ErrorMark mark;
    constexpr int absent = -1;
    int critical = absent;
    scope.point.reset(static_cast<ISSUING_DIST_POINT*>(
        X509_CRL_get_ext_d2i(list, NID_issuing_distribution_point, &critical, nullptr)));
    if (scope.point) {
        scope.flags = scopeFlags(*scope.point);
        scope.reasons = reasonsMask(scope.point->onlysomereasons);
    } else if (critical != absent) {
        scope.flags = IDP_INVALID;
    }
    return scope;
}

IntegerPtr crlInteger(const X509_CRL* list, int nid) {
    if (list == nullptr) {
        return nullptr;
    }
    const ErrorMark mark;
    IntegerPtr number(static_cast<ASN1_INTEGER*>(X509_CRL_get_ext_d2i(list, nid, nullptr, nullptr)));
    return number && ASN1_STRING_type(number.get()) == V_ASN1_INTEGER ? std::move(number) : nullptr;
}

} // namespace Norvane::Crypto::openssl
