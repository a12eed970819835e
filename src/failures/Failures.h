#pragma once

/// \file
/// What the library throws, as data: operators and callers match on these texts and numbers, so they stand here once
/// and the modules only name them. A line of 0 stands for the line of the throw.

namespace Norvane::Crypto::failures {

/// One failure: where-text, code, source module, line.
struct Failure {
    const char* where;
    int code;
    const char* file;
    unsigned int line = 0;
};

inline constexpr int nullHandle = 1;      ///< null handles and failed casts
inline constexpr int operationFailed = 4; ///< failed OpenSSL operations, bad input, failed construction

// ASN1
inline constexpr Failure integerType{"ASN1::Integer::Integer", operationFailed, "ASN1", 25};
inline constexpr Failure integerNull{"ASN1::Integer::Integer", operationFailed, "ASN1", 47};

// BIO
inline constexpr Failure memoryBio{"Crypto::MemoryBIO", operationFailed, "BIO"};
inline constexpr Failure fileBio{"Crypto::FileBIO", operationFailed, "BIO"};

// BIOMediaImpl
inline constexpr Failure mediaWithoutBody{"MediaException", nullHandle, "BIOMediaImpl"};

// Hasher
inline constexpr Failure hasher{"Crypto::Hasher", operationFailed, "Hasher"};
inline constexpr Failure hasherWithoutBody{
    "const Norvane::Crypto::RefHasher& Norvane::Crypto::HasherMediaOut::hasher() const", nullHandle, "Hasher"};
inline constexpr Failure signerSign{"Crypto::Signer::sign", operationFailed, "Hasher"};
inline constexpr Failure verifierFinalized{"virtual bool Norvane::Crypto::Verifier::isValid(const Norvane::Buffer&)",
                                           operationFailed, "Hasher"};
inline constexpr Failure verifierError{"Crypto::Verififer::isValid", operationFailed, "Hasher"};
inline constexpr Failure verifierWithoutBody{
    "const Norvane::Crypto::RefVerifier& Norvane::Crypto::VerifierMediaOut::verifier() const", nullHandle, "Hasher"};

// Key
inline constexpr Failure privateKeyReadPem{"Crypto::PrivateKey::read", operationFailed, "Key", 82};
inline constexpr Failure privateKeyReadSource{"Crypto::PrivateKey::read", operationFailed, "Key", 105};
inline constexpr Failure privateKeyRead{"Crypto::PrivateKey::read", operationFailed, "Key", 112};
inline constexpr Failure privateKeyWritePemInner{"Crypto::PrivateKey::writePEM", operationFailed, "Key", 139};
inline constexpr Failure privateKeyWritePem{"Crypto::PrivateKey::writePEM", operationFailed, "Key", 149};
inline constexpr Failure privateKeyWriteInner{"Crypto::PrivateKey::read", operationFailed, "Key", 164};
inline constexpr Failure privateKeyWrite{"Crypto::PrivateKey::write", operationFailed, "Key", 179};
inline constexpr Failure publicKeyReadPem{"Crypto::PublicKey::read", operationFailed, "Key", 217};
inline constexpr Failure publicKeyRead{"Crypto::PublicKey::read", operationFailed, "Key", 241};
inline constexpr Failure publicKeyWritePemInner{"Crypto::PublicKey::writePEM", operationFailed, "Key", 256};
inline constexpr Failure publicKeyWritePem{"Crypto::PublicKey::writePEM", operationFailed, "Key", 266};
inline constexpr Failure publicKeyWriteInner{"Crypto::PublicKey::read", operationFailed, "Key", 282};
inline constexpr Failure publicKeyWrite{"Crypto::PublicKey::write", operationFailed, "Key", 296};

// KeyFactory
inline constexpr Failure generatePublicKey{"Crypto::KeyGenerator::s_generateRSA write RSA PublicKey", operationFailed,
                                           "KeyFactory", 27};
inline constexpr Failure generatePrivateKey{"Crypto::KeyGenerator::s_generateRSA write RSA PrivateKey", operationFailed,
                                            "KeyFactory", 40};

// Certificate
inline constexpr Failure verifierInstance{"CertificateVerifier::instance", operationFailed, "Certificate", 631};
inline constexpr Failure verifierIsValid{"CertificateVerifier::isValid", operationFailed, "Certificate", 646};

// CMS
inline constexpr Failure contentInfoDecode{"CMS::_ContentInfo::_ContentInfo", operationFailed, "CMS", 389};
inline constexpr Failure contentInfoCreate{"CMS::RefContentInfo::RefContentInfo", operationFailed, "CMS", 404};

// CMSSignerMedia
inline constexpr const char* signerMediaConstructor = "CMS::SignerMediaOutImpl::SignerMediaOutImpl";
inline constexpr Failure signerKeyMismatch{signerMediaConstructor, operationFailed, "CMSSignerMedia", 43};
inline constexpr Failure signerSetType{signerMediaConstructor, operationFailed, "CMSSignerMedia", 49};
inline constexpr Failure signerDigest{signerMediaConstructor, operationFailed, "CMSSignerMedia", 56};
inline constexpr Failure signerAddSignature{signerMediaConstructor, operationFailed, "CMSSignerMedia", 63};
inline constexpr Failure signerDataInit{signerMediaConstructor, operationFailed, "CMSSignerMedia", 91};
inline constexpr Failure signerAddCertificate{signerMediaConstructor, operationFailed, "CMSSignerMedia"};
inline constexpr Failure signerEnd{"CMS::SignerMediaOutImpl::end", operationFailed, "CMSSignerMedia", 147};
inline constexpr Failure signerWrite{"CMS::SignerMediaOutImpl::end", operationFailed, "CMSSignerMedia"};
inline constexpr Failure signerAttach{"CMS::SignerMediaOut::attach", nullHandle, "CMSSignerMedia"};

} // namespace Norvane::Crypto::failures
