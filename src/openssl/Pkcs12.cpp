#include "openssl/Pkcs12.h"

#include "framing/Walk.h"
#include "openssl/Acceptance.h"
#include "openssl/Decode.h"
#include "openssl/KeyComparison.h"
#include "openssl/KeyGuard.h"
#include "openssl/PrivateKeys.h"

#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pkcs12.h>

#include <limits>
#include <utility>
#include <vector>

namespace Norvane::Crypto::openssl {

namespace {

void freeBags(STACK_OF(PKCS12_SAFEBAG) * bags) noexcept {
    sk_PKCS12_SAFEBAG_pop_free(bags, PKCS12_SAFEBAG_free);
}
void freeSafes(STACK_OF(PKCS7) * safes) noexcept {
    sk_PKCS7_pop_free(safes, PKCS7_free);
}
using BagsPtr = Owned<STACK_OF(PKCS12_SAFEBAG), freeBags>;
using SafesPtr = Owned<STACK_OF(PKCS7), freeSafes>;
using InfoPtr = Owned<PKCS8_PRIV_KEY_INFO, PKCS8_PRIV_KEY_INFO_free>;

/// The refusal of what is in the first octet string of a structure, which OpenSSL hands out with all of the structure only.
template <auto Encode, class Structure> Refusal refusalOfContent(const Structure* structure) {
    unsigned char* encoded = nullptr;
    const int length = Encode(structure, &encoded);
    const OwnedMemory<unsigned char> bytes(encoded);
    if (length <= 0) {
        return Refusal::none;
    }
    framing::Walk walk(encoded, static_cast<std::size_t>(length));
    for (auto step = walk.next(); !isLast(step); step = walk.next()) {
        if (step == framing::Walk::Step::primitive &&
            walk.header().is(framing::TagClass::universal, framing::octetString)) {
            return refusalOf(walk.content(), static_cast<std::size_t>(walk.header().contentLength));
        }
    }
    return Refusal::none;
}

/// The value of an attribute, null when there is none; false for one of another type.
bool attributeOf(const PKCS12_SAFEBAG* bag, int nid, int type, const ASN1_STRING*& value) noexcept {
    const ASN1_TYPE* attribute = PKCS12_SAFEBAG_get0_attr(bag, nid);
    value = attribute == nullptr || attribute->type != type ? nullptr : attribute->value.asn1_string;
    return attribute == nullptr || value != nullptr;
}

/// Gives a certificate the name and the identifier of its bag.
bool label(X509* certificate, const ASN1_STRING* name, const ASN1_STRING* identifier) noexcept {
    if (identifier != nullptr &&
        X509_keyid_set1(certificate, ASN1_STRING_get0_data(identifier), ASN1_STRING_length(identifier)) != 1) {
        return false;
    }
    if (name == nullptr) {
        return true;
    }
    unsigned char* text = nullptr;
    const int length = ASN1_STRING_to_UTF8(&text, name);
    const OwnedMemory<unsigned char> freeing(text);
    return length < 0 || X509_alias_set1(certificate, text, length) == 1;
}

/// Opens a structure part by part. What answers false has queued the reason, or set the refusal.
class Opener {
public:
    Opener(const char* password, DerivationWork& work) noexcept : m_password(password), m_work(work) {}

    bool open(const PKCS12_st* structure) {
        // Among the parts may be signed ones, whose certificates are decoded with them although nobody asks for them.
        if (const Refusal refusal = refusalOfContent<i2d_PKCS12>(structure); refusal != Refusal::none) {
            return refuseCertificate(refusal);
        }
        const SafesPtr safes(PKCS12_unpack_authsafes(structure));
        for (int i = 0; i < sk_PKCS7_num(safes.get()); ++i) {
            if (!openSafe(sk_PKCS7_value(safes.get(), i))) {
                return false;
            }
        }
        return safes != nullptr;
    }

    Identity takeFound() {
        const ErrorMark mark;
        Identity found;
        for (CertificatePtr& certificate : m_certificates) {
            if (keyMatchesCertificate(certificate.get(), m_key.get())) {
                found.certificate = std::move(certificate);
                break;
            }
        }
        found.key = std::move(m_key);
        return found;
    }

    [[nodiscard]] const std::string& refusal() const noexcept { return m_refusal; }

private:
    bool refuse(std::string why) {
        m_refusal = std::move(why);
        return false;
    }

    bool refuseCertificate(Refusal refusal) {
        return refuse(std::string("In the PKCS#12 structure, a certificate is ") + textOf(refusal));
    }

    /// Whether what the algorithm derives from the password is affordable beside all that was.
    bool pay(const X509_ALGOR* algorithm) {
        m_work.addEncryption(algorithm);
        return m_work.isAffordable() || refuse(tooManyHashes("The PKCS#12 structure"));
    }

    bool openSafe(const PKCS7* safe) {
        auto* const given = const_cast<PKCS7*>(safe); // the interface of old
        if (PKCS7_type_is_data(given)) {
            const BagsPtr bags(PKCS12_unpack_p7data(given));
            return bags && openBags(bags.get());
        }
        if (!PKCS7_type_is_encrypted(given)) {
            return true;
        }
        const PKCS7_ENCRYPT* encrypted = safe->d.encrypted;
        if (encrypted != nullptr && encrypted->enc_data != nullptr && !pay(encrypted->enc_data->algorithm)) {
            return false;
        }
        const BagsPtr bags(PKCS12_unpack_p7encdata(given, m_password, -1));
        return bags && openBags(bags.get());
    }

    /// Nested as deep as OpenSSL decodes, which bounds it.
    bool openBags(const STACK_OF(PKCS12_SAFEBAG) * bags) {
        for (int i = 0; i < sk_PKCS12_SAFEBAG_num(bags); ++i) {
            if (!openBag(sk_PKCS12_SAFEBAG_value(bags, i))) {
                return false;
            }
        }
        return true;
    }

    bool openBag(const PKCS12_SAFEBAG* bag) {
        const ASN1_STRING* name = nullptr;
        const ASN1_STRING* identifier = nullptr;
        if (!attributeOf(bag, NID_friendlyName, V_ASN1_BMPSTRING, name) ||
            !attributeOf(bag, NID_localKeyID, V_ASN1_OCTET_STRING, identifier)) {
            return false;
        }
        switch (PKCS12_SAFEBAG_get_nid(bag)) {
        case NID_keyBag: // of several keys the first counts; the others are not even decrypted
            return m_key || takeKey(PKCS12_SAFEBAG_get0_p8inf(bag));
        case NID_pkcs8ShroudedKeyBag:
            return m_key || decryptKey(bag);
        case NID_certBag:
            return PKCS12_SAFEBAG_get_bag_nid(bag) != NID_x509Certificate || takeCertificate(bag, name, identifier);
        case NID_safeContentsBag:
            return openBags(PKCS12_SAFEBAG_get0_safes(bag));
        default:
            return true;
        }
    }

    bool decryptKey(const PKCS12_SAFEBAG* bag) {
        const X509_SIG* encrypted = PKCS12_SAFEBAG_get0_pkcs8(bag);
        if (std::string refusal = refusalOfEncryptedKey(encrypted); !refusal.empty()) {
            return refuse("In the PKCS#12 structure, " + refusal);
        }
        const X509_ALGOR* algorithm = nullptr;
        X509_SIG_get0(encrypted, &algorithm, nullptr);
        return pay(algorithm) && takeKey(InfoPtr(PKCS12_decrypt_skey(bag, m_password, -1)).get());
    }

    bool takeKey(const PKCS8_PRIV_KEY_INFO* info) {
        if (info == nullptr) {
            return false;
        }
        PrivateKeyReading reading = readPrivateInfo(info);
        if (!reading.refusal.empty()) {
            return refuse("In the PKCS#12 structure, " + reading.refusal);
        }
        m_key = std::move(reading.key);
        return m_key != nullptr;
    }

    bool takeCertificate(const PKCS12_SAFEBAG* bag, const ASN1_STRING* name, const ASN1_STRING* identifier) {
        Refusal refusal = refusalOfContent<i2d_PKCS12_SAFEBAG>(bag);
        if (m_certificates.size() == mostPublicKeys) {
            refusal = Refusal::tooManyPublicKeys;
        }
        if (refusal != Refusal::none) {
            return refuseCertificate(refusal);
        }
        CertificatePtr certificate(PKCS12_SAFEBAG_get1_cert(bag));
        if (!certificate || !label(certificate.get(), name, identifier)) {
            return false;
        }
        m_certificates.push_back(std::move(certificate));
        return true;
    }

    const char* m_password; ///< null: none
    DerivationWork& m_work;
    std::string m_refusal;
    KeyPtr m_key;
    std::vector<CertificatePtr> m_certificates;
};

} // namespace

Pkcs12Ptr decodePkcs12(BIO* source) noexcept {
    return decodeAcceptedFrom<Pkcs12Ptr, d2i_PKCS12>(source, "d2i_PKCS12_bio");
}

void addMac(const PKCS12_st* structure, DerivationWork& work) noexcept {
    const X509_ALGOR* digest = nullptr;
    const ASN1_INTEGER* iterations = nullptr;
    PKCS12_get0_mac(nullptr, &digest, nullptr, &iterations, structure);
    if (digest != nullptr) {
        work.addMac(digest, iterations);
    }
}

bool verifyPassword(PKCS12_st* structure, const std::string* password) noexcept {
    if (password == nullptr) {
        return queueingOnlyFailure([&] { return PKCS12_verify_mac(structure, nullptr, 0) == 1; });
    }
    // OpenSSL takes the length as an int, and a negative one as "measure the text".
    if (password->length() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        queueError("PKCS12_verify_mac", ERR_LIB_PKCS12, ERR_R_PASSED_INVALID_ARGUMENT);
        return false;
    }
    return queueingOnlyFailure(
        [&] { return PKCS12_verify_mac(structure, password->c_str(), static_cast<int>(password->length())) == 1; });
}

Pkcs12Opening openPkcs12(const PKCS12_st* structure, const std::string* password, DerivationWork& work) {
    Pkcs12Opening opening;
    if (password != nullptr && password->find('\0') != std::string::npos) {
        queueError("PKCS12_parse", ERR_LIB_PKCS12, PKCS12_R_MAC_VERIFY_FAILURE);
        return opening;
    }
    Opener opener(password == nullptr ? nullptr : password->c_str(), work);
    ERR_set_mark();
    opening.succeeded = opener.open(structure);
    opening.refusal = opener.refusal();
    if (!opening.succeeded && opening.refusal.empty()) {
        ERR_clear_last_mark();
        const unsigned long last = ERR_peek_last_error();
        if (ERR_GET_LIB(last) != ERR_LIB_EVP && ERR_GET_REASON(last) != EVP_R_UNSUPPORTED_ALGORITHM) {
            queueError("PKCS12_parse", ERR_LIB_PKCS12, PKCS12_R_PARSE_ERROR);
        }
        return opening;
    }
    ERR_pop_to_mark();
    opening.found = opener.takeFound();
    return opening;
}

} // namespace Norvane::Crypto::openssl
