#include "stores/LearntFolder.h"

#include "message/Temporary.h"

#include <norvcmsg/EmailAddress.h>
#include <norvcmsg/Escape.h>
#include <norvcmsg/Media.h>
#include <norvcmsg/Time.h>
#include <norvcrypto-trust/TrustSender.h>
#include <norvcrypto/CMSIdentifier.h>
#include <norvcrypto/DistinguishedName.h>
#include <norvcrypto/Hasher.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <sys/stat.h>
#include <toml++/toml.h>
#include <unistd.h>

namespace norvmilter {

namespace {

using Norvane::Crypto::Hasher;
using Norvane::Crypto::NVX509::RefCertificate;

namespace files = std::filesystem;

constexpr const char* revokedPrefix = ".revoked-";
constexpr std::size_t digestLength = 32; ///< hexadecimal digits, 128 bits
constexpr std::size_t nameLength = 2 * digestLength + 1;
constexpr std::size_t longestFile = std::size_t{64} << 10U; ///< of a certificate in PEM, and of each file

Temporary failed(const std::string& path, const std::string& what) {
    return Temporary(Norvane::escapeForDisplay(path) + ": " + what);
}

std::string digestOf(const std::string& text) {
    Norvane::Crypto::RefHasher hasher(Hasher::SHA256);
    hasher->update(text);
    hasher->finalize();
    return hasher->digestAsHexString().substr(0, digestLength);
}

std::string derOf(const RefCertificate& certificate) {
    Norvane::MemoryMediaOut der;
    certificate->writeDER(der);
    return {reinterpret_cast<const char*>(der.content().data()), der.content().length()};
}

std::string pemOf(const RefCertificate& certificate) {
    Norvane::MemoryMediaOut pem;
    certificate->writePEM(pem);
    return {reinterpret_cast<const char*>(pem.content().data()), pem.content().length()};
}

bool isName(const std::string& name) {
    return name.size() == nameLength && name[digestLength] == '-' &&
           name.find_first_not_of("0123456789abcdef-") == std::string::npos;
}

/// Whether a line of owners.txt with this means this address and no other.
bool isPlain(const std::string& address) {
    return !Norvane::EmailAddress::rfc5321Parse(address, true).isEmptyAddress() &&
           address.find_first_of("*?# \t\"\\\r\n") == std::string::npos;
}

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::string content(longestFile, '\0');
    file.read(content.data(), static_cast<std::streamsize>(content.size()));
    content.resize(static_cast<std::size_t>(std::max<std::streamsize>(0, file.gcount())));
    return content;
}

/// An empty handle for what cannot be read: somebody may just have revoked it.
RefCertificate certificateIn(const std::string& folder) {
    const std::string pem = contentOf(folder + "/cert.pem");
    try {
        std::list<RefCertificate> found;
        const Norvane::Buffer content(pem.data(), static_cast<unsigned int>(pem.size()), true);
        Norvane::Crypto::NVX509::CertificateFactory().readPem(content, found);
        if (!found.empty())
            found.front()->warm();
        return found.empty() ? RefCertificate() : found.front();
    } catch (const Norvane::Exception&) {
        return {};
    }
}

/// When a certificate ends, in seconds since 1970; long ago for a time that is none.
std::int64_t endOf(const RefCertificate& certificate) {
    const auto& end = certificate->validityPeriod().notAfter();
    return end.isNull() ? std::numeric_limits<std::int64_t>::min() : end->asTime().calendarSeconds();
}

void write(const std::string& path, const std::string& content) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (file < 0)
        throw failed(path, std::strerror(errno));
    std::size_t done = 0;
    int error = 0;
    while (done < content.size() && error == 0) {
        const ssize_t written = ::write(file, content.data() + done, content.size() - done);
        if (written >= 0)
            done += static_cast<std::size_t>(written);
        else if (errno != EINTR)
            error = errno;
    }
    // The name is given once the content is on the disk.
    if (error == 0 && fsync(file) != 0)
        error = errno;
    if (close(file) != 0 && error == 0)
        error = errno;
    if (error != 0)
        throw failed(path, std::strerror(error));
}

std::string serialOf(const RefCertificate& certificate) {
    using namespace Norvane::Crypto;
    return CMS::CertificateIdentifier(certificate, CMS::NamedBy::issuerAndSerialNumber).asString();
}

std::string tomlOf(const std::string& address, const RefCertificate& certificate, const std::string& messageId,
                   const std::string& queueId) {
    const toml::table table{{"address", address},
                            {"at", Norvane::Time::now().asString()},
                            {"message", Norvane::escapeForDisplay(messageId.substr(0, 998))},
                            {"queue_id", Norvane::escapeForDisplay(queueId.substr(0, 100))},
                            {"subject", Norvane::Crypto::NVX509::displayName(certificate->subject())},
                            {"certificate", serialOf(certificate)}};
    std::ostringstream text;
    text << table << '\n';
    return text.str();
}

LearntEntry entryOf(const std::string& folder, const std::string& name, bool revoked) {
    LearntEntry entry;
    entry.name = name;
    entry.revoked = revoked;
    try {
        const toml::table table = toml::parse(contentOf(folder + "/learnt.toml"));
        const auto text = [&](const char* key) {
            return Norvane::escapeForDisplay(table[key].value_or(std::string()));
        };
        entry.address = text("address");
        entry.at = text("at");
        entry.message = table["message"].value_or(std::string());
        entry.queueId = table["queue_id"].value_or(std::string());
        entry.subject = table["subject"].value_or(std::string());
        entry.serial = table["certificate"].value_or(std::string());
        // Those were escaped when they were written; whoever changed the file since gets no further.
        for (std::string* one : {&entry.message, &entry.queueId, &entry.subject, &entry.serial}) {
            if (!Norvane::isDisplayable(*one))
                *one = Norvane::escapeForDisplay(*one);
        }
    } catch (const toml::parse_error&) {
        entry.subject = "learnt.toml cannot be read";
    }
    return entry;
}

bool isRevoked(const std::string& folder, const std::string& name) {
    return access((folder + '/' + revokedPrefix + name).c_str(), F_OK) == 0;
}

/// Takes a folder away with what it has: files alone.
void removeFolder(const std::string& folder) {
    std::error_code ignored;
    files::remove_all(folder, ignored);
}

} // namespace

const char* nameOf(Learning result) noexcept {
    switch (result) {
    case Learning::learnt:
        return "learnt";
    case Learning::known:
        return "known";
    case Learning::revoked:
        return "revoked";
    case Learning::full:
        return "full";
    case Learning::notNewer:
        return "not-newer";
    case Learning::unsuitable:
        break;
    }
    return "unsuitable";
}

LearntFolder::LearntFolder(std::string folder, unsigned int perAddress, unsigned int total)
    : m_folder(std::move(folder)),
      m_perAddress(perAddress),
      m_total(total),
      m_names(namesIn(m_folder, m_count)) {}

LearntFolder::Names LearntFolder::namesIn(const std::string& folder, std::size_t& count) {
    std::set<std::string> found;
    std::vector<std::string> revoked;
    std::error_code error;
    for (files::directory_iterator entry(folder, error); !error && entry != files::directory_iterator();
         entry.increment(error)) {
        std::string name = entry->path().filename().string();
        if (isName(name))
            found.insert(std::move(name));
        else if (name.starts_with(revokedPrefix))
            revoked.push_back(name.substr(std::strlen(revokedPrefix)));
    }
    if (error)
        throw failed(folder, error.message());
    for (const std::string& name : revoked)
        found.erase(name);
    count = found.size();
    Names names;
    for (const std::string& name : found)
        names[name.substr(0, digestLength)].insert(name);
    return names;
}

void LearntFolder::reload() {
    std::size_t count = 0;
    Names names = namesIn(m_folder, count);
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_names = std::move(names);
    m_count = count;
}

std::size_t LearntFolder::size() const {
    const std::lock_guard<std::mutex> guard(m_mutex);
    return m_count;
}

std::vector<RefCertificate> LearntFolder::find(const std::string& address) const {
    const std::string comparable = Norvane::Crypto::Trust::comparableAddress(address);
    if (comparable.empty())
        return {};
    std::set<std::string> names;
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        const auto found = m_names.find(digestOf(comparable));
        if (found != m_names.end())
            names = found->second;
    }
    std::vector<RefCertificate> certificates;
    for (const std::string& name : names) {
        RefCertificate certificate =
            isRevoked(m_folder, name) ? RefCertificate() : certificateIn(m_folder + '/' + name);
        if (!certificate.isNull() && Norvane::Crypto::Trust::matchSender(certificate, {address}).matches())
            certificates.push_back(std::move(certificate));
    }
    std::ranges::stable_sort(certificates, [](const RefCertificate& left, const RefCertificate& right) {
        return endOf(left) > endOf(right);
    });
    return certificates;
}

std::optional<std::string> LearntFolder::outlived(const std::set<std::string>& names,
                                                  const RefCertificate& certificate) const {
    if (names.size() < m_perAddress)
        return std::string();
    std::string first;
    std::int64_t firstEnd = 0;
    for (const std::string& name : names) {
        const RefCertificate one = certificateIn(m_folder + '/' + name);
        const std::int64_t end = one.isNull() ? std::numeric_limits<std::int64_t>::min() : endOf(one);
        if (first.empty() || end < firstEnd) {
            first = name;
            firstEnd = end;
        }
    }
    if (first.empty() || firstEnd >= endOf(certificate))
        return std::nullopt;
    return first;
}

Learning LearntFolder::learn(const std::string& address, const RefCertificate& certificate,
                             const std::string& messageId, const std::string& queueId) {
    const std::string comparable = Norvane::Crypto::Trust::comparableAddress(address);
    const std::string pem = certificate.isNull() ? "" : pemOf(certificate);
    if (comparable.empty() || !isPlain(address) || pem.empty() || pem.size() >= longestFile)
        return Learning::unsuitable;
    const std::string ofAddress = digestOf(comparable);
    const std::string name = ofAddress + '-' + digestOf(derOf(certificate));
    const std::string path = m_folder + '/' + name;

    const std::lock_guard<std::mutex> guard(m_mutex);
    if (isRevoked(m_folder, name))
        return Learning::revoked;
    const auto known = m_names.find(ofAddress);
    const std::set<std::string> names = known == m_names.end() ? std::set<std::string>() : known->second;
    if (names.count(name) > 0)
        return Learning::known;
    if (access(path.c_str(), F_OK) == 0) {
        // Another filter, or the one before a reload, was faster.
        m_names[ofAddress].insert(name);
        ++m_count;
        return Learning::known;
    }
    const std::optional<std::string> leaving = outlived(names, certificate);
    if (!leaving)
        return Learning::notNewer;
    if (leaving->empty() && m_count >= m_total)
        return Learning::full;
    std::string made = m_folder + "/.new-XXXXXX";
    if (mkdtemp(made.data()) == nullptr)
        throw failed(m_folder, std::strerror(errno));
    try {
        write(made + "/cert.pem", pem);
        write(made + "/owners.txt", address + '\n');
        write(made + "/learnt.toml", tomlOf(address, certificate, messageId, queueId));
        if (chmod(made.c_str(), 0755) != 0 || std::rename(made.c_str(), path.c_str()) != 0)
            throw failed(path, std::strerror(errno));
    } catch (...) {
        removeFolder(made);
        throw;
    }
    m_names[ofAddress].insert(name);
    ++m_count;
    // At last: on a full disk the address keeps what it has.
    if (!leaving->empty()) {
        removeFolder(m_folder + '/' + *leaving);
        m_names[ofAddress].erase(*leaving);
        --m_count;
    }
    return Learning::learnt;
}

std::vector<LearntEntry> LearntFolder::list(const std::string& folder) {
    std::vector<LearntEntry> entries;
    std::error_code error;
    for (files::directory_iterator entry(folder, error); !error && entry != files::directory_iterator();
         entry.increment(error)) {
        std::string name = entry->path().filename().string();
        const bool revoked = name.starts_with(revokedPrefix);
        if (revoked)
            name.erase(0, std::strlen(revokedPrefix));
        if (isName(name))
            entries.push_back(entryOf(entry->path().string(), name, revoked));
    }
    if (error)
        throw failed(folder, error.message());
    std::ranges::sort(entries, {}, [](const LearntEntry& one) { return std::tie(one.address, one.name); });
    return entries;
}

bool LearntFolder::revoke(const std::string& folder, const std::string& name) {
    if (!isName(name))
        return false;
    const std::string path = folder + '/' + name;
    if (std::rename(path.c_str(), (folder + '/' + revokedPrefix + name).c_str()) == 0)
        return true;
    if (errno == ENOENT)
        return false;
    if (errno != ENOTEMPTY && errno != EEXIST)
        throw failed(path, std::strerror(errno));
    // It was revoked before, and copied here again.
    std::error_code error;
    files::remove_all(path, error);
    if (error)
        throw failed(path, error.message());
    return true;
}

} // namespace norvmilter
