#include "Support.h"

#include <openssl/x509v3.h>

#include <ctime>
#include <utility>

namespace norvauthority {

Name Name::fromDer(Bytes der) {
    Name name;
    name.m_der = std::move(der);
    return name;
}

Name& Name::add(NameEntry entry) {
    m_entries.push_back(std::move(entry));
    return *this;
}

Name& Name::add(const std::string& type, const std::string& value, int stringType) {
    return add(NameEntry{.type = type, .value = value, .stringType = stringType});
}

std::vector<Bytes> Name::components() const {
    std::vector<std::vector<Bytes>> sets;
    for (const NameEntry& entry : m_entries) {
        const Bytes type = entry.rawOid ? der::rawOid(*entry.rawOid) : der::oid(entry.type);
        const Bytes value = entry.rawValue
                                ? *entry.rawValue
                                : der::element(static_cast<unsigned char>(entry.stringType), bytes(entry.value));
        if (sets.empty() || !entry.joinsPreceding)
            sets.emplace_back();
        sets.back().push_back(der::sequence({type, value}));
    }
    std::vector<Bytes> encoded;
    encoded.reserve(sets.size());
    for (const std::vector<Bytes>& parts : sets)
        encoded.push_back(der::set(parts));
    return encoded;
}

Bytes Name::der() const {
    return m_der ? *m_der : der::sequence(components());
}

Bytes Name::firstComponent() const {
    const std::vector<Bytes> all = components();
    return all.empty() ? der::set({}) : all.front();
}

NamePtr Name::x509Name() const {
    const Bytes encoded = der();
    const unsigned char* at = encoded.data();
    return NamePtr(require(d2i_X509_NAME(nullptr, &at, static_cast<long>(encoded.size())), "reading a name"));
}

GeneralName GeneralName::otherName(const std::string& oid, const Bytes& value) {
    return {der::element(der::contextConstructed(0),
                         der::concat({der::oid(oid), der::element(der::contextConstructed(0), value)}))};
}

GeneralName GeneralName::email(const std::string& address) {
    return {der::element(der::context(1), bytes(address))};
}

GeneralName GeneralName::dns(const std::string& name) {
    return {der::element(der::context(2), bytes(name))};
}

GeneralName GeneralName::directory(const Name& name) {
    return {der::element(der::contextConstructed(4), name.der())};
}

GeneralName GeneralName::uri(const std::string& text) {
    return {der::element(der::context(6), bytes(text))};
}

GeneralName GeneralName::ip(const std::string& textOrOctets) {
    const std::unique_ptr<ASN1_OCTET_STRING, decltype(&ASN1_OCTET_STRING_free)> address(
        a2i_IPADDRESS(textOrOctets.c_str()), ASN1_OCTET_STRING_free);
    if (!address)
        return {der::element(der::context(7), bytes(textOrOctets))};
    const unsigned char* octets = ASN1_STRING_get0_data(address.get());
    return {der::element(der::context(7), Bytes(octets, octets + ASN1_STRING_length(address.get())))};
}

GeneralName GeneralName::registeredId(const std::string& oid) {
    Bytes encoded = der::oid(oid);
    encoded[0] = der::context(8);
    return {encoded};
}

GeneralName GeneralName::raw(Bytes element) {
    return {std::move(element)};
}

Bytes generalNames(const std::vector<GeneralName>& names) {
    std::vector<Bytes> parts;
    parts.reserve(names.size());
    for (const GeneralName& name : names)
        parts.push_back(name.der);
    return der::sequence(parts);
}

Time Time::at(std::int64_t seconds) {
    const std::time_t moment = seconds;
    std::tm fields{};
    gmtime_r(&moment, &fields);
    char text[32] = "";
    // RFC 5280 section 4.1.2.5: two-digit years up to 2049.
    if (fields.tm_year >= 50 && fields.tm_year < 150) {
        static_cast<void>(std::strftime(text, sizeof text, "%y%m%d%H%M%SZ", &fields));
        return utc(text);
    }
    static_cast<void>(std::strftime(text, sizeof text, "%Y%m%d%H%M%SZ", &fields));
    return generalized(text);
}

Time Time::fromNow(std::int64_t seconds) {
    return at(std::time(nullptr) + seconds);
}

Time Time::utc(const std::string& text) {
    return {der::element(der::utcTimeTag, bytes(text))};
}

Time Time::generalized(const std::string& text) {
    return {der::element(der::generalizedTimeTag, bytes(text))};
}

} // namespace norvauthority
