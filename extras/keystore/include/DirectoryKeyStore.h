#ifndef NORVCRYPTO_KEYSTORE_DIRECTORY_KEY_STORE_H
#define NORVCRYPTO_KEYSTORE_DIRECTORY_KEY_STORE_H

/// \file
/// A key store plug-in over a directory with one folder per identity. It is a library of its own, libnorvcrypto-keystore.
///
/// \code
/// using namespace Norvane::Crypto;
/// NVX509::RefDirectoryKeyStore directory("/etc/mail/identities");          // reads the patterns in it
/// for (const auto& problem : directory->contents()->problems) {             // reads and checks the rest: leave it out
///     warn(problem.folder, problem.file, problem.reason);                   // for a large store. Skipped; the others are used
/// }
/// auto store = NVX509::RefKeyStore::instance(true, false);
/// store->add(directory.plugin());
/// auto pair = store->findSigningKey(sender);                                // null: nobody signs for this sender
/// ...
/// directory->reload();                                                      // on SIGHUP; look-ups go on meanwhile
/// \endcode
///
/// A folder holds
///
/// | file         | what is in it                                                                                      |
/// |--------------|----------------------------------------------------------------------------------------------------|
/// | `cert.pem`   | the certificate; further certificates in it go to the front of the chain                           |
/// | `chain.pem`  | optional: the certificates that go with it, in the order in which they are sent                    |
/// | `key.pem`    | optional: the private key, encrypted or not; without it the identity is only encrypted to          |
/// | `passphrase` | optional: one line, which opens `key.pem`                                                          |
/// | `owners.txt` | optional: one `StringPattern` a line; without it only an issuer and serial number find the identity |
///
/// In `owners.txt` blanks around a pattern, empty lines, lines whose first character is "#", CR before LF and a byte
/// order mark at the start do not count. A "#" elsewhere belongs to the pattern. Patterns have no escapes.
///
/// **Who wins.** Of all patterns that match an address, the one with more literal bytes (`StringPattern::literalLength`:
/// all bytes but the wildcards) comes first, then the one that stands earlier among the patterns of its file, then the
/// one whose folder's name is less, byte by byte. The first one whose identity is fit for the purpose wins: it has a
/// private key if one is needed, its kind of key can do it (RSA; for signing DSA and EC too), the key usage of its
/// certificate does not forbid the purpose, and the certificate is valid at that moment. Only when no such identity
/// matches, the first one wins that is fit but for its time: so old mail can still be decrypted, and whoever must not
/// sign or encrypt with an expired certificate looks at its `validityPeriod()`.
///
/// **What is refused.** The directory, a folder or a file that others than owner and group may write; `key.pem` and
/// `passphrase` when anyone but the owner may read or write them; symbolic links inside the directory (it may itself be
/// one); what is no regular file, or larger than 1 MiB. A file that is refused or cannot be read counts as absent and is
/// told among the problems. Entries whose name begins with a dot are left alone: prepare a folder under such a name and
/// rename it.
///
/// **When what is read.** Loading the directory lists its folders and reads their `owners.txt`. A certificate is read when a
/// look-up by address comes to it, a key when nothing but the key is left to ask for, and both are kept until a reload
/// finds that a file of theirs has changed. The first look-up by issuer and serial number or key identifier reads the
/// certificate of each folder with a key, and decodes none but those it comes to. What turns out not to be usable then is
/// passed over and logged (event 0x3000062, once for each load: folder, file, reason). `contents()` reads all, checks each key
/// against its certificate and lets it go. `Reading::ahead` has everything read when the directory is loaded; but a folder that
/// changes three times under its reader waits for a look-up, too.
///
/// A folder, or its `owners.txt`, that is not what it was when it was listed is not believed when it is read at last: the
/// look-up loads the directory anew, as `reload()` does, and answers from that. So with `Reading::whenAsked` a change may show
/// before a reload, as far as nobody had asked for what changed: put a new folder there before you take the old one away.
///
/// **Keys** are read into memory that is wiped. A program that sets up OpenSSL's secure heap (`CRYPTO_secure_malloc_init`)
/// before has the secret numbers of the keys in it: locked and out of core dumps.
///
/// **Threads.** Everything here may be called from any number of threads at once, `reload` too. The certificates that are
/// handed out are warmed (`Certificate::warm`): all their accessors may be used in several threads but
/// `GeneralName::emailAddress()`. The pairs are shared with every other caller: do not change their fields, and do not
/// read into or write from their keys in several threads at once. Signing and decrypting with them is safe.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/EmailAddress.h>
#include <norvcmsg/Mutex.h>
#include <norvcmsg/StringPattern.h>
#include <norvcrypto/KeyStore.h>

#include <array>
#include <cstddef>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Norvane::Crypto::NVX509 {

namespace keystore {
class Snapshot;
} // namespace keystore

/// The plug-in. Hold it through `RefDirectoryKeyStore`, which can also `reload()` it.
class NORVCRYPTO_EXPORT DirectoryKeyStore : public KeyStorePlugin {
public:
    /// A line of `owners.txt`.
    struct Owner {
        StringPattern pattern;
        unsigned int line; ///< counted from 1, comments and empty lines included
    };

    /// What an identity is looked for.
    enum class Purpose : int { signing, encryption, decryption };

    /// Whether an identity can be taken for a purpose.
    enum class Fitness : int {
        fit,           ///< yes
        outOfValidity, ///< only when no fit one matches: the certificate is expired or not yet valid
        usageForbids,  ///< no: the key usage of the certificate does not allow the purpose
        noKey,         ///< no: a private key is needed, and there is none
        unsuitableKey  ///< no: CMS streams cannot do it with this kind of key
    };

    /// A folder that is used: an identity.
    struct Identity {
        std::string folder; ///< its name, any bytes: escape it before you show it
        RefCertificate certificate;
        std::list<RefCertificate> chain;
        bool hasKey;                    ///< a private key that belongs to the certificate
        std::array<Fitness, 3> fitness; ///< by `Purpose`, while the certificate is valid: never `outOfValidity`
        std::vector<Owner> owners;      ///< in the order of the file
    };

    /// Something of the directory that is not used.
    struct Problem {
        std::string folder; ///< the name of the entry
        std::string file;   ///< the file in it; empty when all of it is meant
        std::string reason; ///< for people, without its end of sentence; one line
    };

    /// A pattern of an identity, as indices into `Contents::identities` and `Identity::owners`.
    struct Place {
        std::size_t identity;
        std::size_t owner;
    };

    /// What one load found, or a part of it. It never changes.
    struct Contents {
        std::vector<Identity> identities; ///< by the bytes of their folders' names
        std::vector<Problem> problems;    ///< in the same order
        std::vector<Place> precedence;    ///< their patterns, those first that win over the later ones
    };

    /// A pattern that matched.
    struct Match {
        Place place;
        Fitness fitness;
    };

    /// How an address was looked up.
    struct Explanation {
        /// What the places point into: the identities with a pattern that matched, and the problems that may have kept
        /// others from it, of folders and of `owners.txt`.
        std::shared_ptr<const Contents> contents;
        std::vector<Match> matches;        ///< every pattern that matched, in order of precedence
        std::optional<std::size_t> winner; ///< the index of the match that won; nothing when none is fit
    };

    /// When the certificates and keys of the folders are read.
    enum class Reading : int {
        whenAsked, ///< each when a look-up comes to it: a store of any size is open at once
        ahead ///< all when the directory is loaded: afterwards no look-up reads anything, or fails for what became of a file
    };

    /// An identity that a look-up found.
    struct Found {
        std::string folder;      ///< its name, any bytes: escape it before you show it
        KeyCertificatePair pair; ///< shared with every other caller
        bool isValid;            ///< the certificate, at the moment of the look-up
    };

    /// Loads the directory. \throws Exception as `reload()`
    explicit DirectoryKeyStore(const std::string& directory, Reading reading = Reading::whenAsked);
    ~DirectoryKeyStore() override;

    /// Loads the directory anew beside what is there, and then takes its place in one step: every look-up meanwhile is
    /// answered from the old or from the new content, and none fails for the reload. What was handed out before stays valid.
    /// Nothing is opened but what changed, came or could not be used: the others are told by device, inode, mode, size and
    /// times. Of several calls at once each loads by itself, one after the other.
    /// \throws Exception "DirectoryKeyStore::reload", code 4, source "DirectoryKeyStore", with the directory and the
    ///         reason: the directory cannot be opened or read, others than owner and group may write it, or the process
    ///         ran out of descriptors, memory or room in OpenSSL's secure heap. What was loaded before stays in use.
    void reload();

    /// What the last load that succeeded found: each folder that is used, each that is not and why, and the order in
    /// which the patterns win. Reads what was not read yet, the first time after a load, and keeps the certificates.
    ///
    /// This and all look-ups below: \throws Exception "DirectoryKeyStore::find", code 4, source "DirectoryKeyStore", with the
    ///         directory and the reason, where there is no telling who is the right one: the process ran out of descriptors,
    ///         memory or room in OpenSSL's secure heap; or a folder changed before it was read, and the directory cannot be
    ///         loaded any more or changes again and again. With `Reading::ahead` none of them throws, unless a folder
    ///         changed three times while it was read.
    [[nodiscard]] std::shared_ptr<const Contents> contents() const;

    /// The certificates of all folders that are used, by the bytes of the folders' names, and behind all of them those that
    /// go with them: what there is to verify with. Reads neither keys nor passphrases, whatever the folders hold.
    [[nodiscard]] std::list<RefCertificate> certificates() const;

    /// Every pattern that matches an address, whether its identity is fit for the purpose, and which one won: the
    /// answer that the look-up for that purpose gives at this moment. Walks all patterns of the store, and reads and checks
    /// all files of the identities that match.
    [[nodiscard]] Explanation explain(const EmailAddress& address, Purpose purpose) const;

    /// The pair whose certificate has this issuer and serial number, whatever its validity and key usage, for mail that
    /// may be old. Identities without key have no pair. Of several folders with one issuer and serial number the first
    /// one with a key answers. Found by hash.
    KeyCertificatePair find(const DistinguishedName& issuer, const ASN1::Integer& serial) override;
    /// The certificate to encrypt to: an RSA key, and key usage keyEncipherment, dataEncipherment or keyAgreement, or
    /// none at all.
    ///
    /// This and the following: an empty and a null address are looked up as the empty text, which the pattern "*"
    /// matches. Patterns without wildcards, and those that end in "@" and a domain without any, are found by hash; the
    /// others are tried in turn. Each that is tried takes a time linear in pattern and address
    /// (`StringPattern::matches`).
    RefCertificate findEncryptionCertificate(const EmailAddress& address) override;
    /// The pair to sign with: a private key, RSA, DSA or EC, and key usage digitalSignature or nonRepudiation, or none
    /// at all.
    KeyCertificatePair findSigningKey(const EmailAddress& address) override;
    /// The pair to decrypt with: a private key, and what encryption asks for. Answers one pair; the pairs of old
    /// certificates of the same owner are found by issuer and serial number.
    KeyCertificatePair findDecryptionKey(const EmailAddress& address) override;

    // The same look-ups, for programs that want to know more of what was found.

    /// The identity that signs, is encrypted to or decrypts for an address. For encryption nothing but the certificate is
    /// read: the pair has neither the key nor the certificates of `chain.pem`.
    [[nodiscard]] std::optional<Found> search(const EmailAddress& address, Purpose purpose) const;
    /// As `find`.
    [[nodiscard]] std::optional<Found> search(const DistinguishedName& issuer, const ASN1::Integer& serial) const;
    /// The identity with a key whose certificate has a subject key identifier (RFC 5280, 4.2.1.2), the other name of a
    /// recipient. Of several the first folder with a key answers.
    [[nodiscard]] std::optional<Found> searchKeyIdentifier(const Buffer& keyIdentifier) const;

private:
    [[nodiscard]] std::shared_ptr<const keystore::Snapshot> load() const;
    [[nodiscard]] std::shared_ptr<const keystore::Snapshot> snapshot() const;
    template <class Question> auto ask(Question question) const;

    std::string m_directory;
    Reading m_reading;
    mutable Mutex m_loading; ///< held by the one load that runs
    mutable Mutex m_mutex;   ///< guards `m_snapshot`, the handle, and is never held for longer than its copy
    mutable std::shared_ptr<const keystore::Snapshot> m_snapshot;
};

} // namespace Norvane::Crypto::NVX509

namespace Norvane {
extern template class RefCounted<Crypto::NVX509::DirectoryKeyStore>;
extern template class Ref<Crypto::NVX509::DirectoryKeyStore>;
} // namespace Norvane

namespace Norvane::Crypto::NVX509 {

/// A handle on the plug-in.
class NORVCRYPTO_EXPORT RefDirectoryKeyStore : public Ref<DirectoryKeyStore> {
public:
    /// An empty handle.
    RefDirectoryKeyStore();
    /// Loads the directory. \throws Exception as `DirectoryKeyStore::reload()`
    explicit RefDirectoryKeyStore(const std::string& directory,
                                  DirectoryKeyStore::Reading reading = DirectoryKeyStore::Reading::whenAsked);
    RefDirectoryKeyStore(const RefDirectoryKeyStore& other);
    RefDirectoryKeyStore& operator=(const RefDirectoryKeyStore& other);
    ~RefDirectoryKeyStore() override;

    /// The handle that `KeyStore::add` takes, on the same plug-in; an empty one for an empty one.
    [[nodiscard]] RefKeyStorePlugin plugin() const;
};

} // namespace Norvane::Crypto::NVX509

#endif
