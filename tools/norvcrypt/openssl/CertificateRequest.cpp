#include "openssl/CertificateRequest.h"
#include "base/Failure.h"
#include "openssl/HexDigits.h"
#include "openssl/OpenSsl.h"

#include <norvcrypto-trust/TrustSender.h>
#include <norvcrypto/Crypto.h>

#include <openssl/pem.h>

#include <algorithm>
#include <string_view>
#include <utility>

namespace norvcrypt {

namespace {

using RequestPtr = Owned<X509_REQ, X509_REQ_free>;
using NamePtr = Owned<X509_NAME, X509_NAME_free>;
using ExtensionPtr = Owned<X509_EXTENSION, X509_EXTENSION_free>;
using GeneralNamePtr = Owned<GENERAL_NAME, GENERAL_NAME_free>;
using IA5Ptr = Owned<ASN1_IA5STRING, ASN1_IA5STRING_free>;

[[noreturn]] void fail(const std::string& what) {
    const std::string reason = inPlainWords(Norvane::Crypto::getErrString());
    throw Failure(what + (reason.empty() ? "" : ": " + reason));
}

/// What a backslash stands in front of, as RFC 4514 has it: a sign that would mean something else, or a byte in two digits.
/// \param at the backslash; the last character that belongs to it, behind the call
/// \throws Failure: neither
std::string unescaped(const std::string& subject, std::size_t& at) {
    constexpr std::string_view signs = "\"\\+,;<=># ";
    if (at + 1 < subject.size() && signs.find(subject[at + 1]) != std::string_view::npos)
        return {subject[++at]};
    const Norvane::Buffer byte = octetsFromHex(subject.substr(at + 1, 2));
    if (byte.length() != 1)
        throw Failure("a backslash in the subject stands in front of a sign (one of \"\\+,;<=># or a blank) or of two "
                      "hexadecimal digits: " +
                      subject);
    at += 2;
    return {static_cast<char>(byte.data()[0])};
}

/// The parts of "CN=Dora\, Anna,O=Example", unescaped. \throws Failure
std::vector<std::pair<std::string, std::string>> partsOf(const std::string& subject) {
    std::vector<std::pair<std::string, std::string>> parts(1);
    std::string* into = &parts.back().first;
    for (std::size_t at = 0; at < subject.size(); ++at) {
        const char one = subject[at];
        const bool inValue = into == &parts.back().second;
        if (one == '\\') {
            *into += unescaped(subject, at);
        } else if (one == '=' && !inValue) {
            into = &parts.back().second;
        } else if (one == ',') {
            into = &parts.emplace_back().first;
        } else if (one == '+' && inValue) {
            throw Failure(
                "a + in the subject stands for a part with several values, which is not supported: write \\+ for "
                "the sign itself");
        } else if (one != ' ' || !into->empty()) { // blanks in front are for the eye
            *into += one;
        }
    }
    return parts;
}

NamePtr nameOf(const std::string& subject) {
    NamePtr name(X509_NAME_new());
    if (!name)
        throw std::bad_alloc();
    for (const auto& [type, value] : partsOf(subject)) {
        if (type.empty() || value.empty())
            throw Failure("the subject " + subject + " is none: write it as CN=Dora Example,O=Example,C=DE");
        // The text has the last part first, as certificates are shown.
        if (X509_NAME_add_entry_by_txt(name.get(), type.c_str(), MBSTRING_UTF8,
                                       reinterpret_cast<const unsigned char*>(value.data()),
                                       static_cast<int>(value.size()), 0, 0) != 1) {
            const QuietQuestion quiet;
            const bool known = OBJ_txt2nid(type.c_str()) != NID_undef;
            ERR_clear_error();
            std::string reason = known ? "the value of " : "no kind of name: ";
            reason += type;
            reason += known ? " in the subject is too long, too short or no UTF-8: " + value
                            : " (CN, O, OU, L, ST, C and emailAddress are some)";
            throw Failure(reason);
        }
    }
    return name;
}

void addName(GENERAL_NAMES* names, int type, const std::string& text) {
    const bool isAscii = std::ranges::all_of(text, [](char one) { return one > ' ' && one < '\x7F'; });
    if (text.empty() || !isAscii)
        throw Failure("not supported in a request, as it is empty, holds a blank or is not ASCII: " + text);
    IA5Ptr string(ASN1_IA5STRING_new());
    GeneralNamePtr name(GENERAL_NAME_new());
    if (!string || !name || ASN1_STRING_set(string.get(), text.data(), static_cast<int>(text.size())) != 1)
        throw std::bad_alloc();
    GENERAL_NAME_set0_value(name.get(), type, string.release());
    if (sk_GENERAL_NAME_push(names, name.get()) == 0)
        throw std::bad_alloc();
    static_cast<void>(name.release());
}

void addAlternativeNames(X509_REQ* request, const RequestContent& content) {
    const NamesPtr names(sk_GENERAL_NAME_new_null());
    if (!names)
        throw std::bad_alloc();
    for (const std::string& address : content.emails) {
        addName(names.get(), GEN_EMAIL, address);
        // Nobody would ever find a sender to be its holder.
        if (Norvane::Crypto::Trust::comparableAddress(address).empty())
            throw Failure("no mail address: " + address);
    }
    for (const std::string& host : content.hosts)
        addName(names.get(), GEN_DNS, host);
    if (sk_GENERAL_NAME_num(names.get()) == 0)
        return;
    STACK_OF(X509_EXTENSION)* extensions = nullptr;
    const bool made = X509V3_add1_i2d(&extensions, NID_subject_alt_name, names.get(), 0, X509V3_ADD_DEFAULT) == 1 &&
                      X509_REQ_add_extensions(request, extensions) == 1;
    sk_X509_EXTENSION_pop_free(extensions, X509_EXTENSION_free);
    if (!made)
        fail("cannot encode the addresses");
}

/// What goes with the key's strength; a key on an Edwards curve has a digest of its own.
const EVP_MD* digestFor(const EVP_PKEY* key) {
    switch (EVP_PKEY_get_base_id(key)) {
    case EVP_PKEY_ED25519:
    case EVP_PKEY_ED448:
        return nullptr;
    case EVP_PKEY_EC:
        return EVP_PKEY_get_bits(key) > 256 ? EVP_sha384() : EVP_sha256();
    default:
        return EVP_sha256();
    }
}

} // namespace

std::string makeRequest(const RequestContent& content, const Norvane::Crypto::RefKey& key) {
    const RequestPtr request(X509_REQ_new());
    const BioPtr out(BIO_new(BIO_s_mem()));
    if (!request || !out)
        throw std::bad_alloc();
    const NamePtr subject = nameOf(content.subject);
    EVP_PKEY* const pair = key;
    if (X509_REQ_set_version(request.get(), X509_REQ_VERSION_1) != 1 ||
        X509_REQ_set_subject_name(request.get(), subject.get()) != 1 || X509_REQ_set_pubkey(request.get(), pair) != 1)
        fail("cannot make the request");
    addAlternativeNames(request.get(), content);
    if (X509_REQ_sign(request.get(), pair, digestFor(pair)) <= 0)
        fail("the key cannot sign a request");
    if (PEM_write_bio_X509_REQ(out.get(), request.get()) != 1)
        fail("cannot encode the request");
    char* text = nullptr;
    const long length = BIO_get_mem_data(out.get(), &text);
    return {text, static_cast<std::size_t>(length)};
}

} // namespace norvcrypt
