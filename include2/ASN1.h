#ifndef NORVCRYPTO_ASN1_H
#define NORVCRYPTO_ASN1_H

/// \file
/// ASN.1 values: the integers, object identifiers, strings and times that certificates, revocation lists and CMS
/// structures are made of. Each comes as a value (`Integer`), a counted body (`_Integer`) and a handle (`RefInteger`);
/// see NorvRefcounted for handles.
///
/// \code
/// using namespace Norvane::Crypto;
/// ASN1::RefObjectIdentifier signedData(std::string("1.2.840.113549.1.7.2"));
/// if (contentInfo.type() == *signedData) { ... }
/// std::cout << certificate->serialNumber();              // lower-case hexadecimal, and leaves the stream in hex
/// if (certificate->serialNumber() == *wanted) { ... }    // compare values, never RefInteger handles
/// \endcode
///
/// Who owns what: a value made from an OpenSSL pointer borrows it (the structure that it came from must outlive the
/// value and its copies); a value decoded from DER or made from a text owns its object. A borrowing value copies as
/// borrowing, one that owns copies deeply. A value may be empty (no object); it then compares as told below and prints
/// nothing.
///
/// Failures: DER (ITU-T X.690) or text that cannot be decoded gives an empty value, never an exception; bytes after the
/// decoded element are ignored. The only throws are those of `Integer` and of null handles. Nothing here leaves entries
/// in OpenSSL's error queue.
///
/// Threads: caches are filled on first use without a lock. Read a value once before threads share it.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Time.h>
#include <norvcrypto/Export.h>
#include <norvcrypto/NorvRefcounted>
#include <norvcrypto/detail/MaybeOwned.h>

#include <iosfwd>
#include <string>

struct asn1_object_st;
struct asn1_string_st;

namespace Norvane::Crypto::detail {

/// The string-like ASN.1 types that the values hold.
enum class Asn1Kind : int { integer, octetString, ia5String, bitString, generalizedTime };

template <Asn1Kind Kind> struct NORVCRYPTO_EXPORT Asn1StringTraits {
    static void free(asn1_string_st* string) noexcept;
    static asn1_string_st* duplicate(const asn1_string_st* string);
};

struct NORVCRYPTO_EXPORT Asn1ObjectTraits {
    static void free(asn1_object_st* object) noexcept;
    static asn1_object_st* duplicate(const asn1_object_st* object);
};

template <Asn1Kind Kind> using Asn1String = MaybeOwned<asn1_string_st, Asn1StringTraits<Kind>>;
using Asn1Object = MaybeOwned<asn1_object_st, Asn1ObjectTraits>;

} // namespace Norvane::Crypto::detail

namespace Norvane::Crypto::ASN1 {

/// A non-negative integer of any size: serial numbers, versions, list numbers.
class NORVCRYPTO_EXPORT Integer {
public:
    /// The empty integer.
    Integer();
    /// Borrows an OpenSSL integer; null gives the empty integer.
    /// \throws Exception "ASN1::Integer::Integer", code 4, file ASN1, line 25, detail "Parameter value is not an ASN1
    /// Integer": another type. A negative integer has another type (0x102) and is refused here on purpose: RFC 5280,
    /// 4.1.2.2 and 5.2.3, knows only positive serial and list numbers.
    explicit Integer(const asn1_string_st* integer);
    Integer(const Integer& other);
    Integer& operator=(const Integer& other);
    virtual ~Integer();

    /// The whole DER encoding (tag, length, content); empty for the empty integer.
    [[nodiscard]] Buffer encoded() const;
    /// The number, decoded once. Beyond 32 bits the low 32 bits come back, beyond 63 bits -1: for larger numbers, as
    /// serial numbers are, use the comparisons, `hex()` or `content()`.
    /// \throws Exception "ASN1::Integer::Integer" (the constructor's text), code 4, file ASN1, line 47, detail
    /// "Encoding value is Null": the empty integer
    [[nodiscard]] int asInt() const;
    /// The content octets of the DER encoding, big endian, with a leading zero octet where DER has one.
    [[nodiscard]] const Buffer& content() const noexcept { return m_content; }
    /// The number in lower-case hexadecimal, two digits an octet and without the leading zero octet of DER: what
    /// `openssl x509 -serial` shows, in lower case. The empty text for the empty integer.
    [[nodiscard]] std::string hex() const;
    /// OpenSSL's object, or null; it lives as long as this value, or as long as what this value borrows from.
    [[nodiscard]] const asn1_string_st* object() const noexcept { return m_object.get(); }

    /// Equal numbers; an empty integer equals nothing, not even another empty one.
    bool operator==(const Integer& other) const;
    bool operator!=(const Integer& other) const { return !(*this == other); }
    /// Numeric order; the empty integer comes before every other.
    bool operator<(const Integer& other) const;
    /// Equal or less, each as above: false between two empty integers.
    bool operator<=(const Integer& other) const;

protected:
    /// Decodes DER. \throws as the public constructor, for a negative integer
    Integer(const unsigned char* der, unsigned int length);

private:
    void takeContent();

    Buffer m_content;
    detail::Asn1String<detail::Asn1Kind::integer> m_object;
    mutable bool m_valueKnown = false;
    mutable int m_value = 0;
};

/// An object identifier (ITU-T X.660): what names algorithms, attributes, extensions and content types.
class NORVCRYPTO_EXPORT ObjectIdentifier {
public:
    /// The empty object identifier.
    ObjectIdentifier();
    /// Borrows an OpenSSL object; null gives the empty one.
    explicit ObjectIdentifier(const asn1_object_st* object);
    ObjectIdentifier(const ObjectIdentifier& other);
    ObjectIdentifier& operator=(const ObjectIdentifier& other);
    virtual ~ObjectIdentifier();

    /// The dotted text ("2.5.29.17"), computed once, or the text that the value was made from. Empty without an object
    /// and for octets that end inside a number. Numbers are accumulated in 32 bits, so that larger ones wrap: two
    /// different identifiers may have one text. Decide with `==`, never by text.
    [[nodiscard]] const std::string& asString() const;
    /// Stops owning the object, which then outlives this value and has to be freed by the caller.
    void relinquishOwnerShip() noexcept { m_object.owned(false); }
    /// OpenSSL's object, or null; it lives as long as this value, or as long as what this value borrows from.
    [[nodiscard]] const asn1_object_st* object() const noexcept { return m_object.get(); }

    /// Equal encoded octets; an empty object identifier equals nothing, not even another empty one.
    bool operator==(const ObjectIdentifier& other) const;
    bool operator!=(const ObjectIdentifier& other) const { return !(*this == other); }

protected:
    explicit ObjectIdentifier(const std::string& text);
    ObjectIdentifier(const unsigned char* der, unsigned int length);

private:
    mutable std::string m_text;
    detail::Asn1Object m_object;
};

/// What the three string types share. Comparison is by octets, within one type only.
template <detail::Asn1Kind Kind> class NORVCRYPTO_EXPORT StringValue {
public:
    /// The empty value.
    StringValue();
    /// Borrows an OpenSSL string; null gives the empty value.
    explicit StringValue(const asn1_string_st* string);
    StringValue(const StringValue& other);
    StringValue& operator=(const StringValue& other);
    virtual ~StringValue();

    /// The content octets, not ended by a zero byte; null for the empty value. They live as long as the object does.
    [[nodiscard]] const unsigned char* data() const noexcept;
    /// The number of content octets; 0 for the empty value. Of a bit string: the octets, the unused bits included.
    [[nodiscard]] unsigned int length() const noexcept;
    /// OpenSSL's object, or null; it lives as long as this value, or as long as what this value borrows from.
    [[nodiscard]] const asn1_string_st* object() const noexcept { return m_object.get(); }

    /// Equal length and octets; an empty value equals nothing, not even another empty one.
    bool operator==(const StringValue& other) const;
    bool operator!=(const StringValue& other) const { return !(*this == other); }

protected:
    StringValue(const unsigned char* der, unsigned int length);

private:
    detail::Asn1String<Kind> m_object;
};

extern template class StringValue<detail::Asn1Kind::octetString>;
extern template class StringValue<detail::Asn1Kind::ia5String>;
extern template class StringValue<detail::Asn1Kind::bitString>;

/// An OCTET STRING: key identifiers, digests, the DER of an extension.
class NORVCRYPTO_EXPORT OctetString : public StringValue<detail::Asn1Kind::octetString> {
public:
    using StringValue::StringValue;
    ~OctetString() override;

protected:
    OctetString(const unsigned char* der, unsigned int length);
};

/// An IA5String: e-mail addresses and URIs. Its octets come from whoever issued the structure: they may hold zero and
/// control bytes.
class NORVCRYPTO_EXPORT IA5String : public StringValue<detail::Asn1Kind::ia5String> {
public:
    using StringValue::StringValue;
    ~IA5String() override;

protected:
    IA5String(const unsigned char* der, unsigned int length);
};

/// A BIT STRING: key usages, reasons, signatures. Bit 0 is the highest bit of the first octet.
class NORVCRYPTO_EXPORT BitString : public StringValue<detail::Asn1Kind::bitString> {
public:
    using StringValue::StringValue;
    ~BitString() override;

protected:
    BitString(const unsigned char* der, unsigned int length);
};

/// A point in time; it is its own body, so that copies of it are bodies of their own.
class NORVCRYPTO_EXPORT GeneralizedTime : public RefImpl {
public:
    /// \param time     a UTCTime or GeneralizedTime; null gives the empty time
    /// \param wrapOnly true borrows `time` as it is; false owns a GeneralizedTime made from it, where a UTCTime gets
    ///                 its four-digit year (RFC 5280, 4.1.2.5.1: 50 to 99 are 19xx) and what is no valid time
    ///                 gives the empty time
    GeneralizedTime(const asn1_string_st* time, bool wrapOnly);
    GeneralizedTime(const GeneralizedTime& other);
    GeneralizedTime& operator=(const GeneralizedTime& other);
    ~GeneralizedTime() override;

    /// The broken-down time, parsed once from "YYYYMMDDHHMMSS". Whatever follows (fractions, a zone) is ignored: RFC
    /// 5280 times are UTC, and the fields of a time with an offset are used as they stand. Without an object, and for a
    /// shorter text (a borrowed UTCTime too), this is a default-constructed `Time`. It lives as long as this value.
    [[nodiscard]] const Time& asTime() const;
    /// OpenSSL's object, or null; it lives as long as this value, or as long as what this value borrows from.
    [[nodiscard]] const asn1_string_st* object() const noexcept { return m_object.get(); }

    /// Equal times; two empty ones are equal, an empty and another one are not.
    bool operator==(const GeneralizedTime& other) const;
    bool operator!=(const GeneralizedTime& other) const { return !(*this == other); }
    /// The empty time comes before every other.
    bool operator<(const GeneralizedTime& other) const;
    /// When either is empty: true exactly when this one is.
    bool operator<=(const GeneralizedTime& other) const;

private:
    detail::Asn1String<detail::Asn1Kind::generalizedTime> m_object;
    mutable Time m_time;
};

// The bodies: the value and a count. They are made by the handles.

class NORVCRYPTO_EXPORT _Integer : public Integer, public RefImpl, public NonCopyable {
public:
    using Integer::Integer;
    /// Decodes DER. \throws as `Integer`, for a negative integer
    _Integer(const unsigned char* der, unsigned int length);
    ~_Integer() override;
};

class NORVCRYPTO_EXPORT _ObjectIdentifier : public ObjectIdentifier, public RefImpl, public NonCopyable {
public:
    using ObjectIdentifier::ObjectIdentifier;
    explicit _ObjectIdentifier(const std::string& text);
    _ObjectIdentifier(const unsigned char* der, unsigned int length);
    ~_ObjectIdentifier() override;
};

class NORVCRYPTO_EXPORT _OctetString : public OctetString, public RefImpl, public NonCopyable {
public:
    using OctetString::OctetString;
    _OctetString(const unsigned char* der, unsigned int length);
    ~_OctetString() override;
};

class NORVCRYPTO_EXPORT _IA5String : public IA5String, public RefImpl, public NonCopyable {
public:
    using IA5String::IA5String;
    _IA5String(const unsigned char* der, unsigned int length);
    ~_IA5String() override;
};

class NORVCRYPTO_EXPORT _BitString : public BitString, public RefImpl, public NonCopyable {
public:
    using BitString::BitString;
    _BitString(const unsigned char* der, unsigned int length);
    ~_BitString() override;
};

} // namespace Norvane::Crypto::ASN1

namespace Norvane {
extern template class RefCounted<Crypto::ASN1::_Integer>;
extern template class Ref<Crypto::ASN1::_Integer>;
extern template class RefCounted<Crypto::ASN1::_ObjectIdentifier>;
extern template class Ref<Crypto::ASN1::_ObjectIdentifier>;
extern template class RefCounted<Crypto::ASN1::_OctetString>;
extern template class Ref<Crypto::ASN1::_OctetString>;
extern template class RefCounted<Crypto::ASN1::_IA5String>;
extern template class Ref<Crypto::ASN1::_IA5String>;
extern template class RefCounted<Crypto::ASN1::_BitString>;
extern template class Ref<Crypto::ASN1::_BitString>;
extern template class RefCounted<Crypto::ASN1::GeneralizedTime>;
extern template class Ref<Crypto::ASN1::GeneralizedTime>;
} // namespace Norvane

namespace Norvane::Crypto::ASN1 {

/// A handle on an integer.
class NORVCRYPTO_EXPORT RefInteger : public Ref<_Integer> {
public:
    RefInteger();
    /// A deep copy of `value`, independent of what it borrows from; a null handle for the empty integer.
    explicit RefInteger(const Integer& value);
    /// Borrows, as `Integer` does. \throws as `Integer`
    explicit RefInteger(const asn1_string_st* integer);
    /// Decodes DER. \throws as `Integer`, for a negative integer
    RefInteger(const unsigned char* der, unsigned int length);
    RefInteger(const RefInteger& other);
    RefInteger& operator=(const RefInteger& other);
    ~RefInteger() override;

    /// Deliberately odd: true exactly when both handles are non-null, WHATEVER their values. To compare numbers,
    /// dereference both: `*a == *b`.
    bool operator==(const RefInteger& other) const;
    bool operator!=(const RefInteger& other) const { return !(*this == other); }
};

/// A handle on an object identifier.
class NORVCRYPTO_EXPORT RefObjectIdentifier : public Ref<_ObjectIdentifier> {
public:
    RefObjectIdentifier();
    /// Borrows an OpenSSL object; a null pointer gives a null handle.
    explicit RefObjectIdentifier(const asn1_object_st* object);
    /// Dotted numbers or a name that OpenSSL knows ("2.5.29.17", "subjectAltName"). The text is kept as given; an
    /// unknown one, and one with a number of more than 256 digits, gives a body without an object, which equals
    /// nothing.
    explicit RefObjectIdentifier(const std::string& text);
    /// Decodes DER.
    RefObjectIdentifier(const unsigned char* der, unsigned int length);
    RefObjectIdentifier(const RefObjectIdentifier& other);
    RefObjectIdentifier& operator=(const RefObjectIdentifier& other);
    ~RefObjectIdentifier() override;

    /// A handle on a body of its own, made from this one's `asString()`.
    /// \throws Exception "operator->", code 1: a null handle
    [[nodiscard]] RefObjectIdentifier clone() const;

    /// False when either handle is null, true when both share a body, else the values' `==`.
    bool operator==(const RefObjectIdentifier& other) const;
    bool operator!=(const RefObjectIdentifier& other) const { return !(*this == other); }
};

/// A handle on an octet string.
class NORVCRYPTO_EXPORT RefOctetString : public Ref<_OctetString> {
public:
    RefOctetString();
    /// Borrows; a null pointer gives a handle on an empty value.
    explicit RefOctetString(const asn1_string_st* string);
    /// Decodes DER.
    RefOctetString(const unsigned char* der, unsigned int length);
    RefOctetString(const RefOctetString& other);
    RefOctetString& operator=(const RefOctetString& other);
    ~RefOctetString() override;

    /// False when either handle is null, true when both share a body, else the values' `==`.
    bool operator==(const RefOctetString& other) const;
    bool operator!=(const RefOctetString& other) const { return !(*this == other); }
};

/// A handle on an IA5 string.
class NORVCRYPTO_EXPORT RefIA5String : public Ref<_IA5String> {
public:
    RefIA5String();
    /// Borrows; a null pointer gives a handle on an empty value.
    explicit RefIA5String(const asn1_string_st* string);
    /// Decodes DER.
    RefIA5String(const unsigned char* der, unsigned int length);
    RefIA5String(const RefIA5String& other);
    RefIA5String& operator=(const RefIA5String& other);
    ~RefIA5String() override;

    /// False when either handle is null, true when both share a body, else the values' `==`.
    bool operator==(const RefIA5String& other) const;
    bool operator!=(const RefIA5String& other) const { return !(*this == other); }
};

/// A handle on a bit string.
class NORVCRYPTO_EXPORT RefBitString : public Ref<_BitString> {
public:
    RefBitString();
    /// Borrows; a null pointer gives a handle on an empty value.
    explicit RefBitString(const asn1_string_st* string);
    /// Decodes DER.
    RefBitString(const unsigned char* der, unsigned int length);
    RefBitString(const RefBitString& other);
    RefBitString& operator=(const RefBitString& other);
    ~RefBitString() override;

    /// Deliberately odd: true exactly when both handles are non-null, WHATEVER their values. To compare bits,
    /// dereference both: `*a == *b`.
    bool operator==(const RefBitString& other) const;
    bool operator!=(const RefBitString& other) const { return !(*this == other); }
};

/// A handle on a time.
class NORVCRYPTO_EXPORT RefGeneralizedTime : public Ref<GeneralizedTime> {
public:
    RefGeneralizedTime();
    /// As `GeneralizedTime`; a null pointer gives a handle on the empty time.
    RefGeneralizedTime(const asn1_string_st* time, bool wrapOnly);
    RefGeneralizedTime(const RefGeneralizedTime& other);
    RefGeneralizedTime& operator=(const RefGeneralizedTime& other);
    ~RefGeneralizedTime() override;

    /// False when either handle is null (two null handles are not equal), true when both share a body, else the
    /// values' `==`.
    bool operator==(const RefGeneralizedTime& other) const;
    bool operator!=(const RefGeneralizedTime& other) const { return !(*this == other); }
    /// False when either handle is null or both share a body, else the values' `<`.
    bool operator<(const RefGeneralizedTime& other) const;
    /// `==` or `<` of the handles.
    bool operator<=(const RefGeneralizedTime& other) const;
};

/// Prints the object in hexadecimal; nothing for an empty value or a null handle. As the operators on `asn1_string_st`
/// do, these leave the stream's base at hexadecimal.
NORVCRYPTO_EXPORT std::ostream& operator<<(std::ostream& out, const OctetString& value);
NORVCRYPTO_EXPORT std::ostream& operator<<(std::ostream& out, const Integer& value);
NORVCRYPTO_EXPORT std::ostream& operator<<(std::ostream& out, const RefOctetString& handle);
NORVCRYPTO_EXPORT std::ostream& operator<<(std::ostream& out, const RefInteger& handle);

} // namespace Norvane::Crypto::ASN1

/// Prints an OpenSSL string; nothing for null.
NORVCRYPTO_EXPORT std::ostream& operator<<(std::ostream& out, const asn1_string_st* string);
/// Prints an OpenSSL string by its type: octet strings and integers as lower-case hexadecimal, two digits an octet;
/// UTC and generalized times as `ASN1_TIME_print` does; any other type with printable bytes (0x20 to 0x7E) as
/// themselves and each other byte as "0x" and its value in unpadded hexadecimal.
///
/// Deliberately odd: a byte of 0x80 or more prints from its sign-extended value (0xE9 gives "0xffffffe9"), and the
/// stream's base is left at hexadecimal (`out << std::dec` before the next number).
NORVCRYPTO_EXPORT std::ostream& operator<<(std::ostream& out, const asn1_string_st& string);

#endif
