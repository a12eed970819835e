#ifndef NORVCRYPTO_DISTINGUISHED_NAME_H
#define NORVCRYPTO_DISTINGUISHED_NAME_H

/// \file
/// Distinguished names (ITU-T X.501, RFC 5280 section 4.1.2.4): the issuers and subjects of certificates.
///
/// \code
/// using namespace Norvane::Crypto::NVX509;
/// const DistinguishedName& subject = certificate->subject();
/// subject.asString();                           // "CN=Alice,O=Org,C=US"
/// DistinguishedName wanted(std::string("cn = Alice , o=Org,C=US"));
/// if (subject == wanted) { ... }                // RFC 5280 comparison, not of the texts
/// RefDistinguishedName parent = getParent(subject); // "O=Org,C=US"
/// \endcode
///
/// The text form is this library's own: one `type=value` for each attribute, the last attribute of the name first, with
/// "," and no blank between. Values are not quoted and commas, equals signs, plus signs, quotes and backslashes in them
/// are not escaped, so that different names may have one text, and a text may parse into another name than it came
/// from. NEVER AUTHORISE BY NAME TEXT: compare names with `==`.
///
/// A name made from an OpenSSL pointer borrows it: the certificate or list that it came from must outlive the name and
/// its copies (names in a copied list of them too). A name that was parsed or built owns its parts and copies deeply.
///
/// Nothing here throws (short of memory apart) or leaves entries in OpenSSL's error queue: what OpenSSL does not accept
/// is left out.
///
/// Threads: caches are filled on first use without a lock. Call `asString()` and `hash()` once before threads share a
/// name.

#include <norvcrypto/Export.h>
#include <norvcrypto/detail/MaybeOwned.h>

#include <boost/shared_ptr.hpp>

#include <list>
#include <string>

struct X509_name_entry_st;
struct X509_name_st;
struct stack_st_X509_NAME_ENTRY;

namespace Norvane::Crypto::detail {

struct NORVCRYPTO_EXPORT NameTraits {
    static void free(X509_name_st* name) noexcept;
    static X509_name_st* duplicate(const X509_name_st* name);
};

} // namespace Norvane::Crypto::detail

namespace Norvane::Crypto::NVX509 {

/// One attribute of a name as text.
struct RDNPair {
    std::string type;  ///< the attribute's short name (CN, O, emailAddress, ...) or its dotted object identifier
    std::string value; ///< the printable value; bytes outside 0x20 to 0x7E are written as `\xHH`
};

/// A name, which may be empty: the null name.
class NORVCRYPTO_EXPORT DistinguishedName {
public:
    /// The null name.
    DistinguishedName();
    /// Borrows a name; null gives the null name.
    explicit DistinguishedName(const X509_name_st* name);
    /// Builds a name of its own from the entries, in their order, through their texts: a value with bytes outside 0x20
    /// to 0x7E keeps the `\xHH` of its text, and a type that OpenSSL does not know by that text is left out. Without
    /// entries it is the null name.
    explicit DistinguishedName(const stack_st_X509_NAME_ENTRY* entries);
    /// Parses a text: components between commas, each a type, "=" and a value, with blanks around each dropped. Types
    /// are upper-cased, so that those with lower-case letters in their short name (emailAddress) are unknown and
    /// silently left out, as are values that OpenSSL refuses for their type (a country of three letters) and dotted
    /// types with a number of more than 256 digits. Every component becomes an RDN of its own; the last one comes first in the name, so that the name prints as given.
    /// Bytes from 0x80 are taken for Latin-1, not UTF-8; a zero byte is a byte like others.
    ///
    /// Deliberate, for a text from outside: double quotes and backslashes only protect commas and equals signs, they
    /// stay in the value (`CN="a,b"` has the value `"a,b"` with its quotes, and `\x41` stays four characters). A text
    /// that ends inside quotes or after a backslash loses its last component; one without a value is dropped; one
    /// without an equals sign has an empty type, which is unknown; `A=b=c` means `B=c`. When no component was found
    /// this is the null name; when each was left out it is a name without attributes.
    explicit DistinguishedName(const std::string& text);
    DistinguishedName(const DistinguishedName& other);
    DistinguishedName& operator=(const DistinguishedName& other);
    virtual ~DistinguishedName();

    /// The text form, computed once; empty for the null name. See above before relying on it.
    [[nodiscard]] const std::string& asString() const;
    /// The attributes in the order of the text. The list lives as long as this name.
    [[nodiscard]] const std::list<RDNPair>& listRDN() const;
    /// True for the null name; a name without attributes is not null.
    [[nodiscard]] bool isNull() const noexcept { return !m_name; }
    /// OpenSSL's name, or null; it lives as long as this name, or as long as what this name borrows from.
    [[nodiscard]] const X509_name_st* object() const noexcept { return m_name.get(); }

    /// Compares as OpenSSL's `X509_NAME_cmp` does (RFC 5280, 7.1: without regard to letter case and repeated blanks).
    /// Two null names are equal, a null one and another are not.
    bool operator==(const DistinguishedName& other) const;
    bool operator==(const X509_name_st* other) const;
    bool operator!=(const DistinguishedName& other) const { return !(*this == other); }

    /// The hash under which OpenSSL files certificates (`openssl x509 -subject_hash`), computed once; 0 for the null
    /// name. Equal names have equal hashes.
    [[nodiscard]] unsigned long hash() const;
    /// The order of the lower 32 bits of the hashes, the null name before every other. Deliberate: two different names
    /// with one hash are equivalent in it though not `==`, so a set or map keeps only one of them.
    bool operator<(const DistinguishedName& other) const;

private:
    detail::MaybeOwned<X509_name_st, detail::NameTraits> m_name;
    mutable std::string m_text;
    mutable std::list<RDNPair> m_rdns;
    mutable unsigned long m_hash = 0;
};

/// A name as people are to read it, in the form of RFC 4514: the attributes in the order of `asString()`, values in
/// UTF-8, attributes of one RDN joined by "+". What has a meaning there (comma, plus sign, double quote, backslash,
/// less-than and greater-than sign, semicolon, a leading number sign, blanks at the ends) has a backslash before it; bytes that are no UTF-8 and characters that would not be seen
/// (`utf8::isHidden`) are written as `\HH`, a byte each; a value that is no text as "#" and its DER in hex digits. So the
/// text breaks no line, drives no terminal, and values of other characters look different: show it as it is. It is not
/// `asString()`, which does not escape what others chose to look like an escape, and no input for the constructor from a
/// text.
///
/// \code
/// displayName(certificate->subject()) // CN=Müller\, Anna,O=Org,C=DE      where asString() is CN=M\xC3\xBCller, Anna,...
/// \endcode
[[nodiscard]] NORVCRYPTO_EXPORT std::string displayName(const DistinguishedName& name);

/// A shared handle on a name; the last one to go takes the name with it. `==` and `<` of two handles are those of
/// `boost::shared_ptr`: they compare which name is held, not its value.
class NORVCRYPTO_EXPORT RefDistinguishedName : public boost::shared_ptr<DistinguishedName> {
public:
    /// No name.
    RefDistinguishedName();
    /// A name parsed from its text.
    explicit RefDistinguishedName(const std::string& text);
    /// A name built from entries.
    explicit RefDistinguishedName(const stack_st_X509_NAME_ENTRY* entries);
};

/// One step of a name; it keeps nothing and has no behaviour.
class NORVCRYPTO_EXPORT RelativeDistinguishedName {
public:
    explicit RelativeDistinguishedName(const X509_name_entry_st* entry);
};

/// The name one level up: the text form without its first component, parsed anew. All that is said of texts and of
/// parsing holds: types are upper-cased, unknown ones vanish, a value with a comma falls apart. An empty handle for the
/// null name and for a name with fewer than two attributes.
NORVCRYPTO_EXPORT RefDistinguishedName getParent(const DistinguishedName& name);
/// The same for the name that is held; an empty handle for an empty one.
NORVCRYPTO_EXPORT RefDistinguishedName getParent(const RefDistinguishedName& name);

} // namespace Norvane::Crypto::NVX509

#endif
