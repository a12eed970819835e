#include "tls/TrustedFiles.h"
#include "base/Failure.h"
#include "files/Input.h"
#include "openssl/CertificateDetails.h"
#include "openssl/Reasons.h"
#include "recognise/DerAndPem.h"
#include "recognise/Wrapped.h"

#include <norvcrypto/Acceptance.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <system_error>
#include <unistd.h>

namespace norvcrypt {

namespace fs = std::filesystem;

namespace {

std::string textOf(const ASN1_TIME* time) {
    return isoTime(time).value_or("a time that is no proper one");
}

/// The number under which OpenSSL looks for an object with that name, in this version and in those before 1.0.
template <auto NameOf> struct Hashed {
    template <class T> static unsigned long hash(const T* object) { return X509_NAME_hash(NameOf(object)); }
    template <class T> static unsigned long oldHash(const T* object) { return X509_NAME_hash_old(NameOf(object)); }
};

/// What a directory is for: certificates or lists.
struct CertificateKind : Hashed<X509_get_subject_name> {
    using Pointer = CertificatePtr;
    static constexpr ObjectKind kind = ObjectKind::certificate;
    static constexpr const char* noun = "certificate";
    static constexpr const char* infix = "";
    static constexpr auto decode = d2i_X509;
    static constexpr auto compare = X509_cmp;
};

struct ListKind : Hashed<X509_CRL_get_issuer> {
    using Pointer = ListPtr;
    static constexpr ObjectKind kind = ObjectKind::list;
    static constexpr const char* noun = "revocation list";
    static constexpr const char* infix = "r";
    static constexpr auto decode = d2i_X509_CRL;
    static constexpr auto compare = X509_CRL_match;
};

/// The objects of one kind in a file, and what else there is to say about it.
template <class Traits> std::vector<typename Traits::Pointer> readObjects(const std::string& path, Problems& problems) {
    std::vector<typename Traits::Pointer> objects;
    try {
        Inputs inputs;
        const Norvane::Buffer content = inputs.readAll(path);
        if (looksLikeDer(content)) {
            problems.add(path, "DER, which is not read here: only PEM is");
            return objects;
        }
        if (hasImproperPem(content))
            problems.add(path, "PEM that is indented, quoted or in small letters, which is not read here");
        const QuietQuestion quiet;
        for (const FoundObject& found : objectsIn(content)) {
            if (!found.problem.empty())
                problems.add(path, found.problem);
            if (!found.problem.empty() || found.kind != Traits::kind)
                continue;
            if (const std::string refusal = Norvane::Crypto::refusal(found.der); !refusal.empty()) {
                problems.add(path, std::string("a ") + Traits::noun + " that is " + refusal);
                continue;
            }
            const unsigned char* at = found.der.data();
            typename Traits::Pointer object(Traits::decode(nullptr, &at, static_cast<long>(found.der.length())));
            if (object)
                objects.push_back(std::move(object));
            else
                problems.add(path, std::string("a malformed ") + Traits::noun);
        }
        if (objects.empty())
            problems.add(path, std::string("no ") + Traits::noun);
    } catch (const Failure& failure) {
        problems.add(path, failure.what());
    }
    return objects;
}

/// The name of a file as openssl rehash makes it.
struct FiledName {
    std::string hash;
    unsigned long number = 0;
};

template <class Traits> std::string hashText(unsigned long hash) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%08lx", hash);
    return std::string(text.data()) + "." + Traits::infix;
}

/// Nothing for a name that is none of this kind, which OpenSSL never opens.
template <class Traits> std::optional<FiledName> filedName(const std::string& name) {
    const auto isHex = [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); };
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    const std::string hash = name.substr(0, 9) + Traits::infix;
    const std::string number = name.size() > hash.size() ? name.substr(hash.size()) : "";
    if (!name.starts_with(hash) || hash[8] != '.' || !std::all_of(hash.begin(), hash.begin() + 8, isHex) ||
        number.empty() || number.size() > 9 || !std::all_of(number.begin(), number.end(), isDigit))
        return std::nullopt;
    return FiledName{hash, std::stoul(number)};
}

/// A directory as it was read.
template <class Traits> class Directory {
public:
    using Pointer = typename Traits::Pointer;

    Directory(const std::string& path, Problems& problems) : m_path(path), m_problems(problems) {
        if (!checkDirectory(path, problems))
            return;
        std::error_code error;
        for (fs::directory_iterator at(path, error), end; !error && at != end; at.increment(error))
            m_names.push_back(at->path().filename().string());
        if (error)
            problems.add(path, "cannot be read: " + error.message());
        std::sort(m_names.begin(), m_names.end());
        // What is told about an object names its file rather than a link.
        std::stable_partition(m_names.begin(), m_names.end(),
                              [](const std::string& name) { return !filedName<Traits>(name); });
        for (const std::string& name : m_names)
            read(name);
        checkNumbers();
        checkFiled();
    }

    /// Every object once, with its file.
    std::vector<std::pair<std::string, Pointer>> take() { return std::move(m_objects); }

private:
    void read(const std::string& name) {
        const std::string path = m_path + "/" + name;
        const auto filed = filedName<Traits>(name);
        std::error_code error;
        if (!fs::exists(path, error)) {
            m_problems.add(path, "a link that leads nowhere");
            return;
        }
        if (!fs::is_regular_file(path, error))
            return;
        auto objects = readObjects<Traits>(path, m_problems);
        if (filed)
            m_numbers[filed->hash].insert(filed->number);
        if (filed && !objects.empty() && !belongs(*filed, objects))
            m_problems.add(path, std::string("filed under the wrong hash: its ") + Traits::noun + " belongs under " +
                                     hashText<Traits>(Traits::hash(objects.front().get())) + "N");
        for (Pointer& object : objects) {
            const bool isFiled = filed && filed->hash == hashText<Traits>(Traits::hash(object.get()));
            keep(path, std::move(object), isFiled);
        }
    }

    /// Links under the hash of older OpenSSL versions (openssl rehash -compat) do no harm.
    static bool belongs(const FiledName& name, const std::vector<Pointer>& objects) {
        return std::any_of(objects.begin(), objects.end(), [&name](const Pointer& object) {
            return name.hash == hashText<Traits>(Traits::hash(object.get())) ||
                   name.hash == hashText<Traits>(Traits::oldHash(object.get()));
        });
    }

    void keep(const std::string& path, Pointer object, bool isFiled) {
        for (std::size_t at = 0; at < m_objects.size(); ++at)
            if (Traits::compare(m_objects[at].second.get(), object.get()) == 0) {
                m_filed[at] = m_filed[at] || isFiled;
                return;
            }
        m_objects.emplace_back(path, std::move(object));
        m_filed.push_back(isFiled);
    }

    /// OpenSSL counts up from 0 and stops at the first number that is not there.
    void checkNumbers() {
        for (const auto& [hash, numbers] : m_numbers) {
            unsigned long next = 0;
            for (const unsigned long number : numbers)
                if (number != next++) {
                    m_problems.add(m_path + "/" + hash + std::to_string(number),
                                   "never found, since " + hash + std::to_string(next - 1) + " is missing");
                    break;
                }
        }
    }

    void checkFiled() {
        for (std::size_t at = 0; at < m_objects.size(); ++at)
            if (!m_filed[at])
                m_problems.add(m_objects[at].first, std::string("never found, since the ") + Traits::noun +
                                                        " is not filed under " +
                                                        hashText<Traits>(Traits::hash(m_objects[at].second.get())) +
                                                        "N: run openssl rehash " + m_path);
    }

    std::string m_path;
    Problems& m_problems;
    std::vector<std::string> m_names;
    std::map<std::string, std::set<unsigned long>> m_numbers;
    std::vector<std::pair<std::string, Pointer>> m_objects;
    std::vector<bool> m_filed; ///< of each object
};

void checkAuthority(const std::string& path, X509* certificate, Problems& problems) {
    checkPeriod(path, certificate, problems);
    const QuietQuestion quiet;
    if (X509_check_ca(certificate) == 0)
        problems.add(path, "a certificate that is no authority's");
}

void checkCurrent(const std::string& path, const X509_CRL* list, Problems& problems) {
    const ASN1_TIME* const until = X509_CRL_get0_nextUpdate(list);
    if (X509_cmp_current_time(X509_CRL_get0_lastUpdate(list)) >= 0)
        problems.add(path, "the revocation list holds only from " + textOf(X509_CRL_get0_lastUpdate(list)));
    if (until != nullptr && X509_cmp_current_time(until) <= 0)
        problems.add(path, "the revocation list is stale since " + textOf(until) +
                               ": certificates of its issuer do not verify any more");
}

/// Reports a list that none of the certificates of its issuer has signed, if there are any.
void checkSignature(const std::string& path, X509_CRL* list, const std::vector<CertificatePtr>& trusted,
                    Problems& problems) {
    const QuietQuestion quiet;
    bool known = false;
    for (const CertificatePtr& issuer : trusted) {
        if (X509_NAME_cmp(X509_get_subject_name(issuer.get()), X509_CRL_get_issuer(list)) != 0)
            continue;
        known = true;
        if (X509_CRL_verify(list, X509_get0_pubkey(issuer.get())) == 1)
            return;
    }
    if (known)
        problems.add(path, "the revocation list is not signed by its issuer");
}

bool checkThere(const std::string& path, mode_t type, const char* otherType, mode_t forbidden, Problems& problems) {
    struct stat status {};
    const bool exists = stat(path.c_str(), &status) == 0;
    if (exists && (status.st_mode & S_IFMT) != type) {
        problems.add(path, otherType); // a pipe would keep the server waiting
        return false;
    }
    if (!exists || access(path.c_str(), type == S_IFDIR ? R_OK | X_OK : R_OK) != 0) {
        problems.add(path, "cannot be read: " + std::generic_category().message(errno));
        return false;
    }
    if ((status.st_mode & forbidden) != 0)
        problems.add(path, forbidden == writeForOthers ? "others than its owner may change it: chmod go-w"
                                                       : "others than its owner may use the private key: chmod 600");
    return true;
}

} // namespace

bool checkFile(const std::string& path, mode_t forbidden, Problems& problems) {
    return checkThere(path, S_IFREG, "no file", forbidden, problems);
}

bool checkDirectory(const std::string& path, Problems& problems) {
    return checkThere(path, S_IFDIR, "no directory", writeForOthers, problems);
}

void checkPeriod(const std::string& path, X509* certificate, Problems& problems) {
    const auto of = [certificate](const char* what, const ASN1_TIME* time) {
        return what + textOf(time) + ": " + Norvane::Crypto::NVX509::CertificateFactory()(certificate, false)->name();
    };
    if (X509_cmp_current_time(X509_get0_notBefore(certificate)) >= 0)
        problems.add(path, of("a certificate that is valid only from ", X509_get0_notBefore(certificate)));
    const ASN1_TIME* const end = X509_get0_notAfter(certificate);
    std::time_t horizon = problems.horizon();
    if (X509_cmp_current_time(end) <= 0)
        problems.add(path, of("a certificate that expired at ", end));
    else if (X509_cmp_time(end, &horizon) <= 0)
        problems.add(path, of("a certificate that will expire at ", end));
}

std::vector<CertificatePtr> checkTrustedFile(const std::string& path, Problems& problems) {
    if (!checkFile(path, writeForOthers, problems))
        return {};
    const std::size_t before = problems.all().size();
    std::vector<CertificatePtr> trusted = readObjects<CertificateKind>(path, problems);
    // OpenSSL looks at all there is, and takes nothing at all when it cannot read one. What is refused it must not see.
    if (problems.all().size() == before) {
        if (const Owned<X509_STORE, X509_STORE_free> store(X509_STORE_new());
            X509_STORE_load_file(store.get(), path.c_str()) != 1)
            problems.add(path, "nothing in it is used: " + openSslReasons());
    }
    for (const CertificatePtr& each : trusted)
        checkAuthority(path, each.get(), problems);
    return trusted;
}

void checkTrustedDirectory(const std::string& path, Problems& problems, std::vector<CertificatePtr>& trusted) {
    for (auto& [file, certificate] : Directory<CertificateKind>(path, problems).take()) {
        checkAuthority(file, certificate.get(), problems);
        trusted.push_back(std::move(certificate));
    }
}

void checkListDirectory(const std::string& path, Problems& problems, const std::vector<CertificatePtr>& trusted) {
    for (const auto& [file, list] : Directory<ListKind>(path, problems).take()) {
        checkCurrent(file, list.get(), problems);
        checkSignature(file, list.get(), trusted, problems);
    }
}

} // namespace norvcrypt
