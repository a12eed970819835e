#include "openssl/Name.h"

#include "openssl/ErrorQueue.h"

#include <openssl/objects.h>

#include <algorithm>
#include <array>
#include <climits>

namespace Norvane::Crypto::openssl {

namespace {

std::string typeText(const ASN1_OBJECT* object) {
    const int nid = OBJ_obj2nid(object);
    const char* shortName = nid != NID_undef ? OBJ_nid2sn(nid) : nullptr;
    if (shortName != nullptr) {
        return shortName;
    }
    std::array<char, 80> text{};
    i2t_ASN1_OBJECT(text.data(), static_cast<int>(text.size()), object);
    return text.data();
}

bool isAscii(char c) {
    return static_cast<unsigned char>(c) < 0x80;
}

NameEntry textOf(const X509_NAME_ENTRY* entry) {
    const ASN1_STRING* data = X509_NAME_ENTRY_get_data(entry);
    return {typeText(X509_NAME_ENTRY_get_object(entry)), ASN1_STRING_type(data),
            ASN1_STRING_length(data) == 0 ? std::string()
                                          : std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(data)),
                                                        static_cast<std::size_t>(ASN1_STRING_length(data)))};
}

} // namespace

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
    if (type.find('\0') != std::string::npos || value.size() > INT_MAX) {
        return; // no type that OpenSSL knows; it would look at the part before the zero byte only, and count in int
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
