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

// PKCS12
inline constexpr Failure pkcs12Decode{"Crypto::PKCS12::Store", operationFailed, "PKCS12", 23};
inline constexpr Failure pkcs12Password{"Crypto::PKCS12::read - Incorrect password", operationFailed, "PKCS12", 56};
inline constexpr Failure pkcs12Parse{"Crypto::PKCS12::read - parsing error.", operationFailed, "PKCS12", 67};
inline constexpr Failure pkcs12Read{"Crypto::PKCS12::read", operationFailed, "PKCS12"};

// Encryption
inline constexpr Failure generateIV{"Crypto::IntializationVectorGenerator::generateIV", operationFailed, "Encryption",
                                    26};
inline constexpr Failure cipherUnknown{"const EVP_CIPHER* Norvane::Crypto::initializeCipher(Norvane::Crypto::Cipher)",
                                       operationFailed, "Encryption", 81};
inline constexpr Failure encryptionWithoutCipher{"Crypto::s_initializeEncryptionContext", operationFailed, "Encryption",
                                                 106};
inline constexpr Failure encryptionTooShort{"Crypto::s_initializeEncryptionContext", operationFailed, "Encryption"};
inline constexpr Failure encryptionContext{"s_initializeEncryptionContext", operationFailed, "Encryption", 114};
inline constexpr Failure encrypterWrite{"Crypto::EncrypterMediaOut::write", operationFailed, "Encryption", 150};
inline constexpr Failure encrypterEnd{"Crypto::EncrypterMediaOut::write", operationFailed, "Encryption", 168};
inline constexpr Failure decryptionWithoutCipher{"Crypto::s_initializeDecryptionContext", operationFailed, "Encryption",
                                                 199};
inline constexpr Failure decryptionTooShort{"Crypto::s_initializeDecryptionContext", operationFailed, "Encryption"};
inline constexpr Failure decryptionContext{"s_initializeEncryptionContext", operationFailed, "Encryption", 210};
inline constexpr Failure decrypterWrite{"Crypto::Decrypter::write", operationFailed, "Encryption", 246};
inline constexpr Failure decrypterEnd{"Crypto::Decrypter::update", operationFailed, "Encryption", 264};

// CMS
inline constexpr Failure contentInfoDecode{"CMS::_ContentInfo::_ContentInfo", operationFailed, "CMS", 389};
inline constexpr Failure contentInfoCreate{"CMS::RefContentInfo::RefContentInfo", operationFailed, "CMS", 404};
inline constexpr Failure certificateIdentifier{"CMS::CertificateIdentifier::CertificateIdentifier", operationFailed,
                                               "CMSIdentifier"};

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

// CMSVerification
inline constexpr Failure signatureVerifier{"CMS::SignatureVerifier::SignatureVerifier", operationFailed,
                                           "CMSVerification"};
inline constexpr Failure verifyEmbedded{"CMS::verifyEmbeddedSignatures", operationFailed, "CMSVerification"};

// CMSEncryptionMedia
inline constexpr const char* encrypterMediaConstructor = "CMS::EncrypterMediaOutImpl::EncrypterMediaOutImpl";
inline constexpr Failure enveloperSetType{encrypterMediaConstructor, operationFailed, "CMSEncryptionMedia", 47};
inline constexpr Failure enveloperSetCipher{encrypterMediaConstructor, operationFailed, "CMSEncryptionMedia", 55};
inline constexpr Failure enveloperDataInit{encrypterMediaConstructor, operationFailed, "CMSEncryptionMedia", 74};
inline constexpr Failure enveloperAddRecipient{"CMS::EncrypterMediaOutImpl::addCertificate", operationFailed,
                                               "CMSEncryptionMedia", 96};
inline constexpr Failure enveloperEnd{"CMS::EncrypterMediaOutImpl::end", operationFailed, "CMSEncryptionMedia", 136};
inline constexpr Failure enveloperWrite{"CMS::EncrypterMediaOutImpl::end", operationFailed, "CMSEncryptionMedia"};
inline constexpr Failure enveloperAttach{"CMS::EncrypterMediaOut::attach", nullHandle, "CMSEncryptionMedia"};
inline constexpr Failure decrypterBody{"CMS::DecrypterMediaIn", nullHandle, "CMSEncryptionMedia"};

// CertBinding: logged, never thrown
inline constexpr const char* bindingConstructor =
    "Norvane::Crypto::CertBindingX509::CertBindingX509(int, const Norvane::StringPattern&, "
    "Norvane::Crypto::CertBinding::KeyType, Norvane::Crypto::CertBinding::KeyUsage, Norvane::uint_t, int, "
    "const char*, const char*, const char*)";
inline constexpr Failure bindingCertificates{bindingConstructor, operationFailed, "CertBinding.cpp", 89};
inline constexpr Failure bindingKey{bindingConstructor, operationFailed, "CertBinding.cpp", 103};

// CertBindingSet
inline constexpr Failure bindingSetFind{"CertBindingSet::find", operationFailed, "CertBindingSet", 106};
inline constexpr Failure bindingSetFindSet{"CertBindingSet::find", operationFailed, "CertBindingSet", 127};

// NorvSSL
inline constexpr Failure contextPrivateKey{
    "void Norvane::Crypto::NVSSL::Context::privateKey(const Norvane::Crypto::RefKey&)", operationFailed, "NorvSSL", 31};
inline constexpr Failure contextCertificate{
    "void Norvane::Crypto::NVSSL::Context::certificate(const Norvane::Crypto::NVX509::RefCertificate&)",
    operationFailed, "NorvSSL", 42};
inline constexpr Failure contextAppendToPath{
    "void Norvane::Crypto::NVSSL::Context::appendToCertificatePath(const Norvane::Crypto::NVX509::RefCertificate&)",
    operationFailed, "NorvSSL", 54};
inline constexpr const char* contextCreate =
    "virtual Norvane::Crypto::NVSSL::RefContext "
    "Norvane::Crypto::NVSSL::ContextFactory::create(Norvane::Crypto::NVSSL::ContextFactory::Method, bool)";
inline constexpr Failure contextClientMethod{contextCreate, operationFailed, "NorvSSL", 147};
inline constexpr Failure contextServerMethod{contextCreate, operationFailed, "NorvSSL", 169};
inline constexpr Failure contextNew{contextCreate, operationFailed, "NorvSSL", 181};
inline constexpr Failure noHostName{"NVSSL::asciiHostName", operationFailed, "NorvSSL"};

// SSLSocket
inline constexpr const char* sslConnect =
    "virtual void Norvane::Crypto::NVSSL::SSLSocketImpl::connect(const Norvane::SocketAddress&)";
inline constexpr const char* sslAccept = "virtual Norvane::Socket Norvane::Crypto::NVSSL::SSLSocketImpl::accept()";
inline constexpr const char* onTheWire = "SocketException"; ///< where-text of everything that fails on the wire
inline constexpr Failure connectWithoutContext{sslConnect, operationFailed, "SSLSocket", 62};
inline constexpr Failure connectNew{sslConnect, operationFailed, "SSLSocket", 69};
inline constexpr Failure connectDescriptor{onTheWire, operationFailed, "SSLSocket", 76};
inline constexpr Failure connectHandshake{onTheWire, operationFailed, "SSLSocket", 97};
inline constexpr Failure acceptWithoutContext{sslAccept, operationFailed, "SSLSocket", 107};
inline constexpr Failure acceptNew{sslAccept, operationFailed, "SSLSocket", 119};
inline constexpr Failure acceptDescriptor{onTheWire, operationFailed, "SSLSocket", 125};
inline constexpr Failure acceptHandshake{onTheWire, operationFailed, "SSLSocket", 146};
inline constexpr Failure sendNotConnected{onTheWire, nullHandle, "SSLSocket", 163};
inline constexpr Failure sendFailed{onTheWire, operationFailed, "SSLSocket", 198};
inline constexpr Failure receiveNotConnected{onTheWire, nullHandle, "SSLSocket", 212};
inline constexpr Failure receiveFailed{onTheWire, operationFailed, "SSLSocket", 249};
inline constexpr Failure peerNotTrusted{onTheWire, operationFailed, "SSLSocket"};
inline constexpr Failure upgradeRefused{onTheWire, operationFailed, "SSLSocket"};
inline constexpr Failure sslNotConnected{onTheWire, nullHandle, "SSLSocket"};

// CMSStreamReader: enveloped data
inline constexpr Failure envelopeReader{"CMS::EnvelopeReader", operationFailed, "CMSEnvelopeReader"};
inline constexpr Failure envelopeReaderBody{"CMS::EnvelopeReader", nullHandle, "CMSEnvelopeReader"};

// CMSStreamReader: signed data
inline constexpr Failure signedReader{"CMS::SignedReader", operationFailed, "CMSSignedReader"};

// CMSStreamWriter: enveloped data
inline constexpr Failure envelopeRecipient{"CMS::EnvelopeRecipient", operationFailed, "CMSEnvelopeWriter"};
inline constexpr Failure envelopeWriter{"CMS::EnvelopeWriter", operationFailed, "CMSEnvelopeWriter"};
inline constexpr Failure envelopeWrite{"CMS::EnvelopeWriter::write", operationFailed, "CMSEnvelopeWriter"};
inline constexpr Failure envelopeEnd{"CMS::EnvelopeWriter::end", operationFailed, "CMSEnvelopeWriter"};

// CMSStreamWriter: signed data
inline constexpr Failure signedWriter{"CMS::SignedWriter", operationFailed, "CMSSignedWriter"};
inline constexpr Failure signedWriterWrite{"CMS::SignedWriter::write", operationFailed, "CMSSignedWriter"};
inline constexpr Failure signedWriterEnd{"CMS::SignedWriter::end", operationFailed, "CMSSignedWriter"};
inline constexpr Failure signedWriterAttach{"CMS::SignedWriter::attach", nullHandle, "CMSSignedWriter"};

} // namespace Norvane::Crypto::failures
