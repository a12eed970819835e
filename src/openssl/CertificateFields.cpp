#include "openssl/CertificateFields.h"

#include "openssl/ErrorQueue.h"
#include "openssl/Pointers.h"

#include <array>

namespace Norvane::Crypto::openssl {

namespace {

using UsagePtr = Owned<ASN1_BIT_STRING, ASN1_BIT_STRING_free>;
using ExtendedUsagePtr = Owned<EXTENDED_KEY_USAGE, EXTENDED_KEY_USAGE_free>;

template <class Pointer> Pointer decodeExtension(const X509* x509, int nid) {
    return Pointer(static_cast<typename Pointer::pointer>(X509_get_ext_d2i(x509, nid, nullptr, nullptr)));
}

unsigned long decodeKeyUsage(const X509* x509) {
    const auto usage = decodeExtension<UsagePtr>(x509, NID_key_usage);
    unsigned long bits = 0;
    if (usage && usage->length > 0) {
        bits = usage->data[0];
    }
    if (usage && usage->length > 1) {
        bits |= static_cast<unsigned long>(usage->data[1]) << 8U;
    }
    return bits;
}

unsigned long extendedUsageBit(int purpose) {
    struct Row {
        int nid;
        unsigned long bit;
    };
    static constexpr std::array rows{
        Row{NID_server_auth, XKU_SSL_SERVER},
        Row{NID_client_auth, XKU_SSL_CLIENT},
        Row{NID_email_protect, XKU_SMIME},
        Row{NID_code_sign, XKU_CODE_SIGN},
        Row{NID_ms_sgc, XKU_SGC},
        Row{NID_ns_sgc, XKU_SGC},
        Row{NID_OCSP_sign, XKU_OCSP_SIGN},
        Row{NID_time_stamp, XKU_TIMESTAMP},
        Row{NID_dvcs, XKU_DVCS},
        Row{NID_anyExtendedKeyUsage, XKU_ANYEKU},
    };
    for (const auto& row : rows) {
        if (row.nid == purpose) {
            return row.bit;
        }
    }
    return 0;
}

unsigned long decodeExtendedKeyUsage(const X509* x509) {
    const auto purposes = decodeExtension<ExtendedUsagePtr>(x509, NID_ext_key_usage);
    unsigned long bits = 0;
    for (int i = 0; i < sk_ASN1_OBJECT_num(purposes.get()); ++i) {
        bits |= extendedUsageBit(OBJ_obj2nid(sk_ASN1_OBJECT_value(purposes.get(), i)));
    }
    return bits;
}

/// The installed accessors answer "every bit" when the extension is absent and 0 when any extension is invalid; the
/// field of old was 0 in the first case and held the bits in the second.
template <class Get, class Decode> unsigned long usageBits(X509* x509, std::uint32_t flag, Get get, Decode decode) {
    if (x509 == nullptr) {
        return 0;
    }
    const ErrorMark mark;
    const auto flags = X509_get_extension_flags(x509);
    if ((flags & flag) == 0) {
        return 0;
    }
    return (flags & EXFLAG_INVALID) != 0 ? decode(x509) : get(x509);
}

} // namespace

void cacheExtensions(X509* x509) {
    if (x509 == nullptr) {
        return;
    }
    const ErrorMark mark;
    X509_check_purpose(x509, -1, 0);
}

unsigned long keyUsageBits(X509* x509) {
    return usageBits(x509, EXFLAG_KUSAGE, X509_get_key_usage, decodeKeyUsage);
}

unsigned long extendedKeyUsageBits(X509* x509) {
    return usageBits(x509, EXFLAG_XKUSAGE, X509_get_extended_key_usage, decodeExtendedKeyUsage);
}

AuthorityFacts authorityFacts(X509* x509) {
    if (x509 == nullptr) {
        return {};
    }
    const ErrorMark mark;
    const auto flags = X509_get_extension_flags(x509);
    return {(flags & EXFLAG_BCONS) != 0, (flags & EXFLAG_CA) != 0, (flags & EXFLAG_KUSAGE) != 0};
}

X509_VAL validityTimes(const X509* x509) {
    // Borrowed for reading only; the structure of old just has no const members.
    return {const_cast<ASN1_TIME*>(X509_get0_notBefore(x509)), const_cast<ASN1_TIME*>(X509_get0_notAfter(x509))};
}

std::string oneLineSubject(const X509* x509) {
    if (x509 == nullptr) {
        return {};
    }
    const ErrorMark mark;
    const OwnedMemory<char> line(X509_NAME_oneline(X509_get_subject_name(x509), nullptr, 0));
    return line ? std::string(line.get()) : std::string();
}

const ASN1_OCTET_STRING* decodedSubjectKeyIdentifier(X509* x509) {
    const ErrorMark mark;
    return X509_get0_subject_key_id(x509);
}

} // namespace Norvane::Crypto::openssl
