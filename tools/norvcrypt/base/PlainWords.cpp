#include "base/PlainWords.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace norvcrypt {

namespace {

bool allIsTold = false;

constexpr const char* unexplained = "--debug tells why";
constexpr const char* damaged = "it is damaged or cut off, or no such thing";

/// OpenSSL's reasons, or how they begin, and what they mean to whoever gave the file. The first line that fits one of
/// several reasons counts: those that say most stand first.
constexpr auto meanings = std::to_array<std::pair<std::string_view, std::string_view>>({
    {"mac absent", "it has no checksum (MAC) that would tell whether the passphrase is right: have it made with one"},
    {"bad decrypt", "the passphrase or key is wrong, or it is damaged"},
    {"pkcs12 cipherfinal error", "the passphrase is wrong, or it is damaged"},
    {"bad password read", "it is encrypted, and no passphrase was given"},
    {"wrong final block length", "it is damaged: a part of the last block is missing"},
    {"data not multiple of block length", "it is damaged: a part of the last block is missing"},
    {"unknown pbe algorithm", "it is encrypted in a way that is not supported"},
    {"unsupported private key algorithm", "its kind of key is not supported"},
    {"unsupported algorithm", "its algorithm is not supported"},
    {"unsupported cipher", "its cipher is not supported"},
    {"unsupported key derivation function", "it is encrypted in a way that is not supported"},
    {"unsupported prf", "it is encrypted in a way that is not supported"},
    {"unsupported key derivation function", "it is encrypted in a way that is not supported"},
    {"unsupported encryption", "it is encrypted in a way that is not supported"},
    {"memory limit exceeded", "its encryption takes more memory (scrypt) than is supported"},
    {"cipher parameter error", "its cipher is not supported, or the parameters of that are damaged"},
    {"unknown cipher", "its cipher is not supported"},
    {"digest not allowed", "that digest is not supported with this kind of key"},
    {"invalid digest", "that digest is not supported with this kind of key"},
    {"unknown digest", "its digest is not supported"},
    {"key values mismatch", "key and certificate do not belong together"},
    {"key type mismatch", "key and certificate do not belong together"},
    {"no start line", "there is no PEM block of the kind that is wanted"},
    {"bad end line", "its last line is missing or damaged"},
    {"short header", "it is cut off in its header"},
    {"bad base64 decode", "its base64 is damaged"},
    {"bad iv chars", "its header is damaged"},
    {"not dek info", "its header is damaged"},
    {"not proc type", "its header is damaged"},
    {"not enough data", damaged},
    {"too long", damaged},
    {"header too long", damaged},
    {"wrong tag", damaged},
    {"nested asn1 error", damaged},
    {"missing eoc", damaged},
    {"unexpected eoc", damaged},
    {"sequence length mismatch", damaged},
    {"illegal padding", damaged},
    {"invalid object encoding", damaged},
    {"decode error", damaged},
    {"no matching choice type", damaged},
    {"pub exponent out of range", "the public exponent is out of range"},
    {"bad e value", "the public exponent is none that RSA can have"},
    {"key size too small", "the key is too short"},
    {"modulus too small", "the key is too short"},
    {"data too large for", "the key is too short for it"},
    {"digest too big for rsa key", "the key is too short for that digest"},
    {"unsupported protocol", "no version of TLS that both sides speak"},
    {"no shared cipher", "no cipher that both sides have"},
    {"wrong version number", "what came is no TLS"},
    {"unexpected eof while reading", "the peer ended the connection in the middle"},
    {"unsupported", "it is damaged, or of a kind that is not supported"},
    {"unknown", "it is of a kind that is not supported"},
});

/// The reason in "0x4800066: PEM routines / get_name / no start line", and where it ends in the text; empty when the text
/// does not go on so.
std::string_view reasonAt(std::string_view text, std::size_t at, std::size_t& end) {
    std::size_t digits = at + 2;
    while (digits < text.size() && std::isxdigit(static_cast<unsigned char>(text[digits])) != 0)
        ++digits;
    if (digits == at + 2 || text.compare(digits, 2, ": ") != 0)
        return {};
    end = std::min(text.find(';', digits), text.size());
    const std::string_view one = text.substr(digits, end - digits);
    const std::size_t first = one.find(" / ");
    const std::size_t last = one.rfind(" / ");
    if (first == std::string_view::npos || first == last)
        return {};
    while (end < text.size() && (text[end] == ';' || text[end] == ' '))
        ++end;
    return one.substr(last + 3);
}

std::string meaningOf(const std::vector<std::string_view>& reasons) {
    // The library's own, which are for people.
    for (const std::string_view reason : reasons)
        if (reason.starts_with("refused"))
            return std::string(reason);
    for (const auto& [begin, meaning] : meanings)
        for (const std::string_view reason : reasons)
            if (reason.starts_with(begin))
                return std::string(meaning);
    // What the other side of a connection says is for people, too.
    for (const std::string_view reason : reasons)
        if (const std::size_t alert = reason.find("alert "); alert != std::string_view::npos)
            return "the peer gave up: " + std::string(reason.substr(alert + 6));
    return unexplained;
}

/// Without blanks and marks of a list at the end.
std::string trimmed(std::string text) {
    text.erase(text.find_last_not_of("; :.,") + 1);
    return text;
}

/// What a person can read of the details of a failure.
std::string detailsOf(const Norvane::Exception& failure) {
    std::string all;
    for (const Norvane::Exception::Parameter& parameter : failure.parameters())
        if (const auto* const text = std::get_if<std::string>(&parameter))
            // Some name the function.
            if (const std::string one = inPlainWords(*text); !one.empty() && one.find("Norvane::") == std::string::npos)
                all += (all.empty() ? "" : ", ") + one;
    return all;
}

} // namespace

void tellAll(bool all) noexcept {
    allIsTold = all;
}

bool tellsAll() noexcept {
    return allIsTold;
}

std::string inPlainWords(const std::string& text) {
    if (allIsTold)
        return text;
    std::string plain;
    std::vector<std::string_view> reasons;
    std::string_view ofSystem; // "Connection reset by peer", which is plain
    for (std::size_t at = 0; at < text.size();) {
        std::size_t end = 0;
        const std::string_view reason = text.compare(at, 2, "0x") == 0 ? reasonAt(text, at, end) : std::string_view();
        if (reason.empty()) {
            plain += text[at++];
        } else {
            reasons.push_back(reason);
            if (text.substr(at, end - at).find(": system library / ") != std::string::npos)
                ofSystem = reason;
            at = end;
        }
    }
    plain = trimmed(plain);
    // Some say no more than that a decoder failed.
    if (constexpr std::string_view decoder = "ASN1 Decode failed"; plain.starts_with(decoder))
        return "it does not decode: it is damaged, cut off, or of a form that is not supported";
    if (plain == "SSL_connect failed" || plain == "SSL_accept failed")
        plain = "the TLS handshake failed";
    if (reasons.empty())
        return plain;
    std::string meaning = meaningOf(reasons);
    if (meaning == unexplained && text.find("asn1 encoding routines") != std::string::npos)
        meaning = damaged;
    if (meaning == unexplained && !ofSystem.empty())
        meaning = ofSystem;
    return (plain.empty() ? "" : plain + ": ") + meaning;
}

std::string inPlainWords(const Norvane::Exception& failure) {
    if (allIsTold)
        return failure.asString();
    std::string plain = detailsOf(failure);
    for (const Norvane::Exception* cause = failure.cause(); cause != nullptr; cause = cause->cause())
        if (const std::string one = detailsOf(*cause); !one.empty() && plain.find(one) == std::string::npos)
            plain += (plain.empty() ? "" : ": ") + one;
    if (!plain.empty())
        return plain;
    if (failure.where().find("initializeEncryptionContext") != std::string::npos)
        return "the cipher is not supported here (IDEA needs libgcrypt)";
    if (failure.where() == "CMS::SignerMediaOutImpl::SignerMediaOutImpl")
        return "that digest is not supported with this kind of key";
    // Some say what happened behind the name of the function.
    const std::size_t said = failure.where().find(" - ");
    return said == std::string::npos ? "it failed: --debug tells why" : trimmed(failure.where().substr(said + 3));
}

} // namespace norvcrypt
