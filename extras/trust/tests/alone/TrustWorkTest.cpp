// What strangers can make a judgement cost, counted in calls of OpenSSL's and libidn2's functions.

#include "../Chains.h"
#include "../Extensions.h"
#include "support/Interpose.h"
#include "support/TemporaryFolder.h"

#include <norvcrypto-trust/TrustSender.h>

#include <gmock/gmock.h>

#include <openssl/core_names.h>
#include <openssl/param_build.h>
#include <openssl/x509v3.h>

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <idn2.h>
#include <netdb.h>
#include <optional>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace trusttesting;

namespace {

int s_signatures = 0;                         // of certificates that were checked
int s_lists = 0;                              // signatures of lists that were checked
int s_compared = 0;                           // general names
int s_names = 0;                              // distinguished names that were compared
int s_idn = 0;                                // domains that were converted
int s_sockets = 0;                            // that were opened, and hosts that were looked up
int s_decoded = 0;                            // certificates
int s_verified = 0;                           // chains
int s_pushed = 0;                             // onto stacks, among them that of the candidates
int s_copied = 0;                             // certificates, which counts no pushes
constexpr int refusedTwice = 2;               // a refusal is reached a second time before it is believed
std::optional<int> s_freeDescriptors;         // how many files may still be opened
std::optional<std::pair<int, int>> s_failure; // what OpenSSL answers and gives as error, when it fails in silence
std::optional<int> s_then;                    // the error that it gives from the second time on
int s_failures = -1;                          // how many times it does so; negative: each time

} // namespace

extern "C" {

int openat(int folder, const char* name, int flags, ...) {
    if (s_freeDescriptors && (*s_freeDescriptors)-- <= 0) {
        errno = EMFILE;
        return -1;
    }
    return norvtest::next<&openat>("openat")(folder, name, flags);
}

int X509_verify(X509* certificate, EVP_PKEY* key) {
    ++s_signatures;
    return norvtest::next<&X509_verify>("X509_verify")(certificate, key);
}

int X509_CRL_verify(X509_CRL* list, EVP_PKEY* key) {
    ++s_lists;
    return norvtest::next<&X509_CRL_verify>("X509_CRL_verify")(list, key);
}

X509* X509_dup(const X509* certificate) {
    ++s_copied;
    const norvtest::During<int> pushed(s_pushed, s_pushed);
    return norvtest::next<&X509_dup>("X509_dup")(certificate);
}

int X509_verify_cert(X509_STORE_CTX* context) {
    ++s_verified;
    if (s_failure && s_failures != 0) {
        --s_failures;
        X509_STORE_CTX_set_error(context, s_failure->second);
        const int answer = s_failure->first;
        if (s_then) {
            s_failure->second = *std::exchange(s_then, std::nullopt);
        }
        return answer;
    }
    return norvtest::next<&X509_verify_cert>("X509_verify_cert")(context);
}

int X509_NAME_cmp(const X509_NAME* a, const X509_NAME* b) {
    ++s_names;
    return norvtest::next<&X509_NAME_cmp>("X509_NAME_cmp")(a, b);
}

int GENERAL_NAME_cmp(GENERAL_NAME* a, GENERAL_NAME* b) {
    ++s_compared;
    return norvtest::next<&GENERAL_NAME_cmp>("GENERAL_NAME_cmp")(a, b);
}

int OPENSSL_sk_push(OPENSSL_STACK* stack, const void* one) {
    ++s_pushed;
    return norvtest::next<&OPENSSL_sk_push>("OPENSSL_sk_push")(stack, one);
}

X509* d2i_X509(X509** into, const unsigned char** at, long length) {
    ++s_decoded;
    return norvtest::next<&d2i_X509>("d2i_X509")(into, at, length);
}

int socket(int domain, int type, int protocol) {
    ++s_sockets;
    return norvtest::next<&socket>("socket")(domain, type, protocol);
}

int getaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** found) {
    ++s_sockets;
    return norvtest::next<&getaddrinfo>("getaddrinfo")(host, service, hints, found);
}

int idn2_to_ascii_8z(const char* input, char** output, int flags) {
    ++s_idn;
    return norvtest::next<&idn2_to_ascii_8z>("idn2_to_ascii_8z")(input, output, flags);
}

} // extern "C"

namespace {

using Code = ReasonCode;

class TrustWork : public TrustTest {
protected:
    void SetUp() override {
        TrustTest::SetUp();
        s_signatures = s_lists = s_compared = s_names = s_idn = s_decoded = s_verified = 0;
    }
};

/// A certificate of a name with a serial number of its own, signed by nobody: signing thousands takes long.
Identity unsignedCopy(const Identity& of, unsigned int number) {
    Identity copy = of;
    // The last octets of the signature; the certificate decodes and is another one.
    auto& der = copy.certificate.der;
    der[der.size() - 1] = static_cast<unsigned char>(number);
    der[der.size() - 2] = static_cast<unsigned char>(number >> 8U);
    return copy;
}

TEST_F(TrustWork, ThousandsOfIssuersOfOneName) {
    Case one = chain();
    const Identity anna = user(m_middle);
    one.certificates.clear();
    for (unsigned int i = 0; i < 2500; ++i) {
        one.message(unsignedCopy(m_middle, i));
    }
    s_names = s_signatures = s_pushed = s_copied = 0;
    const Verdict verdict = one.judge(anna);
    EXPECT_FALSE(verdict.accepted);
    EXPECT_GE(s_pushed, refusedTwice * 4 * 60);
    EXPECT_EQ(s_copied, 1 + 64) << "what is no candidate is not decoded anew";
    EXPECT_EQ(find(verdict.notes, Code::tooManyCertificates).text,
              "the message has 2500 certificates, of which the first ones were looked at");
    EXPECT_LE(s_pushed, refusedTwice * 1000)
        << "64 of one name: OpenSSL compares all of them with each certificate of the chain";
    EXPECT_TRUE(verdict.mentions(Code::tooManyCertificates));
    // OpenSSL takes the first that fits, and is asked for four ways; names are compared by sorting them.
    EXPECT_EQ(s_signatures, refusedTwice * 4 * 2);
    EXPECT_GT(s_names, 0);
    EXPECT_LE(s_names, 200000);
    one.message(m_middle);
    EXPECT_TRUE(one.judge(anna).mentions(Code::tooManyCertificates));
}

/// Sorted once for OpenSSL and once here, not for each that is added.
TEST_F(TrustWork, HundredsOfAnchors) {
    constexpr int many = 500;
    Case one;
    std::vector<Identity> anchors;
    for (int i = 0; i < many; ++i) {
        anchors.push_back(authority("Anchor " + std::to_string(i), 0));
        one.anchor(anchors.back());
    }
    one.anchor(anchors.front());
    s_names = 0;
    EXPECT_EQ(one.material->counts().anchors, static_cast<std::size_t>(many));
    EXPECT_GT(s_names, many);
    EXPECT_LE(s_names, 2 * 9 * many) << "2^9 are more";
    s_names = 0;
    for (const std::size_t which : {0U, 250U, 499U}) {
        EXPECT_EQ(shown(one.judge(user(anchors[which]))), "accepted ");
    }
    EXPECT_LE(s_names, 3 * 500);
}

TEST_F(TrustWork, WhatOpenSslRefusesInSilenceIsRefused) {
    const Identity anna = user(m_middle);
    for (const auto& [answer, error] :
         {std::pair{0, X509_V_ERR_APPLICATION_VERIFICATION}, {-1, X509_V_ERR_OUT_OF_MEM}, {0, X509_V_OK}}) {
        s_failure.emplace(answer, error);
        const Verdict verdict = chain().judge(anna);
        s_failure.reset();
        EXPECT_EQ(shown(verdict), "refused other 0") << answer;
        EXPECT_THAT(verdict.reasons.at(0).text, testing::HasSubstr("CN=Anna is refused: "));
    }
}

// Without memory OpenSSL may call anything wrong and say nothing of it.
TEST_F(TrustWork, ARefusalThatIsNoneTheSecondTimeIsWantOfMemory) {
    const Identity anna = user(m_middle);
    s_failure.emplace(0, X509_V_ERR_APPLICATION_VERIFICATION);
    s_failures = 1;
    EXPECT_THROW(static_cast<void>(chain().judge(anna)), std::bad_alloc);
    s_failure.reset();
    s_failures = -1;
    EXPECT_TRUE(chain().judge(anna).accepted);
}

TEST_F(TrustWork, NorIsARefusalInOtherWordsTheSecondTime) {
    const Identity anna = user(m_middle);
    s_failure.emplace(0, X509_V_ERR_APPLICATION_VERIFICATION);
    s_then = X509_V_ERR_UNNESTED_RESOURCE;
    EXPECT_THROW(static_cast<void>(chain().judge(anna)), std::bad_alloc);
    EXPECT_EQ(shown(chain().judge(anna)), "refused other 0") << "now it says the same each time";
    s_failure.reset();
}

TEST_F(TrustWork, WhatTheMaterialHoldsIsNotDecodedAnew) {
    const Identity old = user(m_middle, {.notAfter = Time::fromNow(-day)});
    Case one;
    one.anchor(m_root);
    one.material->addUntrusted(read(m_middle));
    const RefCertificate olds = read(old);
    one.material->addUntrusted(olds);
    s_copied = 0;
    EXPECT_EQ(shown(Verifier(one.material).judge(olds, {}, {}, one.options)), "refused certificate-expired 0");
    EXPECT_EQ(s_copied, 0);
    EXPECT_EQ(shown(one.judge(old)), "refused certificate-expired 0");
    EXPECT_EQ(s_copied, 1) << "a handle of its own";
}

/// Another way is tried where somebody else of the name is there, and might help.
TEST_F(TrustWork, WaysThatWouldNotHelpAreNotTried) {
    const auto ways = [](const Case& one, const Identity& who) {
        s_verified = 0;
        EXPECT_FALSE(one.judge(who).accepted);
        return s_verified / refusedTwice;
    };
    const Identity forged = user(m_middle, {.signingKey = key(7)});
    EXPECT_EQ(ways(chain(), forged), 1) << "nobody else has the name";
    Case other = chain();
    EXPECT_EQ(ways(other.message(authority("Elsewhere", 5)), forged), 1);
    Case namesake = chain();
    namesake.message(authority("Middle", 1, &m_root, {.serial = "b3"}));
    EXPECT_EQ(ways(namesake, forged), 2);
    EXPECT_EQ(ways(namesake, user(m_middle, {.notAfter = Time::fromNow(-day)})), 1)
        << "another issuer makes it no younger";
    EXPECT_EQ(ways(namesake, user(m_middle, {.signingKey = key(7), .notAfter = Time::fromNow(-day)})), 1);
    // Nor does the namesake of an anchor, which is no candidate.
    Case anchored;
    anchored.anchor(m_root).message(authority("Root", 6));
    EXPECT_EQ(ways(anchored, user(m_root, {.signingKey = key(7)})), 1);
    // The same certificate again is nobody else.
    Case twice = chain();
    EXPECT_EQ(ways(twice.message(m_middle), forged), 1);
}

/// The distribution points of a certificate may name thousands who issue lists.
TEST_F(TrustWork, ThousandsWhoAreNamedForLists) {
    std::vector<GeneralName> issuers;
    for (int i = 0; i < 5000; ++i) {
        issuers.push_back(GeneralName::directory({{"CN", "Lister " + std::to_string(i)}}));
    }
    const Identity anna =
        user(m_middle, {.crlDistributionPoints = {
                            {norvauthority::DistributionPointName{{GeneralName::uri("http://a/1")}}, {}, issuers}}});
    const RefCertificate annas = read(anna);
    Case one = chain();
    one.required().known(list(m_middle)).known(list(m_root));
    static_cast<void>(one.material->counts());
    s_names = 0;
    EXPECT_TRUE(Verifier(one.material).judge(annas, one.certificates, {}, one.options).accepted);
    EXPECT_GT(s_names, 0);
    EXPECT_LT(s_names, 15000) << "OpenSSL compares each with two lists; sixteen are looked for here";
}

TEST_F(TrustWork, IssuersThatIssueEachOther) {
    // Two authorities, each of which has certificates of the other, again and again.
    Case one;
    const Identity a = authority("A", 2);
    const Identity b = authority("B", 3, &a);
    for (unsigned int i = 0; i < 20; ++i) {
        const std::string serial = std::to_string(1000 + i);
        one.message(authority("A", 2, &b, {.serial = serial})).message(authority("B", 3, &a, {.serial = serial}));
    }
    s_signatures = s_verified = 0;
    const Verdict verdict = one.judge(user(a));
    EXPECT_FALSE(verdict.accepted);
    EXPECT_TRUE(verdict.has(Code::chainTooLong) || verdict.has(Code::issuerMissing)) << shown(verdict);
    EXPECT_LE(verdict.chain.size(), 34U) << "the default depth";
    EXPECT_GT(s_signatures, 1);
    EXPECT_LE(s_signatures, refusedTwice * 4 * 34);
    EXPECT_LE(s_verified, refusedTwice * 4) << "four ways are tried, unless another one would take too long";
}

TEST_F(TrustWork, ACertificateInTheMessageAgainAndAgain) {
    Case one = chain();
    for (int i = 0; i < 200; ++i) {
        one.certificates.push_back(read(m_middle));
    }
    s_signatures = 0;
    EXPECT_TRUE(one.judge(user(m_middle)).accepted);
    EXPECT_EQ(s_signatures, 2);
}

/// An RSA key whose exponent is its modulus; only its public half is ever used.
norvauthority::Key withHugeExponent() {
    const auto rsa = norvauthority::Key::fromPem(norvtest::storedKeyPem("alice"));
    BIGNUM* modulus = nullptr;
    EVP_PKEY_get_bn_param(rsa.get(), OSSL_PKEY_PARAM_RSA_N, &modulus);
    OSSL_PARAM_BLD* numbers = OSSL_PARAM_BLD_new();
    OSSL_PARAM_BLD_push_BN(numbers, OSSL_PKEY_PARAM_RSA_N, modulus);
    OSSL_PARAM_BLD_push_BN(numbers, OSSL_PKEY_PARAM_RSA_E, modulus);
    OSSL_PARAM* parameters = OSSL_PARAM_BLD_to_param(numbers);
    EVP_PKEY_CTX* context = EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr);
    EVP_PKEY* key = nullptr;
    EVP_PKEY_fromdata_init(context);
    EVP_PKEY_fromdata(context, &key, EVP_PKEY_PUBLIC_KEY, parameters);
    const auto result = norvauthority::Key::of(key);
    EVP_PKEY_free(key);
    EVP_PKEY_CTX_free(context);
    OSSL_PARAM_free(parameters);
    OSSL_PARAM_BLD_free(numbers);
    BN_free(modulus);
    return result;
}

TEST_F(TrustWork, KeysWithHugeExponentsAreNotUsed) {
    const auto huge = withHugeExponent();
    const Identity middle = authority("Huge", 1, &m_root, {.key = huge});
    CertificateRequest request;
    request.signingKey = norvauthority::Key::fromPem(norvtest::storedKeyPem("alice"));
    const Identity anna = user(middle, request);
    Case one;
    one.anchor(m_root).message(middle);
    s_signatures = 0;
    const Verdict verdict = one.judge(anna);
    EXPECT_EQ(shown(verdict), "refused key-too-large 1");
    EXPECT_THAT(verdict.reasons[0].text, testing::HasSubstr("RSA with an exponent of 2048 bits"));
    EXPECT_EQ(s_signatures, 0);
    // As the key of the judged one it is refused, too: the caller would use it next.
    EXPECT_EQ(shown(one.judge(user(m_root, {.key = huge}))), "refused key-too-large 0");
    // What the operator put there is used.
    one.material->addUntrusted(read(middle));
    EXPECT_FALSE(one.judge(anna).has(Code::keyTooLarge));
}

TEST_F(TrustWork, AllKeysOfAChainTogether) {
    // Each is one that may be used.
    const auto big = norvauthority::Key::ec("P-521");
    Case one;
    one.anchor(m_root);
    Identity last = m_root;
    for (int i = 0; i < 18; ++i) {
        last = authority("Level " + std::to_string(i), 1, &last, {.key = big});
        one.message(last);
    }
    const Identity anna = user(last);
    s_signatures = 0;
    const Verdict verdict = one.judge(anna);
    EXPECT_EQ(shown(verdict), "refused too-much-work 0");
    EXPECT_EQ(s_signatures, 0);
}

std::vector<GeneralName> addresses(int count) {
    std::vector<GeneralName> names;
    for (int i = 0; i < count; ++i) {
        names.push_back(GeneralName::email("a" + std::to_string(i) + "@example.org"));
    }
    return names;
}

TEST_F(TrustWork, NamesTimesConstraints) {
    const auto judged = [this](int names, int constraints) {
        const Identity middle = authority(
            "Middle", 1, &m_root, {.extensions = {{"2.5.29.30", nameConstraints({}, addresses(constraints)), true}}});
        Case one;
        one.anchor(m_root).message(middle);
        s_signatures = 0;
        return one.judge(user(middle, {.alternativeNames = {addresses(names)}}));
    };
    EXPECT_EQ(shown(judged(200, 100)), "refused name-excluded 0");
    const Verdict verdict = judged(1000, 300);
    EXPECT_TRUE(verdict.has(Code::tooMuchWork)) << shown(verdict);
    EXPECT_FALSE(verdict.accepted);
    EXPECT_EQ(s_signatures, 0) << "nothing was begun";
}

TEST_F(TrustWork, LongNamesTimesConstraints) {
    // Fewer pairs, each of which takes long.
    const std::string tail = "@" + std::string(60000, 'x');
    const Identity middle =
        authority("Middle", 1, &m_root, {.extensions = {{"2.5.29.30", nameConstraints({}, addresses(2000)), true}}});
    Case one;
    one.anchor(m_root).message(middle);
    const Verdict verdict =
        one.judge(user(middle, {.alternativeNames = {GeneralName::email("a" + tail), GeneralName::email("b" + tail)}}));
    EXPECT_TRUE(verdict.has(Code::tooMuchWork)) << shown(verdict);
}

TEST_F(TrustWork, DistributionPointsTimesNamesOfLists) {
    // Whoever has a certificate of an authority may sign lists whose names are compared with those of a certificate.
    norvauthority::DistributionPoint point;
    point.name.emplace();
    for (int i = 0; i < 2000; ++i) {
        point.name->full.push_back(GeneralName::uri("http://a" + std::to_string(i)));
    }
    CrlRequest request;
    request.scope.emplace();
    request.scope->name.emplace();
    for (int i = 0; i < 2000; ++i) {
        request.scope->name->full.push_back(GeneralName::uri("http://b" + std::to_string(i)));
    }
    Case one = chain();
    one.options.revocation = Revocation::available;
    one.lists.push_back(read(list(m_middle, request)));
    s_compared = 0;
    const Verdict verdict = one.judge(user(m_middle, {.crlDistributionPoints = {point}}));
    EXPECT_LT(s_compared, 100000) << "four million pairs; they are put in order where they are shown";
    EXPECT_TRUE(verdict.mentions(Code::listNotUsed)) << codesOf(verdict.notes);
    EXPECT_EQ(shown(verdict), "accepted ");
    one.options.revocation = Revocation::required;
    EXPECT_FALSE(one.judge(user(m_middle, {.crlDistributionPoints = {point}})).accepted);
}

TEST_F(TrustWork, NamesBehindAValueThatIsNoEncodingAreCounted) {
    norvauthority::DistributionPoint point;
    point.name.emplace();
    point.name->full = addresses(2000);
    const auto noEncoding = GeneralName::otherName("1.2.3.4", norvauthority::fromHex("30020480"));
    point.name->full.insert(point.name->full.begin(), noEncoding);
    CrlRequest request;
    request.scope.emplace();
    request.scope->name.emplace();
    request.scope->name->full.push_back(noEncoding);
    for (int i = 0; i < 2000; ++i) {
        request.scope->name->full.push_back(GeneralName::uri("http://b" + std::to_string(i)));
    }
    Case one = chain();
    one.options.revocation = Revocation::available;
    one.lists.push_back(read(list(m_middle, request)));
    const Verdict verdict = one.judge(user(m_middle, {.crlDistributionPoints = {point}}));
    EXPECT_TRUE(verdict.mentions(Code::listNotUsed)) << codesOf(verdict.notes);
}

TEST_F(TrustWork, ManyListsInAMessage) {
    Case one = chain();
    one.options.revocation = Revocation::available;
    const auto same = list(m_middle);
    for (int i = 0; i < 300; ++i) {
        one.lists.push_back(read(same));
    }
    s_lists = 0;
    const Verdict verdict = one.judge(user(m_middle));
    EXPECT_EQ(shown(verdict), "accepted ");
    EXPECT_LE(s_lists, 101) << "a hundred are looked at, and the one that is used once more";
    EXPECT_TRUE(verdict.mentions(Code::listNotUsed));
    // Lists of others cost nothing.
    one.lists.assign(300, read(list(authority("Elsewhere", 5))));
    s_lists = 0;
    static_cast<void>(one.judge(user(m_middle)));
    EXPECT_EQ(s_lists, 0);
}

TEST_F(TrustWork, AChainThatNobodyBelievesHasNoListsLookedAt) {
    Case one;
    const Identity root = authority("Stranger", 5);
    one.message(root).required();
    one.lists.push_back(read(list(root)));
    EXPECT_EQ(shown(one.judge(user(root))), "refused root-not-trusted 1");
    EXPECT_EQ(s_lists, 0);
    // Nor one that is believed by its names alone.
    const Identity forged = authority("Forged", 2, &m_root, {.signingKey = key(7)});
    Case other;
    other.anchor(m_root).message(forged).required();
    other.lists.push_back(read(list(forged)));
    EXPECT_EQ(shown(other.judge(user(forged))), "refused signature-wrong 1");
    EXPECT_EQ(s_lists, 0);
}

std::size_t s_allocations = 0;

void* counted(std::size_t size, const char* /*file*/, int /*line*/) {
    ++s_allocations;
    return std::malloc(size);
}
void* countedAgain(void* memory, std::size_t size, const char* /*file*/, int /*line*/) {
    ++s_allocations;
    return std::realloc(memory, size);
}
void released(void* memory, const char* /*file*/, int /*line*/) {
    std::free(memory);
}
const int s_counting = CRYPTO_set_mem_functions(counted, countedAgain, released);

TEST_F(TrustWork, AHugeListIsLookedThroughOnce) {
    ASSERT_EQ(s_counting, 1);
    CrlRequest request;
    request.numbered = 100000;
    Case one = chain();
    one.required().known(list(m_root)).known(list(m_middle, request));
    static_cast<void>(one.material->counts());
    const Identity anna = user(m_middle, {.serial = "fffffffff"});
    const Identity revoked = user(m_middle, {.serial = "7"});
    const RefCertificate annas = read(anna);
    const Verifier verifier(one.material);
    s_allocations = 0;
    EXPECT_TRUE(verifier.judge(annas, one.certificates, {}, one.options).accepted);
    EXPECT_LT(s_allocations, 20000U) << "none for each entry";
    EXPECT_EQ(shown(one.judge(revoked)), "refused revoked 0");
    s_lists = 0;
    s_allocations = 0;
    EXPECT_TRUE(verifier.judge(annas, one.certificates, {}, one.options).accepted);
    EXPECT_EQ(s_lists, 0) << "kept";
    EXPECT_LT(s_allocations, 200U);
}

TEST_F(TrustWork, PoliciesAndMappingsThatMultiply) {
    // Each level maps every policy to every other: without a bound the tree of policies grows by the power.
    std::vector<std::string> policies;
    std::vector<std::pair<std::string, std::string>> mappings;
    for (int i = 0; i < 20; ++i) {
        policies.push_back("1.2.3." + std::to_string(i));
        for (int j = 0; j < 20; ++j) {
            mappings.emplace_back("1.2.3." + std::to_string(i), "1.2.3." + std::to_string(j));
        }
    }
    Case one;
    one.anchor(m_root);
    Identity last = m_root;
    for (int i = 0; i < 12; ++i) {
        last = authority("Level " + std::to_string(i), 1, &last,
                         {.extensions = {{"2.5.29.32", certificatePolicies(policies)},
                                         {"2.5.29.33", policyMappings(mappings), true}}});
        one.message(last);
    }
    const Identity anna = user(last, {.extensions = {{"2.5.29.32", certificatePolicies({policies.front()})}}});
    const RefCertificate annas = read(anna);
    one.options.policies = {policies.front()};
    s_allocations = 0;
    const Verdict verdict = Verifier(one.material).judge(annas, one.certificates, {}, one.options);
    EXPECT_EQ(shown(verdict), "refused too-much-work 0");
    EXPECT_LT(s_allocations, 100000U);
}

TEST_F(TrustWork, DomainsAreConvertedAThousandTimesAtMost) {
    std::vector<GeneralName> names;
    for (int i = 0; i < 3000; ++i) {
        names.push_back(GeneralName::otherName(
            "1.3.6.1.5.5.7.8.9",
            norvauthority::der::element(0x0C,
                                        norvauthority::bytes("\xC3\xA4@b\xC3\xBC" + std::to_string(i) + ".example"))));
    }
    const RefCertificate many = read(user(m_root, {.alternativeNames = names}));
    s_idn = 0;
    EXPECT_FALSE(matchSender(many, {"\xC3\xA4@b\xC3\xBC"
                                    "2999.example"})
                     .matches());
    EXPECT_LE(s_idn, 1001);
}

TEST_F(TrustWork, FilesThatDidNotChangeAreNotDecodedAgain) {
    const norvtest::TemporaryFolder folder;
    const std::string path = folder.write("roots.pem", m_root.certificate.pem() + m_middle.certificate.pem());
    const std::string other = folder.write("other.pem", authority("Other", 4).certificate.pem());
    // A file that changed within the last seconds might change once more and keep its times; ctime is the file system's own,
    // so that this waits it out.
    const auto settled = [](const std::string& name) {
        struct stat status {};
        return stat(name.c_str(), &status) == 0 && std::time(nullptr) > status.st_ctim.tv_sec + 2;
    };
    while (!settled(path) || !settled(other)) {
        usleep(50000);
    }
    Material material;
    material.addAnchors(folder.path());
    EXPECT_EQ(material.counts().anchors, 3U);
    s_decoded = 0;
    material.reload();
    EXPECT_EQ(s_decoded, 0);
    folder.write("other.pem", authority("Another", 4).certificate.pem());
    s_decoded = 0;
    material.reload();
    EXPECT_EQ(s_decoded, 1);
    EXPECT_EQ(material.counts().anchors, 3U);
}

/// Certificates and lists say where more of them is to be found: nobody goes there.
TEST_F(TrustWork, NothingIsFetched) {
    namespace der = norvauthority::der;
    const GeneralName place = GeneralName::uri("http://127.0.0.1:1/what.der");
    // AuthorityInfoAccess (RFC 5280, 4.2.2.1): caIssuers and ocsp.
    const auto access = [&](const char* method) { return der::sequence({der::oid(method), place.der}); };
    const norvauthority::Bytes information =
        der::sequence({access("1.3.6.1.5.5.7.48.2"), access("1.3.6.1.5.5.7.48.1")});
    const norvauthority::DistributionPoint point{norvauthority::DistributionPointName{{place}}};
    const Identity anna = user(m_middle, {.crlDistributionPoints = {point},
                                          .extensions = {{"1.3.6.1.5.5.7.1.1", information},
                                                         {"2.5.29.46", norvauthority::distributionPoints({point})}}});
    s_sockets = 0;
    Case one;
    one.anchor(m_root).required();
    EXPECT_EQ(shown(one.judge(anna)), "refused issuer-missing 0");
    one.message(m_middle);
    EXPECT_EQ(shown(one.judge(anna)), "refused list-missing 0, list-missing 1");
    EXPECT_TRUE(matchSender(read(anna), {"anna@example.org"}).matches());
    EXPECT_EQ(s_sockets, 0);
    const int probe = socket(AF_INET, SOCK_STREAM, 0); // what counts, counts
    EXPECT_EQ(s_sockets, 1);
    close(probe);
}

/// Without numbers for files a load fails as a whole: anchors that nothing is wrong with would be lost.
TEST_F(TrustWork, WithoutFreeDescriptorsNothingIsLoadedInPart) {
    const norvtest::TemporaryFolder folder;
    folder.write("a.pem", authority("One", 3).certificate.pem());
    folder.write("b.pem", authority("Other", 4).certificate.pem());
    constexpr int needed = 4; // the folder, its list and two files
    for (int free = 0; free <= needed; ++free) {
        Material material;
        const norvtest::During<std::optional<int>> few(s_freeDescriptors, free);
        if (free < needed) {
            EXPECT_THROW(material.addAnchors(folder.path()), Norvane::Exception) << free;
        } else {
            material.addAnchors(folder.path());
        }
        EXPECT_EQ(material.counts().anchors, free < needed ? 0U : 2U);
        EXPECT_TRUE(material.problems().empty());
    }
}

} // namespace
