#pragma once

/// \file
/// Puts DER together from the inside out: every function makes one element of what is given.
///
/// \code
/// const Encoded algorithm = sequence({openssl::objectIdentifier(NID_rsaEncryption), null()});
/// \endcode

#include "framing/Elements.h"

#include <cstdint>
#include <initializer_list>
#include <span>
#include <vector>

namespace Norvane::Crypto::framing {

using Encoded = std::vector<unsigned char>;

/// A primitive element.
Encoded primitive(TagClass tagClass, std::uint32_t tag, Octets content);
/// INTEGER: a number that is not negative.
Encoded integerOf(std::uint64_t number);
/// OCTET STRING.
Encoded octetStringOf(Octets content);
/// BIT STRING of whole octets.
Encoded bitStringOf(Octets content);
/// NULL.
Encoded null();
/// SEQUENCE of elements.
Encoded sequenceOf(std::initializer_list<Octets> elements);
/// SET OF elements, in the order given: DER wants them sorted, see `sortForDer`.
Encoded setOf(std::span<const Encoded> elements);
/// [tag] around elements.
Encoded contextOf(std::uint32_t tag, std::initializer_list<Octets> elements);

/// Brings the elements of a SET OF into the order of DER (X.690, 11.6).
void sortForDer(std::vector<Encoded>& elements);

} // namespace Norvane::Crypto::framing
