#ifndef NORVCRYPTO_EXTENSION_H
#define NORVCRYPTO_EXTENSION_H

/// \file
/// Extensions of certificates and revocation lists (RFC 5280, sections 4.2 and 5.2). `Extension` shows any extension's
/// identifier, criticality and DER value; the typed extensions decode one kind each.
///
/// \code
/// using namespace Norvane::Crypto;
/// for (const NVX509::RefExtension& extension : certificate->extensions()) {
///     std::cout << extension->identifier()->asString() << (extension->critical() ? " critical\n" : "\n");
/// }
/// NVX509::RefSubjectAlternativeName names;
/// names = certificate->find(ASN1::RefObjectIdentifier(std::string("2.5.29.17"))); // decodes its value
/// if (!names.isNull()) {
///     for (const NVX509::GeneralName& name : names->names()) {
///         if (name.type() == 1) { mailTo(name.emailAddress()); }
///     }
/// }
/// \endcode
///
/// Who owns what: an extension made from an OpenSSL pointer borrows it. A typed extension made from DER or from a
/// generic handle owns what it decoded. Whatever a getter gives (identifiers, octets, names, and lists of them, copies
/// of the lists too) borrows from the extension and must not outlive it.
///
/// Failures: DER that does not decode as the wanted kind gives a body with a null structure, whose getters answer empty
/// values; bytes after the decoded element are ignored. Nothing here throws but the use of a null handle, or leaves
/// entries in OpenSSL's error queue.
///
/// Threads: caches are filled on first use without a lock; an object is used by one thread at a time, or each getter is
/// called once before it is shared. `GeneralName::emailAddress()`, which writes on every call, stays for one thread at
/// a time even then.

#include <norvcmsg/EmailAddress.h>
#include <norvcmsg/IPAddress.h>
#include <norvcmsg/Uri.h>
#include <norvcrypto/ASN1.h>
#include <norvcrypto/DistinguishedName.h>
#include <norvcrypto/Export.h>
#include <norvcrypto/NorvRefcounted>
#include <norvcrypto/detail/MaybeOwned.h>

#include <list>
#include <memory>

struct AUTHORITY_KEYID_st;
struct BASIC_CONSTRAINTS_st;
struct GENERAL_NAME_st;
struct X509_extension_st;
struct stack_st_ACCESS_DESCRIPTION;
struct stack_st_GENERAL_NAME;

namespace Norvane::Crypto::detail {

struct NORVCRYPTO_EXPORT AuthorityKeyIdentifierTraits {
    static void free(AUTHORITY_KEYID_st* identifier) noexcept;
};
struct NORVCRYPTO_EXPORT BasicConstraintsTraits {
    static void free(BASIC_CONSTRAINTS_st* constraints) noexcept;
};
struct NORVCRYPTO_EXPORT GeneralNamesTraits {
    static void free(stack_st_GENERAL_NAME* names) noexcept;
};
struct NORVCRYPTO_EXPORT AccessDescriptionsTraits {
    static void free(stack_st_ACCESS_DESCRIPTION* descriptions) noexcept;
};

} // namespace Norvane::Crypto::detail

namespace Norvane::Crypto::NVX509 {

/// One entry of a list of general names (RFC 5280, 4.2.1.6): a view on a structure that it borrows. Its content comes
/// from whoever issued the certificate: no getter checks that a name is genuine.
class NORVCRYPTO_EXPORT GeneralName {
public:
    /// Borrows an entry; null gives the null name.
    explicit GeneralName(const GENERAL_NAME_st* name);
    GeneralName(const GeneralName& other);
    GeneralName& operator=(const GeneralName& other);
    virtual ~GeneralName();

    /// 0 other name, 1 e-mail address, 2 DNS name, 3 X.400 address, 4 directory name, 5 EDI party name, 6 URI, 7 IP
    /// address, 8 registered identifier; -1 for the null name.
    [[nodiscard]] int type() const;
    /// Equal type and content, as OpenSSL's `GENERAL_NAME_cmp` compares; two null names are equal.
    bool operator==(const GeneralName& other) const;
    bool operator!=(const GeneralName& other) const { return !(*this == other); }

    /// Of type 4, the name, which borrows from the entry; else the null name.
    [[nodiscard]] const DistinguishedName& dn() const;
    /// Of type 6, the URI as `Uri` parses it; else the null URI.
    [[nodiscard]] const Uri& uri() const;
    /// Of type 7, what `IPAddress` makes of the octets: the address of 4 or 16 octets; of any other number, the null
    /// address unless they spell an address as text (which no proper issuer writes). Null for another type.
    [[nodiscard]] const IPAddress& ipAddress() const;
    /// Of type 1, the address, when it is a strict RFC 5321 mailbox in ASCII; else an empty one. Each call parses anew,
    /// and each call on an invalid address logs "GeneralName::emailAddress: invalid address " and its text under event
    /// 0x4000000, message number 7. An address with a zero byte is invalid, never cut. The result lives until the next
    /// call.
    [[nodiscard]] const EmailAddress& emailAddress() const;
    /// OpenSSL's entry, or null; for the types that have no getter here.
    [[nodiscard]] const GENERAL_NAME_st* object() const noexcept { return m_name; }

private:
    class Kept;
    template <class Value> class KeptAs;
    /// The kept value, which is of the class that goes with the type of the entry; null when none is kept.
    template <class Value> [[nodiscard]] const Value* kept() const noexcept;
    template <class Value> const Value& keep(Value value) const;

    const GENERAL_NAME_st* m_name;
    mutable int m_type = -1;
    /// One value, since an entry is of one type: a certificate may hold half a million names of two octets each.
    mutable std::unique_ptr<Kept> m_value;
};

/// Any extension; the base of the typed ones.
class NORVCRYPTO_EXPORT Extension : public RefImpl, private NonCopyable {
public:
    /// Borrows an extension, which may be null.
    explicit Extension(const X509_extension_st* extension);
    ~Extension() override;

    /// Whether the extension is marked critical (RFC 5280, 4.2); false for a typed extension, which does not know.
    [[nodiscard]] bool critical() const;
    /// The object identifier. Null for a typed extension made from an OpenSSL structure, but for
    /// `AuthorityKeyIdentifier`.
    [[nodiscard]] const ASN1::RefObjectIdentifier& identifier() const;
    /// The DER of the extension's value; null for a typed extension.
    [[nodiscard]] const ASN1::RefOctetString& derEncodedValue() const;

protected:
    /// For typed extensions: no generic extension behind it; `identifier` is a dotted text, null for none.
    explicit Extension(const char* identifier);

private:
    const X509_extension_st* m_extension = nullptr;
    mutable ASN1::RefObjectIdentifier m_identifier;
    mutable ASN1::RefOctetString m_derEncodedValue;
};

/// Names the key that signed (2.5.29.35; RFC 5280, 4.2.1.1).
class NORVCRYPTO_EXPORT AuthorityKeyIdentifier : public Extension {
public:
    /// Decodes DER.
    AuthorityKeyIdentifier(const unsigned char* der, unsigned int length);
    /// Borrows a structure, which may be null.
    explicit AuthorityKeyIdentifier(const AUTHORITY_KEYID_st* identifier);
    ~AuthorityKeyIdentifier() override;

    /// The key identifier; a handle on an empty value when the extension has none, a null handle without structure.
    [[nodiscard]] const ASN1::RefOctetString& keyId() const;

private:
    detail::MaybeOwned<AUTHORITY_KEYID_st, detail::AuthorityKeyIdentifierTraits> m_structure;
    mutable ASN1::RefOctetString m_keyId;
};

/// Tells whether the subject is a CA, and how long chains may be (2.5.29.19; RFC 5280, 4.2.1.9).
class NORVCRYPTO_EXPORT BasicConstraints : public Extension {
public:
    /// Decodes DER.
    BasicConstraints(const unsigned char* der, unsigned int length);
    /// Borrows a structure, which may be null. Deliberate: `identifier()` stays null.
    explicit BasicConstraints(const BASIC_CONSTRAINTS_st* constraints);
    ~BasicConstraints() override;

    /// OpenSSL's structure, or null: `ca` is non-zero for a CA, `pathlen` may be null. It lives as long as this body
    /// (a borrowed one: as long as its owner).
    operator const BASIC_CONSTRAINTS_st*() const noexcept;

private:
    detail::MaybeOwned<BASIC_CONSTRAINTS_st, detail::BasicConstraintsTraits> m_structure;
};

/// Further names of the subject (2.5.29.17; RFC 5280, 4.2.1.6).
class NORVCRYPTO_EXPORT SubjectAlternativeName : public Extension {
public:
    /// Decodes DER.
    SubjectAlternativeName(const unsigned char* der, unsigned int length);
    /// Borrows a stack, which may be null. Deliberate: `identifier()` stays null.
    explicit SubjectAlternativeName(const stack_st_GENERAL_NAME* names);
    ~SubjectAlternativeName() override;

    /// The names in their order.
    [[nodiscard]] const std::list<GeneralName>& names() const;

private:
    detail::MaybeOwned<stack_st_GENERAL_NAME, detail::GeneralNamesTraits> m_structure;
    mutable std::list<GeneralName> m_names;
};

/// Where to ask about the certificate's state and issuer (1.3.6.1.5.5.7.1.1; RFC 5280, 4.2.2.1).
class NORVCRYPTO_EXPORT AuthorityInformationAccess : public Extension {
public:
    /// Decodes DER.
    AuthorityInformationAccess(const unsigned char* der, unsigned int length);
    /// Borrows a stack, which may be null. Deliberate: `identifier()` stays null.
    explicit AuthorityInformationAccess(const stack_st_ACCESS_DESCRIPTION* descriptions);
    ~AuthorityInformationAccess() override;

    /// The locations of OCSP responders (method 1.3.6.1.5.5.7.48.1), in their order.
    [[nodiscard]] const std::list<GeneralName>& ocspGeneralNames() const;
    /// The locations of issuer certificates (method 1.3.6.1.5.5.7.48.2), in their order.
    [[nodiscard]] const std::list<GeneralName>& issuerGeneralNames() const;

private:
    detail::MaybeOwned<stack_st_ACCESS_DESCRIPTION, detail::AccessDescriptionsTraits> m_structure;
    mutable std::list<GeneralName> m_ocspNames;
    mutable std::list<GeneralName> m_issuerNames;
};

} // namespace Norvane::Crypto::NVX509

namespace Norvane {
extern template class RefCounted<Crypto::NVX509::Extension>;
extern template class Ref<Crypto::NVX509::Extension>;
} // namespace Norvane

namespace Norvane::Crypto::NVX509 {

/// A handle on an extension of any kind. The accessors throw as those of `Ref` do.
class NORVCRYPTO_EXPORT RefExtension : public Ref<Extension> {
public:
    RefExtension();
    /// A new body that borrows the extension, which may be null.
    explicit RefExtension(const X509_extension_st* extension);
    RefExtension(const RefExtension& other);
    RefExtension& operator=(const RefExtension& other);
    ~RefExtension() override;

    virtual Extension* operator->();
    virtual Extension& operator*();
    virtual Extension* operator->() const;
    virtual Extension& operator*() const;

protected:
    /// The octets of `extension`'s value; null when it has none.
    static const ASN1::RefOctetString* valueOf(const RefExtension& extension);
};

/// What the handles on typed extensions share: the accessors. Which constructors and assignments there are differs.
/// A body of another kind, which can only get here when a typed handle is assigned through a `RefExtension&`, counts as
/// none: the accessors then throw as on a null handle.
template <class Body> class NORVCRYPTO_EXPORT TypedRefExtension : public RefExtension {
public:
    TypedRefExtension() = default;
    TypedRefExtension(const TypedRefExtension& other) = default;
    TypedRefExtension& operator=(const TypedRefExtension& other) = default;
    ~TypedRefExtension() override;

    Body* operator->() override;
    Body& operator*() override;
    Body* operator->() const override;
    Body& operator*() const override;

protected:
    explicit TypedRefExtension(RefCounted<Extension>* reference) { this->reset(reference); }
    /// Releases the body; then holds a new one decoded from the value of `extension`, if that has one. Its kind is not
    /// checked: another kind of extension gives a body with a null structure.
    void convert(const RefExtension& extension);
};

extern template class TypedRefExtension<AuthorityKeyIdentifier>;
extern template class TypedRefExtension<BasicConstraints>;
extern template class TypedRefExtension<SubjectAlternativeName>;
extern template class TypedRefExtension<AuthorityInformationAccess>;

/// A handle on an authority key identifier.
class NORVCRYPTO_EXPORT RefAuthorityKeyIdentifier : public TypedRefExtension<AuthorityKeyIdentifier> {
public:
    RefAuthorityKeyIdentifier();
    RefAuthorityKeyIdentifier(const unsigned char* der, unsigned int length);
    explicit RefAuthorityKeyIdentifier(const AUTHORITY_KEYID_st* identifier);
    RefAuthorityKeyIdentifier(const RefAuthorityKeyIdentifier& other);
    RefAuthorityKeyIdentifier& operator=(const RefAuthorityKeyIdentifier& other);
    /// Decodes the value of any extension anew; see TypedRefExtension::convert.
    RefAuthorityKeyIdentifier& operator=(const RefExtension& extension);
    ~RefAuthorityKeyIdentifier() override;
};

/// A handle on basic constraints.
class NORVCRYPTO_EXPORT RefBasicConstraints : public TypedRefExtension<BasicConstraints> {
public:
    RefBasicConstraints();
    RefBasicConstraints(const unsigned char* der, unsigned int length);
    explicit RefBasicConstraints(const BASIC_CONSTRAINTS_st* constraints);
    RefBasicConstraints(const RefBasicConstraints& other);
    RefBasicConstraints& operator=(const RefBasicConstraints& other);
    /// Decodes the value of any extension anew; see TypedRefExtension::convert.
    RefBasicConstraints& operator=(const RefExtension& extension);
    ~RefBasicConstraints() override;
};

/// A handle on alternative names.
class NORVCRYPTO_EXPORT RefSubjectAlternativeName : public TypedRefExtension<SubjectAlternativeName> {
public:
    RefSubjectAlternativeName();
    RefSubjectAlternativeName(const unsigned char* der, unsigned int length);
    explicit RefSubjectAlternativeName(const stack_st_GENERAL_NAME* names);
    /// Decodes the value of any extension; see TypedRefExtension::convert.
    explicit RefSubjectAlternativeName(const RefExtension& extension);
    RefSubjectAlternativeName(const RefSubjectAlternativeName& other);
    RefSubjectAlternativeName& operator=(const RefSubjectAlternativeName& other);
    /// Decodes the value of any extension anew; see TypedRefExtension::convert.
    RefSubjectAlternativeName& operator=(const RefExtension& extension);
    ~RefSubjectAlternativeName() override;
};

/// A handle on access information.
class NORVCRYPTO_EXPORT RefAuthorityInformationAccess : public TypedRefExtension<AuthorityInformationAccess> {
public:
    RefAuthorityInformationAccess();
    RefAuthorityInformationAccess(const unsigned char* der, unsigned int length);
    explicit RefAuthorityInformationAccess(const stack_st_ACCESS_DESCRIPTION* descriptions);
    /// Decodes the value of any extension; see TypedRefExtension::convert.
    explicit RefAuthorityInformationAccess(const RefExtension& extension);
    RefAuthorityInformationAccess(const RefAuthorityInformationAccess& other);
    RefAuthorityInformationAccess& operator=(const RefAuthorityInformationAccess& other);
    /// Decodes the value of any extension anew; see TypedRefExtension::convert.
    RefAuthorityInformationAccess& operator=(const RefExtension& extension);
    ~RefAuthorityInformationAccess() override;
};

} // namespace Norvane::Crypto::NVX509

#endif
