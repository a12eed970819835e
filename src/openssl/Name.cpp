#include "openssl/Name.h"

#include "openssl/ErrorQueue.h"
#include "openssl/ObjectText.h"

#include <openssl/objects.h>

#include <algorithm>
#include <array>
#include <climits>

namespace Norvane::Crypto::openssl {

namespace {

/// Null for an object without one.
const char* shortNameOf(const ASN1_OBJECT* object) {
    const int nid = OBJ_obj2nid(object);
    return nid != NID_undef ? OBJ_nid2sn(nid) : nullptr;
}

std::string typeText(const ASN1_OBJECT* object) {
    if (const char* shortName = shortNameOf(object); shortName != nullptr) {
        return shortName;
    }
    std::array<char, 80> text{};
    i2t_ASN1_OBJECT(text.data(), static_cast<int>(text.size()), object);
    return text.data();
}

std::string wholeTypeText(const ASN1_OBJECT* object) {
    if (const char* shortName = shortNameOf(object); shortName != nullptr) {
        return shortName;
    }
    const int length = OBJ_obj2txt(nullptr, 0, object, 1); // the library refuses those of more than 586 octets
    if (length <= 0) {
        return "?";
    }
    std::string text(static_cast<std::size_t>(length) + 1, '\0');
    OBJ_obj2txt(text.data(), length + 1, object, 1);
    text.pop_back();
    return text;
}

std::string ownedText(unsigned char* bytes, int length) {
    const OwnedMemory<unsigned char> owned(bytes);
    return length <= 0 ? std::string()
                       : std::string(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length));
}

std::string derOf(const ASN1_STRING* value) {
    ASN1_TYPE any{};
    any.type = ASN1_STRING_type(value);
    any.value.asn1_string = const_cast<ASN1_STRING*>(value);
    unsigned char* der = nullptr;
    const int length = i2d_ASN1_TYPE(&any, &der);
    return ownedText(der, length);
}

NameAttribute attributeOf(const X509_NAME_ENTRY* entry) {
    NameAttribute attribute{wholeTypeText(X509_NAME_ENTRY_get_object(entry)), {}, {}, {}};
    const ASN1_STRING* value = X509_NAME_ENTRY_get_data(entry);
    switch (ASN1_STRING_type(value)) {
    case V_ASN1_BMPSTRING:
    case V_ASN1_UNIVERSALSTRING:
    case V_ASN1_T61STRING: { // Latin-1 in practice
        unsigned char* text = nullptr;
        if (const int length = ASN1_STRING_to_UTF8(&text, value); length >= 0) {
            attribute.text = ownedText(text, length);
        } else {
            attribute.der = derOf(value);
        }
        break;
    }
    case V_ASN1_UTF8STRING:
    case V_ASN1_NUMERICSTRING:
    case V_ASN1_PRINTABLESTRING:
    case V_ASN1_VIDEOTEXSTRING:
    case V_ASN1_IA5STRING:
    case V_ASN1_GRAPHICSTRING:
    case V_ASN1_VISIBLESTRING:
    case V_ASN1_GENERALSTRING:
        attribute.text = bytesOf(value);
        break;
    default:
        attribute.der = derOf(value);
    }
    return attribute;
}

bool isAscii(char c) {
    return static_cast<unsigned char>(c) < 0x80;
}

NameEntry textOf(const X509_NAME_ENTRY* entry) {
    const ASN1_STRING* data = X509_NAME_ENTRY_get_data(entry);
    return {typeText(X509_NAME_ENTRY_get_object(entry)), ASN1_STRING_type(data), bytesOf(data)};
}

} // namespace

std::string bytesOf(const ASN1_STRING* string) {
    const int length = ASN1_STRING_length(string);
    return length == 0 ? std::string()
                       : std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(string)),
                                     static_cast<std::size_t>(length));
}

std::vector<NameEntry> entriesOf(const X509_NAME* name) {
    const ErrorMark mark;
    std::vector<NameEntry> texts;
    const int count = X509_NAME_entry_count(name);
    texts.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        texts.push_back(textOf(X509_NAME_get_entry(name, i)));
    }
    return texts;
}

std::vector<NameEntry> entriesOf(const STACK_OF(X509_NAME_ENTRY) * entries) {
    const ErrorMark mark;
    std::vector<NameEntry> texts;
    const int count = std::max(0, sk_X509_NAME_ENTRY_num(entries)); // -1 without a stack
    texts.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        texts.push_back(textOf(sk_X509_NAME_ENTRY_value(entries, i)));
    }
    return texts;
}

std::vector<NameAttribute> attributesOf(const X509_NAME* name) {
    const ErrorMark mark;
    std::vector<NameAttribute> attributes;
    const int count = X509_NAME_entry_count(name);
    attributes.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        const X509_NAME_ENTRY* entry = X509_NAME_get_entry(name, i);
        attributes.push_back(attributeOf(entry));
        attributes.back().joinsPreceding =
            i > 0 && X509_NAME_ENTRY_set(entry) == X509_NAME_ENTRY_set(X509_NAME_get_entry(name, i - 1));
    }
    return attributes;
}

NamePtr copyOf(const X509_NAME* name) {
    const ErrorMark mark;
    NamePtr copy(X509_NAME_new());
    for (int i = 0; copy && i < X509_NAME_entry_count(name); ++i) {
        if (X509_NAME_add_entry(copy.get(), X509_NAME_get_entry(name, i), -1, 0) != 1) {
            return nullptr;
        }
    }
    return copy;
}

void appendEntry(X509_NAME* name, const std::string& type, const std::string& value) {
    if (!mayBeIdentifier(type) || value.size() > INT_MAX) {
        return; // as a type that OpenSSL does not know; lengths it counts in int
    }
    const ErrorMark mark;
    const auto* bytes = reinterpret_cast<const unsigned char*>(value.data());
    const int length = static_cast<int>(value.size());
    const bool added = X509_NAME_add_entry_by_txt(name, type.c_str(), MBSTRING_ASC, bytes, length, -1, 0) == 1;
    if (added && !std::all_of(value.begin(), value.end(), isAscii)) {
        X509_NAME_ENTRY_set_data(X509_NAME_get_entry(name, X509_NAME_entry_count(name) - 1), V_ASN1_T61STRING, bytes,
                                 length);
    }
}

} // namespace Norvane::Crypto::openssl
