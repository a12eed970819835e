#pragma once

/// \file
/// Who takes part. A new reader or writer is one `add` in Ours.cpp or Streams.cpp; a new peer is one file and one line in main.cpp.
///
/// The tasks over sizes: "digest" (SHA-256), "encrypt" and "decrypt" (AES-256-CBC under a given key), "sign" (a detached
/// signature), "verify" (one with signed attributes and a certificate), "envelope" (a message for one recipient), "open" (one
/// with definite lengths), "open BER" (one in segments of 4096 bytes), "open authenticated" (AuthEnvelopedData), "sign attached",
/// "verify attached". Over numbers, with a body of 1 KB: "envelope for recipients", "open as last of recipients", "sign with
/// certificates", "verify among certificates", "verify signers", "read list of entries".
///
/// The tasks over whole messages (Messages.cpp), for which x is the size of the mail that is signed or encrypted: "sign a message"
/// (multipart/signed), "sign a message opaquely", "encrypt a message", "sign and encrypt a message", "verify a message", "verify
/// an opaque message", "decrypt a message", "decrypt and verify a message".

#include "Contest.h"
#include "Material.h"

namespace bench {

void addPrimitives(Contest& contest, const Material& material);
void addOurs(Contest& contest, const Material& material);
void addStreams(Contest& contest, const Material& material);
void addMessages(Contest& contest, const Material& material);
void addOpensslStructures(Contest& contest, const Material& material);
void addBotan(Contest& contest, const Material& material);
void addNss(Contest& contest, const Material& material);
void addQca(Contest& contest, const Material& material);
void addGpgsm(Contest& contest, const Material& material);

} // namespace bench
