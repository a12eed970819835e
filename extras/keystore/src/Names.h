#pragma once

/// \file
/// What messages name a certificate by.

#include "Entry.h"

struct X509_name_st;
struct asn1_string_st;

namespace Norvane::Crypto::NVX509::keystore {

/// As `CertificateNames::issuerAndSerial`. Nothing for a negative number, which no certificate of a store has.
std::optional<std::string> issuerAndSerial(const X509_name_st* issuer, const asn1_string_st* serial);

CertificateNames namesOf(const RefCertificate& certificate);

/// The names of the first certificate in a text, of which nothing but its outermost elements is looked at: decoding it would
/// take ten times as long. Nothing when they are not where they should be.
std::optional<CertificateNames> namesIn(const Buffer& pem, IssuerHashes& hashes);

} // namespace Norvane::Crypto::NVX509::keystore
