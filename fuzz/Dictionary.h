#pragma once

/// \file
/// What the readers know, as octets: for the dictionaries of libFuzzer, and for `TlvMutator`, which puts whole elements into
/// encodings.

#include <authority/Der.h>

#include <string>
#include <vector>

namespace fuzz {

using norvauthority::Bytes;

/// Elements in DER and BER: object identifiers, algorithms with their parameters, attributes, extensions, names, numbers,
/// strings and times, proper and odd ones.
const std::vector<Bytes>& elements();
/// Headers of elements with lengths of every form, whose content is not there, and ends of contents.
const std::vector<Bytes>& headers();

const std::vector<std::string>& mailWords();   ///< names and values of header fields, boundaries, encodings
const std::vector<std::string>& pemWords();    ///< lines around blocks, headers of encrypted keys
const std::vector<std::string>& textWords();   ///< of addresses, URIs, patterns and distinguished names
const std::vector<std::string>& tlsWords();    ///< beginnings of records and handshake messages, extensions
const std::vector<std::string>& milterWords(); ///< what fuzz_milter takes for callbacks, and what an MTA says
const std::vector<std::string>& configWords(); ///< keys and values of the mail filter's configuration

} // namespace fuzz
