#include "openssl/Pkcs12Work.h"

#include "openssl/ErrorQueue.h"

#include <openssl/objects.h>
#include <openssl/pkcs12.h>

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

/// A count that is absent is 1 and counts nothing; one that does not fit is beyond every bound.
std::int64_t valueOf(const ASN1_INTEGER* count) noexcept {
    std::int64_t value = 0;
    if (count == nullptr) {
        return 0;
    }
    return ASN1_INTEGER_get_int64(&value, count) == 1 ? value : mostIterations + 1;
}

/// The parameters of an algorithm, decoded as `Item` says; null when they are something else.
template <class T, auto Free> Owned<T, Free> parametersOf(const X509_ALGOR* algorithm, const ASN1_ITEM* item) noexcept {
    return Owned<T, Free>(static_cast<T*>(ASN1_TYPE_unpack_sequence(item, algorithm->parameter)));
}

/// Adds up what the parts of a structure ask for.
class Work {
public:
    explicit Work(const std::string& password) noexcept : m_password(password) {}

    [[nodiscard]] bool isAffordable() const noexcept { return m_iterations <= mostIterations; }

    void addSafe(const PKCS7* safe) noexcept {
        if (PKCS7_type_is_data(safe)) {
            addBags(BagsPtr(PKCS12_unpack_p7data(const_cast<PKCS7*>(safe))).get());
        } else if (PKCS7_type_is_encrypted(safe) && safe->d.encrypted != nullptr &&
                   safe->d.encrypted->enc_data != nullptr) {
            addAlgorithm(safe->d.encrypted->enc_data->algorithm);
            if (isAffordable()) {
                addBags(BagsPtr(PKCS12_unpack_p7encdata(const_cast<PKCS7*>(safe), m_password.c_str(), -1)).get());
            }
        }
    }

private:
    void add(std::int64_t iterations) noexcept {
        if (isAffordable() && iterations > 0) {
            m_iterations += iterations <= mostIterations ? iterations : mostIterations + 1;
        }
    }

    void addAlgorithm(const X509_ALGOR* algorithm) noexcept {
        if (algorithm == nullptr) {
            return;
        }
        if (OBJ_obj2nid(algorithm->algorithm) != NID_pbes2) {
            if (const auto scheme = parametersOf<PBEPARAM, PBEPARAM_free>(algorithm, ASN1_ITEM_rptr(PBEPARAM))) {
                add(valueOf(scheme->iter));
            }
        } else if (const auto scheme = parametersOf<PBE2PARAM, PBE2PARAM_free>(algorithm, ASN1_ITEM_rptr(PBE2PARAM))) {
            addDerivation(scheme->keyfunc);
        }
    }

    void addDerivation(const X509_ALGOR* function) noexcept {
        const int nid = OBJ_obj2nid(function->algorithm);
        if (nid == NID_id_pbkdf2) {
            if (const auto with = parametersOf<PBKDF2PARAM, PBKDF2PARAM_free>(function, ASN1_ITEM_rptr(PBKDF2PARAM))) {
                add(valueOf(with->iter));
            }
        } else if (nid == NID_id_scrypt) {
            // The product of its three numbers takes about as long as so many iterations of the others.
            if (const auto with =
                    parametersOf<SCRYPT_PARAMS, SCRYPT_PARAMS_free>(function, ASN1_ITEM_rptr(SCRYPT_PARAMS))) {
                std::int64_t product = 0;
                if (__builtin_mul_overflow(valueOf(with->costParameter), valueOf(with->blockSize), &product) ||
                    __builtin_mul_overflow(product, valueOf(with->parallelizationParameter), &product)) {
                    product = mostIterations + 1;
                }
                add(product);
            }
        }
    }

    /// Nested as deep as OpenSSL decodes, which bounds it.
    void addBags(const STACK_OF(PKCS12_SAFEBAG) * bags) noexcept {
        for (int i = 0; i < sk_PKCS12_SAFEBAG_num(bags); ++i) {
            const PKCS12_SAFEBAG* bag = sk_PKCS12_SAFEBAG_value(bags, i);
            const int nid = PKCS12_SAFEBAG_get_nid(bag);
            if (nid == NID_pkcs8ShroudedKeyBag) {
                const X509_ALGOR* algorithm = nullptr;
                X509_SIG_get0(PKCS12_SAFEBAG_get0_pkcs8(bag), &algorithm, nullptr);
                addAlgorithm(algorithm);
            } else if (nid == NID_safeContentsBag) {
                addBags(PKCS12_SAFEBAG_get0_safes(bag));
            }
        }
    }

    const std::string& m_password;
    std::int64_t m_iterations = 0;
};

} // namespace

bool isMacAffordable(const PKCS12_st* structure) noexcept {
    const ErrorMark mark;
    const ASN1_INTEGER* iterations = nullptr;
    PKCS12_get0_mac(nullptr, nullptr, nullptr, &iterations, structure);
    return valueOf(iterations) <= mostIterations;
}

bool isContentAffordable(const PKCS12_st* structure, const std::string& password) noexcept {
    const ErrorMark mark;
    Work work(password);
    const SafesPtr safes(PKCS12_unpack_authsafes(structure));
    for (int i = 0; i < sk_PKCS7_num(safes.get()) && work.isAffordable(); ++i) {
        work.addSafe(sk_PKCS7_value(safes.get(), i));
    }
    return work.isAffordable();
}

} // namespace Norvane::Crypto::openssl
