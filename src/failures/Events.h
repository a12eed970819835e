#pragma once

/// \file
/// What the library logs, as data, and the verbs that log it. Operators match on the event codes.

#include "failures/Failures.h"

#include <norvcmsg/Logger.h>

#include <string>

namespace Norvane::Crypto::failures {

/// An event code of the appliance's log.
enum class Event : unsigned int {
    x509 = 0x4000000,                    ///< validity checks and general names; the first field tells which
    keyStoreNotReady = 0x3000060,        ///< nobody made the key store while a reader waited
    keyStoreFailure = 0x3000061,         ///< an exception ended a request for the key store
    signerDigestMismatch = 0x300004E,    ///< the body was digested with another algorithm than the signer's
    signerDigestMissing = 0x300004F,     ///< signed attributes without a message digest
    signerDigestDiffers = 0x3000050,     ///< the message digest attribute is not the body's digest
    signerKeyMissing = 0x3000051,        ///< the certificate has no usable public key
    signerSignatureWrong = 0x3000052,    ///< the signature does not belong to the body and key
    encryptedBytesRead = 0x3000057,      ///< somebody read bytes from a decrypting stream, which only writes
    notEnveloped = 0x3000058,            ///< a structure of another type was given to decrypt
    encryptedContentMissing = 0x3000059, ///< an enveloped structure without encrypted content
    recipientKeyMissing = 0x300005A,     ///< no private key for a recipient; issuer and serial number
    recipientFailed = 0x300005B,         ///< a recipient's key did not decrypt the body
    bindingUnreadable = 0x300005C,       ///< the certificates or the key of a binding cannot be read
    contentTypeUnknown = 0x300005D,      ///< a content type that the library does not know
    contentInfoUndecodable = 0x300005E,  ///< bytes that are no CMS structure
    recipientsNotTried = 0x300005F       ///< how many recipients of a message were beyond the limits of tries
};

/// Numbers of the messages under `Event::x509`.
enum class X509Message : int { afterValidity = 6, beforeValidity = 7, invalidAddress = 7 };

/// Logs one text under an event.
inline void logEvent(Event event, const std::string& text) {
    Logger::instance(false).message(static_cast<unsigned int>(event), 0, "%s", text.c_str());
}

/// Logs two texts, each a field of its own.
inline void logEvent(Event event, const std::string& first, const std::string& second) {
    Logger::instance(false).message(static_cast<unsigned int>(event), 0, "%s\x01%s", first.c_str(), second.c_str());
}

/// Logs a failure that is not passed on: its where-text, source and line, and what happened, each a field of its own.
inline void logFailure(Event event, const Failure& failure, const std::string& text) {
    Logger::instance(false).message(static_cast<unsigned int>(event), 0, "%s\x01%s\x01%d\x01%s", failure.where,
                                    failure.file, static_cast<int>(failure.line), text.c_str());
}

/// Logs a text and a number, each a field of its own.
inline void logEvent(Event event, const std::string& text, int number) {
    Logger::instance(false).message(static_cast<unsigned int>(event), 0, "%s\x01%d", text.c_str(), number);
}

/// Logs a numbered message under `Event::x509`.
inline void logX509(X509Message message, const std::string& text) {
    Logger::instance(false).message(static_cast<unsigned int>(Event::x509), 0, "%d\x01%s", static_cast<int>(message),
                                    text.c_str());
}

} // namespace Norvane::Crypto::failures
