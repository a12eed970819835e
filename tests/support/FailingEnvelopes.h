#pragma once

/// \file
/// Encrypted messages that fail in every way that whoever sent them could learn from: in the padding of the content key, in the
/// content key, in the padding of the content, in its length and in its tag. To people without the key all of them look like good
/// ones, so that none may be answered otherwise than another one.

#include "support/RsaBlocks.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace norvtest {

/// One that fails. Where RSA does not give a content key a random one is used, with which CBC ends well one time in 256.
struct FailingEnvelope {
    std::string name;
    Bytes der;
    bool authenticated = false;
    bool isSeen = false; ///< that it fails, by the lengths and numbers that everybody can see: it may take less work
};

/// What somebody has a key for.
struct EnvelopeHolder {
    norvauthority::Key key; ///< RSA
    Bytes issuer;           ///< a Name
    std::string serial;     ///< in hexadecimal
};

/// A MIME entity of whole blocks, so that all of the last block is padding.
inline constexpr std::string_view failingBody =
    "Content-Type: text/plain\r\n\r\nMeet me at the old mill at noon.\r\n\r\n";
static_assert(failingBody.size() % 16 == 0);

class FailingEnvelopes {
public:
    explicit FailingEnvelopes(EnvelopeHolder holder) : m_holder(std::move(holder)) {}

    [[nodiscard]] std::vector<FailingEnvelope> all() const {
        std::vector<FailingEnvelope> made;
        for (const bool authenticated : {false, true}) {
            addKeys(made, authenticated);
        }
        addPaddings(made);
        addLengths(made);
        addTags(made);
        return made;
    }
    /// One that opens.
    [[nodiscard]] Bytes sound(bool authenticated) const {
        return message(wrapped(block(contentKey())), authenticated ? sealed() : encrypted(padded()), authenticated);
    }

private:
    static constexpr std::size_t s_keyLength = 16;
    static constexpr std::size_t s_blockLength = 16;

    struct Sealed {
        Bytes content;
        Bytes tag{};
    };

    static Bytes contentKey() { return Bytes(s_keyLength, 0x5A); }
    static Bytes vector() { return Bytes(s_blockLength, 0xA5); }
    static Bytes nonce() { return Bytes(12, 0x33); }
    static Bytes padded() {
        Bytes clear = norvauthority::bytes(failingBody);
        clear.insert(clear.end(), s_blockLength, s_blockLength);
        return clear;
    }

    [[nodiscard]] Bytes block(const Bytes& content) const { return rsaBlock(m_holder.key, content); }
    [[nodiscard]] Bytes wrapped(const Bytes& encoded) const { return encryptedBlock(m_holder.key, encoded); }

    static Sealed run(const EVP_CIPHER* cipher, const Bytes& key, const Bytes& start, const Bytes& in,
                      bool encrypting) {
        const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                                      EVP_CIPHER_CTX_free);
        Sealed out{Bytes(in.size() + s_blockLength)};
        int length = 0;
        int rest = 0;
        EVP_CipherInit_ex(context.get(), cipher, nullptr, key.data(), start.data(), encrypting ? 1 : 0);
        EVP_CIPHER_CTX_set_padding(context.get(), 0);
        if (EVP_CipherUpdate(context.get(), out.content.data(), &length, in.data(), static_cast<int>(in.size())) != 1 ||
            EVP_CipherFinal_ex(context.get(), out.content.data() + length, &rest) != 1) {
            throw std::runtime_error("a cipher");
        }
        out.content.resize(static_cast<std::size_t>(length));
        if (EVP_CIPHER_get_mode(cipher) == EVP_CIPH_GCM_MODE) {
            out.tag.resize(s_blockLength);
            EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, static_cast<int>(s_blockLength), out.tag.data());
        }
        return out;
    }
    static Sealed encrypted(const Bytes& clear) { return run(EVP_aes_128_cbc(), contentKey(), vector(), clear, true); }
    static Sealed sealed() {
        return run(EVP_aes_128_gcm(), contentKey(), nonce(), norvauthority::bytes(failingBody), true);
    }
    /// With which the content does not end in a padding.
    static Bytes otherKey() {
        for (Bytes key(s_keyLength, 1);; ++key.front()) {
            if (run(EVP_aes_128_cbc(), key, vector(), encrypted(padded()).content, false).content.back() >
                s_blockLength) {
                return key;
            }
        }
    }

    [[nodiscard]] Bytes message(const Bytes& wrappedKey, const Sealed& content, bool authenticated) const {
        namespace der = norvauthority::der;
        const Bytes recipient =
            der::sequence({der::integer("0"), der::sequence({m_holder.issuer, der::integer(m_holder.serial)}),
                           der::sequence({der::oid("rsaEncryption"), der::null()}), der::octetString(wrappedKey)});
        const Bytes algorithm = authenticated
                                    ? der::sequence({der::oid("2.16.840.1.101.3.4.1.6"),
                                                     der::sequence({der::octetString(nonce()), der::integer("10")})})
                                    : der::sequence({der::oid("AES-128-CBC"), der::octetString(vector())});
        std::vector<Bytes> parts{der::integer("0"), der::set({recipient}),
                                 der::sequence({der::oid("1.2.840.113549.1.7.1"), algorithm,
                                                der::element(der::context(0), content.content)})};
        if (authenticated) {
            parts.push_back(der::octetString(content.tag));
        }
        return der::sequence({der::oid(authenticated ? "1.2.840.113549.1.9.16.1.23" : "1.2.840.113549.1.7.3"),
                              der::element(der::contextConstructed(0), der::sequence(parts))});
    }

    void addKeys(std::vector<FailingEnvelope>& made, bool authenticated) const {
        const Sealed content = authenticated ? sealed() : encrypted(padded());
        const std::string cipher = authenticated ? "GCM, " : "CBC, ";
        const auto add = [&](const std::string& name, const Bytes& wrappedKey, bool isSeen = false) {
            made.push_back({cipher + name, message(wrappedKey, content, authenticated), authenticated, isSeen});
        };
        const auto altered = [&](const std::string& name, auto alter) {
            Bytes wrong = block(contentKey());
            alter(wrong);
            add(name, wrapped(wrong));
        };
        altered("the first octet of the block is 1", [](Bytes& wrong) { wrong[0] = 1; });
        altered("the second octet is 0", [](Bytes& wrong) { wrong[1] = 0; });
        altered("the second octet is 1", [](Bytes& wrong) { wrong[1] = 1; });
        altered("the second octet is 3", [](Bytes& wrong) { wrong[1] = 3; });
        altered("no zero ends the padding", [](Bytes& wrong) { wrong[wrong.size() - s_keyLength - 1] = 1; });
        altered("no padding", [](Bytes& wrong) { wrong[2] = 0; });
        altered("a padding of seven octets", [](Bytes& wrong) { wrong[9] = 0; });
        altered("nothing but zeroes", [](Bytes& wrong) { std::fill(wrong.begin(), wrong.end(), 0); });
        for (const std::size_t length :
             {std::size_t{0}, std::size_t{1}, s_keyLength - 1, s_keyLength + 1, 2 * s_keyLength,
              static_cast<std::size_t>(EVP_PKEY_get_size(m_holder.key.get())) - 11}) {
            add("a content key of " + std::to_string(length) + " octets", wrapped(block(Bytes(length, 0x5A))));
        }
        add("another content key", wrapped(block(authenticated ? Bytes(s_keyLength, 1) : otherKey())));
        const Bytes right = wrapped(block(contentKey()));
        add("an encrypted key one octet short", Bytes(right.begin(), right.end() - 1), true);
        add("no encrypted key", {}, true);
        add("a number beyond the modulus", Bytes(right.size(), 0xFF), true);
    }
    /// Each last octet, with octets before it that are no padding of so many.
    void addPaddings(std::vector<FailingEnvelope>& made) const {
        const Bytes key = wrapped(block(contentKey()));
        for (unsigned int last = 0; last != 256; ++last) {
            Bytes clear = padded();
            clear.back() = static_cast<unsigned char>(last);
            if (last != 0 && last <= s_blockLength) {
                // The first octet of the padding is the one that is wrong; of one octet there is no wrong padding.
                std::fill(clear.end() - static_cast<std::ptrdiff_t>(last), clear.end(), clear.back());
                clear[clear.size() - last] ^= 1U;
            }
            if (last != 1) {
                made.push_back(
                    {"CBC, a padding that ends in " + std::to_string(last), message(key, encrypted(clear), false)});
            }
        }
    }
    void addLengths(std::vector<FailingEnvelope>& made) const {
        const Bytes key = wrapped(block(contentKey()));
        const Sealed whole = encrypted(padded());
        for (const std::size_t less :
             {std::size_t{1}, std::size_t{8}, s_blockLength - 1, s_blockLength + 1, s_blockLength}) {
            Sealed cut = whole;
            cut.content.resize(whole.content.size() - less);
            made.push_back({"CBC, the last " + std::to_string(less) + " octets are missing", message(key, cut, false),
                            false, true});
        }
        made.push_back({"CBC, a content of no octets", message(key, {}, false), false, true});
    }
    void addTags(std::vector<FailingEnvelope>& made) const {
        const Bytes key = wrapped(block(contentKey()));
        const auto add = [&](const std::string& name, auto alter, bool isSeen = false) {
            Sealed wrong = sealed();
            alter(wrong);
            made.push_back({"GCM, " + name, message(key, wrong, true), true, isSeen});
        };
        add("the first octet of the tag", [](Sealed& wrong) { wrong.tag.front() ^= 1U; });
        add("the last octet of the tag", [](Sealed& wrong) { wrong.tag.back() ^= 0x80U; });
        add("the first octet of the content", [](Sealed& wrong) { wrong.content.front() ^= 1U; });
        add("the last octet of the content", [](Sealed& wrong) { wrong.content.back() ^= 1U; });
        add(
            "a content one octet short", [](Sealed& wrong) { wrong.content.pop_back(); }, true);
        add(
            "a tag one octet short", [](Sealed& wrong) { wrong.tag.pop_back(); }, true);
    }

    EnvelopeHolder m_holder;
};

/// A mail that is nothing but the message.
inline std::string mailAround(const FailingEnvelope& envelope) {
    std::string base64 = norvauthority::pem("CMS", envelope.der);
    base64.erase(0, base64.find('\n') + 1);
    base64.erase(base64.find('-'));
    std::string mail = "From: Anna <anna@a.example>\nTo: bert@b.example\nSubject: outside\nMIME-Version: 1.0\n"
                       "Content-Type: application/pkcs7-mime; smime-type=" +
                       std::string(envelope.authenticated ? "authEnveloped-data" : "enveloped-data") +
                       "; name=smime.p7m\nContent-Transfer-Encoding: base64\n\n" + base64;
    for (std::size_t at = mail.find('\n'); at != std::string::npos; at = mail.find('\n', at + 2)) {
        mail.insert(at, 1, '\r');
    }
    return mail;
}

/// What `ask` answers, once it is what is expected: a random content key ends well one time in 256.
template <class Ask, class Answer> Answer expectedOrLast(Ask ask, const Answer& expected) {
    Answer answer = ask();
    for (int again = 0; !(answer == expected) && again != 3; ++again) {
        answer = ask();
    }
    return answer;
}

} // namespace norvtest
