// Bounds of what a judgement takes, at them and one beyond: keys, their work, names and constraints.

#include "Chains.h"
#include "Extensions.h"

#include <gmock/gmock.h>

#include <openssl/core_names.h>
#include <openssl/dsa.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>

#include <map>

using namespace trusttesting;
using testing::HasSubstr;

namespace {

using Code = ReasonCode;
using norvauthority::Key;

using Number = std::unique_ptr<BIGNUM, decltype(&BN_free)>;

/// 2^(bits - 1) + 1.
Number numberOf(int bits) {
    Number number(BN_new(), &BN_free);
    BN_set_bit(number.get(), bits - 1);
    BN_set_bit(number.get(), 0);
    return number;
}

/// A public key of such numbers: nobody can sign with it.
Key publicKey(const char* type, const std::vector<std::pair<const char*, int>>& lengths) {
    OSSL_PARAM_BLD* building = OSSL_PARAM_BLD_new();
    std::vector<Number> numbers;
    for (const auto& [name, bits] : lengths) {
        numbers.push_back(numberOf(bits));
        OSSL_PARAM_BLD_push_BN(building, name, numbers.back().get());
    }
    OSSL_PARAM* parameters = OSSL_PARAM_BLD_to_param(building);
    EVP_PKEY_CTX* context = EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr);
    EVP_PKEY* key = nullptr;
    EVP_PKEY_fromdata_init(context);
    EVP_PKEY_fromdata(context, &key, EVP_PKEY_PUBLIC_KEY, parameters);
    EXPECT_NE(key, nullptr) << type;
    const Key result = Key::of(key);
    EVP_PKEY_free(key);
    EVP_PKEY_CTX_free(context);
    OSSL_PARAM_free(parameters);
    OSSL_PARAM_BLD_free(building);
    return result;
}

Key rsa(int modulus, int exponent) {
    return publicKey("RSA", {{OSSL_PKEY_PARAM_RSA_N, modulus}, {OSSL_PKEY_PARAM_RSA_E, exponent}});
}
Key dsa(int modulus, int order) {
    return publicKey("DSA", {{OSSL_PKEY_PARAM_FFC_P, modulus},
                             {OSSL_PKEY_PARAM_FFC_Q, order},
                             {OSSL_PKEY_PARAM_FFC_G, 2},
                             {OSSL_PKEY_PARAM_PUB_KEY, modulus - 1}});
}

class TrustLimits : public TrustTest {
protected:
    /// Authorities with this key, each below the one before; their signatures are of its kind, and forged.
    static Identity levels(std::size_t count, const Key& of, const Identity& root, Case& into) {
        Identity last = root;
        for (std::size_t i = 0; i < count; ++i) {
            CertificateRequest request{.key = of};
            if (i > 0 || EVP_PKEY_is_a(root.key.get(), "EC") != 1) {
                request.signingKey = signerFor(of);
            }
            last = authority("Level " + std::to_string(i), 0, &last, request);
            into.message(last);
        }
        return last;
    }
    static Key signerFor(const Key& of) {
        return EVP_PKEY_is_a(of.get(), "RSA") == 1 ? Key::fromPem(norvtest::storedKeyPem("alice")) : key(0);
    }
    [[nodiscard]] std::string judged(std::size_t count, const Key& of, Revocation revocation = Revocation::none,
                                     const Key& ofUser = {}) const {
        Case one;
        one.anchor(m_root);
        one.options.revocation = revocation;
        const Identity last = levels(count, of, m_root, one);
        const Verdict verdict = one.judge(user(last, {.key = ofUser, .signingKey = signerFor(of)}));
        EXPECT_EQ(verdict.chain.size(), count + 2);
        return verdict.has(Code::tooMuchWork) ? shown(verdict) : verdict.has(Code::signatureWrong) ? "done" : "other";
    }
    [[nodiscard]] Verdict judgedWith(const Key& of) const {
        Case one;
        one.anchor(m_root);
        one.options.purpose = Purpose::any;
        return one.judge(user(m_root, {.key = of}));
    }
};

/// A modulus of 16384 bits with an exponent of 64 is the largest key that is used.
TEST_F(TrustLimits, TheLargestKeys) {
    EXPECT_EQ(shown(judgedWith(rsa(16384, 64))), "accepted ");
    Verdict verdict = judgedWith(rsa(16384, 65));
    EXPECT_EQ(shown(verdict), "refused key-too-large 0");
    EXPECT_EQ(verdict.reasons[0].text, "the key of CN=Anna takes far too long to use: RSA with an exponent of 65 bits");
    EXPECT_EQ(shown(judgedWith(rsa(2048, 65))), "refused key-too-large 0");
    verdict = judgedWith(rsa(16385, 17));
    EXPECT_EQ(shown(verdict), "refused key-too-large 0");
    EXPECT_EQ(verdict.reasons[0].text, "the key of CN=Anna takes far too long to use: RSA, 16385 bits");
    // Squarings and multiplications for one and a half times the bits of the order.
    EXPECT_EQ(shown(judgedWith(dsa(8192, 160))), "accepted ");
    EXPECT_EQ(shown(judgedWith(dsa(8192, 170))), "accepted ");
    verdict = judgedWith(dsa(8192, 172));
    EXPECT_EQ(shown(verdict), "refused key-too-large 0");
    EXPECT_EQ(verdict.reasons[0].text, "the key of CN=Anna takes far too long to use: DSA, 8192 bits");
    EXPECT_EQ(shown(judgedWith(dsa(16385, 2))), "refused key-too-large 0");
    EXPECT_EQ(shown(judgedWith(dsa(16384, 43))), "accepted ") << "16384 to the unit";
    EXPECT_EQ(shown(judgedWith(dsa(16384, 44))), "refused key-too-large 0");
}

/// 131072 for one verdict, of which RSA with 16384 bits and an exponent of 64 takes an eighth, and the root 1024.
TEST_F(TrustLimits, AllKeysTogether) {
    const Key largest = rsa(16384, 64);
    EXPECT_EQ(judged(7, largest), "done");
    EXPECT_EQ(judged(8, largest), "refused too-much-work 0");
    EXPECT_EQ(judged(7, largest, Revocation::none, largest), "done") << "with its own key nothing is checked";
    Case one;
    one.anchor(m_root);
    const Identity seventh = levels(7, largest, m_root, one);
    const Identity light = authority("Light", 3, &seventh, {.signingKey = signerFor(largest)});
    one.message(light);
    EXPECT_FALSE(one.judge(user(light, {.key = largest})).has(Code::tooMuchWork)) << "but its issuer's";
    // To the unit: the root, too, is such a one.
    const Identity large = authority("Large root", 0, nullptr, {.key = largest, .signingKey = signerFor(largest)});
    Case exact;
    exact.anchor(large);
    exact.options.partialChain = true;
    const Identity lowest = levels(7, largest, large, exact);
    const Verdict verdict = exact.judge(user(lowest, {.signingKey = signerFor(largest)}));
    EXPECT_EQ(verdict.chain.size(), 9U);
    EXPECT_FALSE(verdict.has(Code::tooMuchWork));
    // Each is used twice when lists are looked at.
    EXPECT_EQ(judged(3, largest, Revocation::available), "done");
    EXPECT_EQ(judged(4, largest, Revocation::available), "refused too-much-work 0");
    EXPECT_EQ(judged(3, largest, Revocation::required), "done");
    // Fifteen signatures with keys on P-521.
    const Key curve = Key::ec("P-521");
    EXPECT_EQ(judged(15, curve), "done");
    EXPECT_EQ(judged(16, curve), "refused too-much-work 0");
}

/// The keys of every way count: one that breaks may be followed by another one.
TEST_F(TrustLimits, AllWaysTogether) {
    const auto isAccepted = [this](std::size_t count) {
        Case one;
        one.anchor(m_root);
        Identity last = m_root;
        for (std::size_t i = 0; i < count; ++i) {
            last = authority("Level " + std::to_string(i), 0, &last, {.key = Key::ec("P-521")});
            one.message(last);
        }
        const auto middle = [&](const std::string& serial, std::size_t number) {
            return authority("Middle", number, &last,
                             {.serial = serial, .subjectKeyIdentifier = false, .authorityKeyIdentifier = false});
        };
        const Identity right = middle("c2", 4);
        one.message(middle("c1", 3)).message(right);
        return one.judge(user(right, {.subjectKeyIdentifier = false, .authorityKeyIdentifier = false})).accepted;
    };
    EXPECT_TRUE(isAccepted(7));
    EXPECT_FALSE(isAccepted(8)) << "each takes 8631";
}

/// 2^18 pairs of a name and a constraint: 512 names, the subject and its attribute among them, by 512 constraints.
TEST_F(TrustLimits, PairsOfNamesAndConstraints) {
    const auto addresses = [](std::size_t count) {
        std::vector<GeneralName> names;
        for (std::size_t i = 0; i < count; ++i) {
            names.push_back(GeneralName::email("a" + std::to_string(i) + "@example.org"));
        }
        return names;
    };
    const Identity middle =
        authority("Middle", 1, &m_root, {.extensions = {{"2.5.29.30", nameConstraints({}, addresses(512)), true}}});
    Case one;
    one.anchor(m_root).message(middle);
    EXPECT_EQ(shown(one.judge(user(middle, {.alternativeNames = addresses(510)}))), "refused name-excluded 0");
    const Verdict verdict = one.judge(user(middle, {.alternativeNames = addresses(511)}));
    EXPECT_EQ(shown(verdict), "refused too-much-work 0");
    EXPECT_THAT(verdict.reasons[0].text, HasSubstr("too many to compare"));
}

/// OpenSSL sorts the policies of a certificate anew for each: 2048 of one are looked at, or as many as take as long. 16,000 in 128 KB, in
/// a certificate that nobody signed, took 13 seconds.
TEST_F(TrustLimits, PoliciesOfACertificate) {
    const auto policies = [](std::size_t count) {
        std::vector<std::string> all;
        for (std::size_t i = 0; i < count; ++i) {
            all.push_back("1.2.3." + std::to_string(i));
        }
        return certificatePolicies(all);
    };
    const auto mappings = [](std::size_t count) {
        std::vector<std::pair<std::string, std::string>> all;
        for (std::size_t i = 0; i < count; ++i) {
            all.emplace_back("1.2.3." + std::to_string(i), "1.2.4." + std::to_string(i));
        }
        return policyMappings(all);
    };
    const auto judgedWith = [&](std::size_t ofUser) {
        return chain().judge(user(m_middle, {.extensions = {{"2.5.29.32", policies(ofUser)}}}));
    };
    EXPECT_EQ(shown(judgedWith(2048)), "accepted ");
    const Verdict verdict = judgedWith(2049);
    EXPECT_EQ(shown(verdict), "refused too-much-work 0");
    EXPECT_THAT(verdict.reasons[0].text, HasSubstr("the policies of the chain are too many to compare"));
    const auto mapped = [&](std::size_t count) {
        const Identity middle =
            authority("Middle", 1, &m_root,
                      {.extensions = {{"2.5.29.32", policies(1024)}, {"2.5.29.33", mappings(count), true}}});
        Case one;
        one.anchor(m_root).message(middle);
        return shown(one.judge(user(middle)));
    };
    EXPECT_EQ(mapped(1024), "accepted ");
    EXPECT_EQ(mapped(1025), "refused too-much-work 0");
    // Of several certificates together: 1448 squared, twice, is 2^22 less 896. They have no policy in common with the upper one, so
    // that no tree is made of them, which would have its own bound.
    const Identity upper = authority("Upper", 2, &m_root, {.extensions = {{"2.5.29.32", policies(1)}}});
    const auto others = [&](std::size_t count) {
        std::vector<std::string> all;
        for (std::size_t i = 0; i < count; ++i) {
            all.push_back("1.2.5." + std::to_string(i));
        }
        return certificatePolicies(all);
    };
    const Identity middle = authority("Middle", 1, &upper, {.extensions = {{"2.5.29.32", others(1448)}}});
    const auto both = [&](std::size_t count) {
        Case one;
        one.anchor(m_root).message(upper).message(middle);
        return shown(one.judge(user(middle, {.extensions = {{"2.5.29.32", others(count)}}})));
    };
    EXPECT_EQ(both(1448), "accepted ");
    EXPECT_EQ(both(1449), "refused too-much-work 0");
}

/// 2^26 octets that comparing them may read: each constraint by all names, each name by all constraints.
TEST_F(TrustLimits, OctetsOfNamesAndConstraints) {
    constexpr std::size_t count = 2048;
    std::vector<GeneralName> excluded(count, GeneralName::email("b@example.org"));
    norvauthority::Bytes constraints = nameConstraints({}, excluded);
    for (std::size_t padding = 2000; constraints.size() % count != 0;) { // the length of a length may change once
        padding += count - constraints.size() % count;
        excluded.front() = GeneralName::email(std::string(padding, 'b'));
        constraints = nameConstraints({}, excluded);
    }
    const Identity middle = authority("Middle", 1, &m_root, {.extensions = {{"2.5.29.30", constraints, true}}});
    const std::size_t subject = norvauthority::Name{{"CN", "Anna"}}.der().size();
    const auto octetsWith = [&](std::size_t length) {
        const std::vector<GeneralName> names{GeneralName::email(std::string(length, 'x'))};
        const std::size_t nameOctets = norvauthority::generalNames(names).size() + subject;
        return count * nameOctets + constraints.size() * 3; // the address, the subject and its attribute
    };
    std::size_t length = 30000;
    while (octetsWith(length) < std::size_t{1} << 26U) {
        ++length;
    }
    ASSERT_EQ(octetsWith(length), std::size_t{1} << 26U);
    Case one;
    one.anchor(m_root).message(middle);
    const auto isTooMuch = [&](std::size_t octets) {
        return one.judge(user(middle, {.alternativeNames = {GeneralName::email(std::string(octets, 'x'))}}))
            .has(Code::tooMuchWork);
    };
    EXPECT_FALSE(isTooMuch(length));
    EXPECT_TRUE(isTooMuch(length + 1));
}

/// As deep as OpenSSL is asked to go at most.
TEST_F(TrustLimits, AHundredBetweenTheFirstAndTheAnchor) {
    Case one;
    one.anchor(m_root);
    one.options.maximumDepth = 1000;
    Identity last = m_root;
    for (int i = 0; i < 100; ++i) {
        last = authority("Level " + std::to_string(i), 1, &last);
        one.message(last);
    }
    EXPECT_EQ(shown(one.judge(user(last))), "accepted ");
    last = authority("Level 100", 1, &last);
    one.message(last);
    EXPECT_TRUE(one.judge(user(last)).has(Code::chainTooLong));
}

/// Of one name 64 are looked at, of all 2500.
TEST_F(TrustLimits, CertificatesOfAMessage) {
    const auto namesakes = [this](std::size_t count) {
        Case one;
        one.anchor(m_root);
        for (std::size_t i = 1; i < count; ++i) {
            one.message(authority("Middle", 5, &m_root, {.serial = std::to_string(1000 + i)}));
        }
        return one.message(m_middle);
    };
    Verdict verdict = namesakes(64).judge(user(m_middle));
    EXPECT_EQ(shown(verdict), "accepted ");
    EXPECT_EQ(codesOf(verdict.notes), "");
    verdict = namesakes(65).judge(user(m_middle));
    EXPECT_EQ(shown(verdict), "refused issuer-missing 0");
    EXPECT_EQ(codesOf(verdict.notes), "too-many-certificates 0");
    EXPECT_EQ(verdict.notes[0].text, "the message has 65 certificates, of which the first ones were looked at");

    Case behind;
    behind.anchor(m_root);
    const Identity elsewhere = authority("Elsewhere", 5);
    for (std::size_t i = 1; i < 2500; ++i) {
        behind.message(elsewhere);
    }
    behind.message(m_middle);
    verdict = behind.judge(user(m_middle));
    EXPECT_EQ(shown(verdict), "accepted ");
    EXPECT_EQ(codesOf(verdict.notes), "");
    behind.certificates.push_front(read(elsewhere));
    verdict = behind.judge(user(m_middle));
    EXPECT_EQ(shown(verdict), "refused issuer-missing 0");
    EXPECT_EQ(codesOf(verdict.notes), "too-many-certificates 0");
}

/// An issuer whose key is too large is told where nobody else of the name issued the certificate, and nowhere else.
TEST_F(TrustLimits, AnIssuerWithTooLargeAKey) {
    const Identity large = authority("Middle", 1, &m_root, {.key = rsa(16385, 17)});
    Case one;
    one.anchor(m_root).message(large);
    EXPECT_EQ(shown(one.judge(user(m_middle))), "refused key-too-large 1");
    Case root;
    root.message(m_root).message(authority("Root", 1, &m_root, {.key = rsa(16385, 17)}));
    EXPECT_EQ(shown(root.judge(user(m_root))), "refused root-not-trusted 1");
}

} // namespace
