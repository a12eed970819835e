#include <norvcrypto/DistinguishedName.h>

#include "DistinguishedName/Text.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Name.h"

#include <cstdint>
#include <new>

namespace Norvane::Crypto {

void detail::NameTraits::free(X509_name_st* name) noexcept {
    X509_NAME_free(name);
}

X509_name_st* detail::NameTraits::duplicate(const X509_name_st* name) {
    return openssl::copyOf(name).release();
}

namespace NVX509 {

namespace {

using Name = detail::MaybeOwned<X509_name_st, detail::NameTraits>;

/// An owned name with the attributes of a range of pairs, in its order.
template <class Iterator> Name buildName(Iterator first, Iterator last) {
    if (first == last) {
        return Name::adopt(nullptr);
    }
    openssl::NamePtr name(X509_NAME_new());
    if (!name) {
        throw std::bad_alloc(); // a null name would be equal to every other one
    }
    for (; first != last; ++first) {
        openssl::appendEntry(name.get(), first->type, first->value);
    }
    return Name::adopt(name.release());
}

Name parseName(const std::string& text) {
    const Pairs pairs = parsePairs(text);
    return buildName(pairs.rbegin(), pairs.rend());
}

Name copyEntries(const stack_st_X509_NAME_ENTRY* entries) {
    const Pairs pairs = pairsOf(entries);
    return buildName(pairs.begin(), pairs.end());
}

} // namespace

DistinguishedName::DistinguishedName() = default;
DistinguishedName::DistinguishedName(const X509_name_st* name) : m_name(Name::borrow(name)) {}
DistinguishedName::DistinguishedName(const stack_st_X509_NAME_ENTRY* entries) : m_name(copyEntries(entries)) {}
DistinguishedName::DistinguishedName(const std::string& text) : m_name(parseName(text)) {}
DistinguishedName::DistinguishedName(const DistinguishedName& other) = default;
DistinguishedName& DistinguishedName::operator=(const DistinguishedName& other) = default;
DistinguishedName::~DistinguishedName() = default;

const std::string& DistinguishedName::asString() const {
    if (m_name && m_text.empty()) {
        const Pairs pairs = pairsOf(m_name.get());
        if (pairs.empty()) {
            return m_text; // without a write, so that threads may share the name of an empty subject too
        }
        m_rdns.assign(pairs.rbegin(), pairs.rend());
        m_text = printPairs(pairs);
    }
    return m_text;
}

const std::list<RDNPair>& DistinguishedName::listRDN() const {
    if (m_rdns.empty()) {
        static_cast<void>(asString());
    }
    return m_rdns;
}

bool DistinguishedName::operator==(const DistinguishedName& other) const {
    return *this == other.object();
}

bool DistinguishedName::operator==(const X509_name_st* other) const {
    if (!m_name || other == nullptr) {
        return !m_name && other == nullptr;
    }
    const openssl::ErrorMark mark;
    return X509_NAME_cmp(m_name.get(), other) == 0;
}

unsigned long DistinguishedName::hash() const {
    if (m_name && m_hash == 0) {
        const openssl::ErrorMark mark;
        m_hash = X509_NAME_hash(m_name.get());
    }
    return m_hash;
}

bool DistinguishedName::operator<(const DistinguishedName& other) const {
    if (!m_name || !other.m_name) {
        return !m_name && other.m_name;
    }
    return static_cast<std::uint32_t>(hash()) < static_cast<std::uint32_t>(other.hash());
}

RefDistinguishedName::RefDistinguishedName() = default;
RefDistinguishedName::RefDistinguishedName(const std::string& text) : shared_ptr(new DistinguishedName(text)) {}
RefDistinguishedName::RefDistinguishedName(const stack_st_X509_NAME_ENTRY* entries)
    : shared_ptr(new DistinguishedName(entries)) {}

RelativeDistinguishedName::RelativeDistinguishedName(const X509_name_entry_st* /*entry*/) {}

RefDistinguishedName getParent(const DistinguishedName& name) {
    Pairs pairs = pairsOf(name.object());
    if (pairs.size() < 2) {
        return {};
    }
    pairs.pop_back();
    return RefDistinguishedName(printPairs(pairs));
}

RefDistinguishedName getParent(const RefDistinguishedName& name) {
    return name ? getParent(*name) : RefDistinguishedName();
}

} // namespace NVX509

} // namespace Norvane::Crypto
