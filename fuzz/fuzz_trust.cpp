// Verdicts over chains that strangers put together: four octets that choose what is asked, then certificates and lists. The
// first certificate is judged, the others came with it. When the first octet says so, each is signed anew with the key that all
// of them have, so that changes reach what is behind the signatures.
#include "Driver.h"
#include "TrustAnchor.h"
#include "differential/Tree.h"

#include "openssl/Pointers.h"

#include <norvcmsg/Escape.h>
#include <norvcrypto-trust/Trust.h>
#include <norvcrypto-trust/TrustSender.h>

#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <list>
#include <memory>
#include <optional>
#include <vector>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

constexpr std::time_t moment = 1798761600; // 1 January 2027

std::shared_ptr<Trust::Material> material() {
    static const std::shared_ptr<Trust::Material> made = [] {
        auto anchors = std::make_shared<Trust::Material>();
        anchors->addAnchor(NVX509::CertificateFactory()(fuzz::trustAnchor().certificate.x509().release(), true));
        return anchors;
    }();
    return made;
}

struct Given {
    std::list<NVX509::RefCertificate> certificates{};
    std::list<NVX509::RefCertificateRevocationList> lists{};
};

fuzz::Bytes signedAnew(const fuzz::Bytes& octets) {
    const unsigned char* at = octets.data();
    const openssl::CertificatePtr certificate(d2i_X509(nullptr, &at, static_cast<long>(octets.size())));
    at = octets.data();
    const openssl::CrlPtr list(certificate ? nullptr : d2i_X509_CRL(nullptr, &at, static_cast<long>(octets.size())));
    unsigned char* out = nullptr;
    int length = 0;
    if (certificate && X509_sign(certificate.get(), fuzz::trustKey().get(), EVP_sha256()) > 0) {
        length = i2d_X509(certificate.get(), &out);
    } else if (list && X509_CRL_sign(list.get(), fuzz::trustKey().get(), EVP_sha256()) > 0) {
        length = i2d_X509_CRL(list.get(), &out);
    }
    ERR_clear_error();
    fuzz::Bytes result = length > 0 ? fuzz::Bytes(out, out + length) : octets;
    OPENSSL_free(out);
    return result;
}

Given takeApart(const Buffer& input, bool signs) {
    Given given;
    fuzz::Bytes rest(input.data(), input.data() + input.length());
    for (int left = 30; left != 0 && !rest.empty(); --left) {
        const auto length = fuzz::elementLength(rest);
        if (!length) {
            break;
        }
        const auto end = rest.begin() + static_cast<std::ptrdiff_t>(*length);
        fuzz::Bytes one(rest.begin(), end);
        rest.erase(rest.begin(), end);
        if (signs) {
            one = signedAnew(one);
        }
        const Buffer octets(one.data(), static_cast<unsigned int>(one.size()), true);
        if (const auto certificate = NVX509::CertificateFactory().readDER(octets); !certificate.isNull()) {
            given.certificates.push_back(certificate);
        } else if (const auto list = NVX509::CertificateRevocationListFactory().readDER(octets); !list.isNull()) {
            given.lists.push_back(list);
        }
    }
    return given;
}

Trust::Options optionsOf(const std::uint8_t* choices) {
    Trust::Options options;
    options.at = moment;
    options.purpose = static_cast<Trust::Purpose>(choices[1] % 4);
    options.revocation = static_cast<Trust::Revocation>(choices[2] % 3);
    options.partialChain = (choices[2] & 0x80U) != 0;
    options.maximumDepth = choices[3] % 8;
    if ((choices[3] & 0x80U) != 0) {
        options.policies = {"1.2.3"};
    }
    return options;
}

/// Whether OpenSSL has the same chain good, asked for nothing more.
bool isGoodToOpenSsl(const Trust::Verdict& verdict) {
    const openssl::CertificatePtr anchor(fuzz::trustAnchor().certificate.x509().release());
    const std::unique_ptr<X509_STORE, decltype(&X509_STORE_free)> store(X509_STORE_new(), X509_STORE_free);
    X509_STORE_add_cert(store.get(), anchor.get());
    STACK_OF(X509)* untrusted = sk_X509_new_null();
    for (const NVX509::RefCertificate& one : verdict.chain) {
        sk_X509_push(untrusted, static_cast<X509*>(one));
    }
    const std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)> context(X509_STORE_CTX_new(),
                                                                                  X509_STORE_CTX_free);
    X509_STORE_CTX_init(context.get(), store.get(), static_cast<X509*>(verdict.chain.front()), untrusted);
    X509_STORE_CTX_set_time(context.get(), 0, moment);
    X509_VERIFY_PARAM_set_flags(X509_STORE_CTX_get0_param(context.get()), X509_V_FLAG_PARTIAL_CHAIN);
    const bool isGood = X509_verify_cert(context.get()) == 1;
    sk_X509_free(untrusted);
    ERR_clear_error();
    return isGood;
}

void check(const Trust::Verdict& verdict) {
    fuzz::require(verdict.accepted == verdict.reasons.empty());
    fuzz::require(verdict.links.size() == verdict.chain.size());
    for (const auto* reasons : {&verdict.reasons, &verdict.notes}) {
        for (const Trust::Reason& reason : *reasons) {
            fuzz::require(!reason.text.empty() && isDisplayable(reason.text) && isDisplayable(reason.advice));
            fuzz::require(reason.depth <= verdict.chain.size());
        }
    }
    if (verdict.accepted) {
        fuzz::require(!verdict.chain.empty() && verdict.links.back().anchor);
        const fuzz::Uncounted aside;
        fuzz::require(isGoodToOpenSsl(verdict));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 4) {
        return 0;
    }
    fuzz::start();
    const auto judge = [data](const Buffer& input) {
        std::optional<fuzz::Uncounted> aside{std::in_place}; // signing is the target's own work
        const Given given = takeApart(input, (data[0] & 1U) != 0);
        aside.reset();
        if (given.certificates.empty()) {
            return;
        }
        const NVX509::RefCertificate& first = given.certificates.front();
        const Trust::Verifier verifier(material());
        const Trust::Options options = optionsOf(data);
        const Trust::Verdict verdict = verifier.judge(first, given.certificates, given.lists, options);
        check(verdict);
        const Trust::Verdict again = verifier.judge(first, given.certificates, given.lists, options);
        fuzz::require(again.accepted == verdict.accepted && again.reasons.size() == verdict.reasons.size() &&
                      again.chain.size() == verdict.chain.size());
        static_cast<void>(Trust::matchSender(first, {"anna@example.org"}, "bob@example.org"));
    };
    // Each signature of `maximumVerdictWork` may be checked twice.
    return fuzz::run(data + 4, size - 4, judge,
                     {.constant = UINT64_C(8) * Trust::maximumVerdictWork * 2 * 16 * 16, .perOctet = 40'000});
}
