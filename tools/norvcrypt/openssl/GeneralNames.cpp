#include "openssl/GeneralNames.h"
#include "openssl/CertificateDetails.h"

#include <norvcmsg/IPAddress.h>
#include <norvcrypto/DistinguishedName.h>

#include <memory>
#include <new>

namespace norvcrypt {

namespace {

std::string textOf(const ASN1_STRING* string) {
    const auto* start = reinterpret_cast<const char*>(ASN1_STRING_get0_data(string));
    return start == nullptr ? std::string() : std::string(start, static_cast<std::size_t>(ASN1_STRING_length(string)));
}

/// In UTF-8, whatever the characters are in; as it stands where they are none.
std::string utf8Of(const ASN1_STRING* string) {
    unsigned char* text = nullptr;
    const int length = ASN1_STRING_to_UTF8(&text, string);
    const std::unique_ptr<unsigned char, FreeingMemory> owned(text);
    return length < 0 ? textOf(string) : std::string(reinterpret_cast<char*>(text), static_cast<std::size_t>(length));
}

std::string nameOf(X509_NAME* name) {
    return displayName(Norvane::Crypto::NVX509::DistinguishedName(name));
}

bool isText(const ASN1_TYPE& value) {
    constexpr unsigned long texts = B_ASN1_UTF8STRING | B_ASN1_IA5STRING | B_ASN1_PRINTABLESTRING | B_ASN1_T61STRING |
                                    B_ASN1_BMPSTRING | B_ASN1_UNIVERSALSTRING;
    return (ASN1_tag2bit(value.type) & texts) != 0;
}

} // namespace

void GeneralNames::add(std::vector<std::string>& kind, const std::string& text) {
    if (m_seen.emplace(&kind, text).second)
        kind.push_back(text);
}

void GeneralNames::add(X509_EXTENSION* extension) {
    const NamesPtr all(static_cast<GENERAL_NAMES*>(X509V3_EXT_d2i(extension)));
    m_names.malformed = m_names.malformed || !all;
    for (int at = 0; at < sk_GENERAL_NAME_num(all.get()); ++at)
        add(*sk_GENERAL_NAME_value(all.get(), at));
}

void GeneralNames::add(const GENERAL_NAME& name) {
    switch (name.type) {
    case GEN_EMAIL:
        return addEmail(textOf(name.d.rfc822Name));
    case GEN_DNS:
        return add(m_names.dns, textOf(name.d.dNSName));
    case GEN_URI:
        return add(m_names.uris, textOf(name.d.uniformResourceIdentifier));
    case GEN_IPADD:
        return addIpAddress(name.d.iPAddress);
    case GEN_DIRNAME:
        return add(m_names.directoryNames, nameOf(name.d.directoryName));
    case GEN_RID:
        return add(m_names.others, "registeredID: " + objectName(name.d.registeredID));
    case GEN_OTHERNAME:
        return add(*name.d.otherName);
    case GEN_X400:
        return add(m_names.others, "x400Address");
    default:
        return add(m_names.others, "ediPartyName");
    }
}

void GeneralNames::add(const OTHERNAME& name) {
    const ASN1_TYPE& value = *name.value;
    if (OBJ_obj2nid(name.type_id) == NID_id_on_SmtpUTF8Mailbox && value.type == V_ASN1_UTF8STRING)
        return addEmail(textOf(value.value.utf8string));
    const std::string kind = objectName(name.type_id);
    add(m_names.others, isText(value) ? kind + ": " + utf8Of(value.value.asn1_string) : kind);
}

void GeneralNames::addIpAddress(const ASN1_STRING* octets) {
    const std::string value = textOf(octets);
    if (value.size() == 4 || value.size() == 16)
        return add(m_names.ipAddresses, Norvane::IPAddress(value).asString());
    m_names.hasOddIpAddress = true;
    const std::unique_ptr<char, FreeingMemory> digits(
        OPENSSL_buf2hexstr(ASN1_STRING_get0_data(octets), ASN1_STRING_length(octets)));
    if (!digits)
        throw std::bad_alloc();
    add(m_names.ipAddresses, digits.get());
}

AlternativeNames alternativeNames(X509* certificate) {
    const QuietQuestion quiet;
    GeneralNames names;
    for (int at = X509_get_ext_by_NID(certificate, NID_subject_alt_name, -1); at >= 0;
         at = X509_get_ext_by_NID(certificate, NID_subject_alt_name, at))
        names.add(X509_get_ext(certificate, at));
    // Older certificates carry the address in the subject.
    const X509_NAME* subject = X509_get_subject_name(certificate);
    for (int at = X509_NAME_get_index_by_NID(subject, NID_pkcs9_emailAddress, -1); at >= 0;
         at = X509_NAME_get_index_by_NID(subject, NID_pkcs9_emailAddress, at))
        names.addEmail(utf8Of(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, at))));
    return names.take();
}

std::string placeOf(const GENERAL_NAME* name) {
    if (name->type == GEN_DIRNAME)
        return nameOf(name->d.directoryName);
    const bool text = name->type == GEN_URI || name->type == GEN_DNS || name->type == GEN_EMAIL;
    return text ? textOf(name->d.ia5) : std::string();
}

} // namespace norvcrypt
