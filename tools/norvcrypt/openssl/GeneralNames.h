#pragma once

/// \file
/// Names beside the subject's (RFC 5280, GeneralName). Texts come back with the bytes that stand in the structure: escape
/// them where they are shown.

#include "openssl/OpenSsl.h"

#include <set>
#include <string>
#include <utility>
#include <vector>

namespace norvcrypt {

/// Each kind in the order of the certificate, none twice.
struct AlternativeNames {
    std::vector<std::string> emails; ///< also those that are not ASCII (RFC 9598)
    std::vector<std::string> dns;
    std::vector<std::string> uris;
    std::vector<std::string> ipAddresses; ///< "192.0.2.1"; hexadecimal digits where the octets are no address
    std::vector<std::string> directoryNames;
    std::vector<std::string> others; ///< "registeredID: 1.2.3"; "1.2.3: text" where the value is one, else "1.2.3"
    bool malformed = false;          ///< an extension could not be read
    bool hasOddIpAddress = false;    ///< one has neither 4 nor 16 octets
};

/// Collects names.
class GeneralNames {
public:
    /// \param extension a subject alternative name
    void add(X509_EXTENSION* extension);
    void addEmail(const std::string& address) { add(m_names.emails, address); }
    AlternativeNames take() { return std::move(m_names); }

private:
    void add(std::vector<std::string>& kind, const std::string& text);
    void add(const GENERAL_NAME& name);
    void add(const OTHERNAME& name);
    void addIpAddress(const ASN1_STRING* octets);

    AlternativeNames m_names;
    std::set<std::pair<const std::vector<std::string>*, std::string>> m_seen;
};

/// The subject's addresses and alternative names.
AlternativeNames alternativeNames(X509* certificate);

/// Calls `use` with each extension of that kind, decoded; false when one of them cannot be decoded.
template <class Pointer, class Use> bool eachExtension(X509* certificate, int nid, Use use) {
    const QuietQuestion quiet;
    bool readable = true;
    for (int at = X509_get_ext_by_NID(certificate, nid, -1); at >= 0; at = X509_get_ext_by_NID(certificate, nid, at)) {
        const Pointer decoded(static_cast<typename Pointer::pointer>(X509V3_EXT_d2i(X509_get_ext(certificate, at))));
        if (decoded)
            use(decoded.get());
        else
            readable = false;
    }
    return readable;
}

/// Where something is found: a URI, host or address as it is, a directory name as text; empty for other kinds.
std::string placeOf(const GENERAL_NAME* name);

} // namespace norvcrypt
