// What of secrets is left in a process after everything that held them was released. The work is done by this program, run
// anew, so that it knows nothing but the files that it is given; it stops itself, and its memory and its core dump are
// searched from outside. docs/threat-model.md names what is not wiped.

#include "support/Keys.h"
#include "support/Pkcs12.h"
#include "support/Places.h"
#include "support/TemporaryFolder.h"

#include <norvcmsg/File.h>
#include <norvcmsg/SwapBufferMediaOut.h>
#include <norvcrypto-keystore/DirectoryKeyStore.h>
#include <norvcrypto-smime/SMimeReader.h>
#include <norvcrypto-smime/SMimeWriter.h>
#include <norvcrypto/CMSEncryptionMedia.h>
#include <norvcrypto/CMSEnvelopeReader.h>
#include <norvcrypto/CMSEnvelopeWriter.h>
#include <norvcrypto/CMSSignerMedia.h>
#include <norvcrypto/Crypto.h>

#include <openssl/bn.h>
#include <openssl/cms.h>
#include <openssl/core_names.h>
#include <openssl/pem.h>

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace {

using namespace Norvane::Crypto;
using Norvane::File;
using norvauthority::Bytes;
using norvauthority::Identity;

// The process that is searched. It must not have a secret of its own: what it works on, it reads through the library.

Norvane::EmailAddress owner() {
    return Norvane::EmailAddress::rfc5321Parse("alice@example.org", true);
}

NVX509::RefKeyStore keysIn(const std::string& folder) {
    NVX509::RefDirectoryKeyStore directory(folder + "/store");
    NVX509::RefKeyStore keys(true);
    keys->add(directory.plugin());
    return keys;
}

void signs(const std::string& folder) {
    const auto pair = keysIn(folder)->findSigningKey(owner());
    Norvane::NullMediaOut target;
    CMS::SignerMediaOut signer(Hasher::SHA256, pair);
    signer.attach(target);
    signer.write(reinterpret_cast<const unsigned char*>("body"), 4);
    signer.end();
}

void decryptsAsPrescribed(const std::string& folder) {
    Norvane::FileMediaIn message(File::Path(folder + "/message"));
    CMS::DecrypterMediaIn decrypter(message, keysIn(folder));
    Norvane::SwapBufferMediaOut clear(1U << 20U, "/tmp/secretsXXXXXX");
    if (!decrypter.decrypt(clear)) {
        std::abort();
    }
    Norvane::NullMediaOut target;
    clear.in().write(target);
}

void readsEnvelope(const std::string& folder, const char* name) {
    const CMS::KeyStoreLookup keys(keysIn(folder));
    CMS::EnvelopeReader reader(Norvane::FileMediaIn(File::Path(folder + name)));
    Norvane::NullMediaOut target;
    if (!reader.open(keys)) {
        std::abort();
    }
    reader.write(target);
}

void readsMail(const std::string& folder) {
    const CMS::KeyStoreLookup keys(keysIn(folder));
    SMime::ReadOptions options;
    options.keys = &keys;
    Norvane::NullMediaOut target;
    const auto answer = SMime::read(Norvane::FileMediaIn(File::Path(folder + "/mail")), target, options);
    if (answer.verdict != SMime::Verdict::decrypted) {
        std::abort();
    }
}

void importsPkcs12(const std::string& folder) {
    FileBIO file(File::Path(folder + "/alice.p12"), "rb");
    PKCS12::Store store(file);
    std::string passphrase;
    { // the caller's own copy
        Norvane::FileMediaIn in(File::Path(folder + "/store/alice/passphrase"));
        in.read(passphrase);
        passphrase.pop_back();
    }
    store.read(passphrase);
    norvtest::owned(store);
    explicit_bzero(passphrase.data(), passphrase.size());
}

/// What OpenSSL leaves when it reads a key by itself.
void opensslReadsAKey(const std::string& folder) {
    static char passphrase[200];
    std::FILE* const file = std::fopen((folder + "/store/alice/passphrase").c_str(), "re");
    std::setvbuf(file, nullptr, _IONBF, 0);
    passphrase[std::fread(passphrase, 1, sizeof passphrase - 1, file) - 1] = '\0';
    std::fclose(file);
    BIO* const bio = BIO_new_file((folder + "/store/alice/key.pem").c_str(), "r");
    EVP_PKEY* const key = PEM_read_bio_PrivateKey(bio, nullptr, nullptr, passphrase);
    if (key == nullptr) {
        std::abort();
    }
    EVP_PKEY_free(key);
    BIO_free(bio);
    explicit_bzero(passphrase, sizeof passphrase);
}

using Work = void (*)(const std::string& folder);
const std::map<std::string, Work>& works() {
    static const std::map<std::string, Work> all{
        {"nothing", [](const std::string&) {}},
        {"openssl", opensslReadsAKey},
        {"sign", signs},
        {"decrypt", decryptsAsPrescribed},
        {"readEnvelope", [](const std::string& folder) { readsEnvelope(folder, "/message"); }},
        {"readAuthenticatedEnvelope", [](const std::string& folder) { readsEnvelope(folder, "/authenticated"); }},
        {"readMail", readsMail},
        {"importPkcs12", importsPkcs12},
        {"keep", [](const std::string& folder) { // what has to be found
             static const auto pair = keysIn(folder)->findSigningKey(owner());
         }}};
    return all;
}

/// Instead of the tests, where the environment asks for it.
[[gnu::constructor(65535)]] void workAndStop() {
    const char* const work = std::getenv("NORV_SECRETS_WORK");
    const char* const folder = std::getenv("NORV_SECRETS_FOLDER");
    if (work == nullptr || folder == nullptr) {
        return;
    }
    Norvane::Crypto::initialize();
    works().at(work)(folder);
    if (std::getenv("NORV_SECRETS_DUMP") != nullptr) {
        std::abort();
    }
    std::raise(SIGSTOP);
    _exit(0);
}

// The process that searches.

/// What is looked for.
using Secrets = std::map<std::string, std::string>;

/// Big-endian, and as OpenSSL has numbers in memory.
void addNumber(Secrets& secrets, const std::string& name, const EVP_PKEY* key, const char* parameter) {
    BIGNUM* number = nullptr;
    ASSERT_EQ(EVP_PKEY_get_bn_param(key, parameter, &number), 1);
    std::string octets(static_cast<std::size_t>(BN_num_bytes(number)), '\0');
    BN_bn2bin(number, reinterpret_cast<unsigned char*>(octets.data()));
    BN_free(number);
    secrets[name + ", big-endian"] = octets.substr(8, 32);
    std::reverse(octets.begin(), octets.end());
    secrets[name] = octets.substr(8, 32);
}

class SecretsInMemory : public testing::Test {
protected:
    static void SetUpTestSuite() { Norvane::Crypto::initialize(); }

    void SetUp() override {
        const Identity alice =
            norvauthority::issue({.subject = {{"CN", "Alice"}}, .key = norvauthority::Key::rsa(), .serial = "a11ce"});
        m_secrets["passphrase"] = "a passphrase " + std::to_string(getpid()) + " that stands nowhere else";
        addNumber(m_secrets, "p", alice.key.get(), OSSL_PKEY_PARAM_RSA_FACTOR1);
        addNumber(m_secrets, "q", alice.key.get(), OSSL_PKEY_PARAM_RSA_FACTOR2);
        addNumber(m_secrets, "d", alice.key.get(), OSSL_PKEY_PARAM_RSA_D);
        addNumber(m_secrets, "d mod (p-1)", alice.key.get(), OSSL_PKEY_PARAM_RSA_EXPONENT1);
        std::filesystem::create_directories(path("store/alice"));
        chmod(path("store").c_str(), 0755);
        write("store/alice/cert.pem", alice.certificate.pem());
        write("store/alice/owners.txt", "*\n");
        write("store/alice/passphrase", m_secrets["passphrase"] + "\n");
        write("store/alice/key.pem", alice.key.encryptedPem(m_secrets["passphrase"]));
        const Bytes p12 = norvtest::pkcs12({.key = &alice, .certificate = &alice, .password = m_secrets["passphrase"]});
        write("alice.p12", {p12.begin(), p12.end()});
        m_secrets["clear text"] = "a sentence " + std::to_string(getpid()) + " that nobody else may read";
        const auto certificate = NVX509::CertificateFactory().readDER(x509testing::buffer(alice.certificate.der));
        write("message", encrypted(certificate, CMS::ContentCipher::aes256Cbc));
        write("authenticated", encrypted(certificate, CMS::ContentCipher::aes256Gcm));
        SMime::EncryptOptions options;
        options.certificates.push_back(certificate);
        Norvane::MemoryMediaOut mail;
        SMime::encrypt(Norvane::MemoryMediaIn("From: a@example.org\r\nSubject: x\r\n\r\n" + text() + "\r\n"), options,
                       mail);
        write("mail", {reinterpret_cast<const char*>(mail.content().data()), mail.content().length()});
        for (const char* const name : {"message", "authenticated"}) {
            m_secrets[std::string("content key of ") + name] = contentKey(name, alice);
        }
    }

    /// The names of the secrets that are in a process after some work, beyond those that OpenSSL leaves of a key that it
    /// reads by itself.
    std::vector<std::string> leftByUs(const std::string& work) {
        static const std::vector<std::string> opensslsOwn = leftBy("openssl"); // names, the same for every key
        std::vector<std::string> left = leftBy(work);
        left.erase(std::remove_if(left.begin(), left.end(),
                                  [&](const std::string& one) {
                                      return std::find(opensslsOwn.begin(), opensslsOwn.end(), one) !=
                                             opensslsOwn.end();
                                  }),
                   left.end());
        return left;
    }
    /// The names of the secrets that are in a process after some work.
    std::vector<std::string> leftBy(const std::string& work) {
        const pid_t child = start(work, false);
        int status = 0;
        waitpid(child, &status, WUNTRACED);
        EXPECT_TRUE(WIFSTOPPED(status)) << "the work failed";
        std::vector<std::string> found = searched(child);
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
        return found;
    }
    std::vector<std::string> leftInCoreOf(const std::string& work) {
        int status = 0;
        waitpid(start(work, true), &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT);
        for (const auto& entry : std::filesystem::directory_iterator(path("cores"))) {
            std::ifstream core(entry.path(), std::ios::binary);
            std::vector<std::string> found;
            search(std::string(std::istreambuf_iterator<char>(core), {}), "core", found);
            return found;
        }
        ADD_FAILURE() << "there is no core";
        return {};
    }

private:
    [[nodiscard]] std::string path(const std::string& name) const { return m_folder.path(name); }
    void write(const std::string& name, const std::string& content) const {
        std::ofstream(path(name), std::ios::binary) << content;
        chmod(path(name).c_str(), 0600);
    }
    /// Long enough for pieces of every size, with the secret again and again.
    [[nodiscard]] std::string text() const {
        std::string all;
        while (all.size() < 200000) {
            all += m_secrets.at("clear text") + "\r\n";
        }
        return all;
    }
    [[nodiscard]] std::string encrypted(const NVX509::RefCertificate& certificate, CMS::ContentCipher cipher) const {
        CMS::EnvelopeOptions options;
        options.cipher = cipher;
        Norvane::MemoryMediaOut out;
        CMS::EnvelopeWriter writer({CMS::EnvelopeRecipient(certificate)}, options);
        writer.attach(out);
        const std::string clear = text();
        writer.write(reinterpret_cast<const unsigned char*>(clear.data()), static_cast<unsigned int>(clear.size()));
        writer.end();
        return {reinterpret_cast<const char*>(out.content().data()), out.content().length()};
    }
    /// What RSA makes of the encrypted key of the one recipient.
    [[nodiscard]] std::string contentKey(const std::string& name, const Identity& alice) const {
        CMS::EnvelopeReader reader{Norvane::FileMediaIn(File::Path(path(name)))};
        std::ifstream in(path(name), std::ios::binary);
        const std::string message(std::istreambuf_iterator<char>(in), {});
        // The encrypted key is the first OCTET STRING of 256 octets.
        const std::size_t at = message.find(std::string("\x04\x82\x01\x00", 4));
        if (at == std::string::npos) {
            ADD_FAILURE() << "no encrypted key";
            return {};
        }
        EVP_PKEY_CTX* const context = EVP_PKEY_CTX_new(alice.key.get(), nullptr);
        std::string key(256, '\0');
        std::size_t length = key.size();
        EXPECT_EQ(EVP_PKEY_decrypt_init(context), 1);
        EXPECT_EQ(EVP_PKEY_decrypt(context, reinterpret_cast<unsigned char*>(key.data()), &length,
                                   reinterpret_cast<const unsigned char*>(message.data()) + at + 4, 256),
                  1);
        EVP_PKEY_CTX_free(context);
        EXPECT_EQ(length, 32U);
        key.resize(length);
        return key;
    }
    [[nodiscard]] pid_t start(const std::string& work, bool dumps) const {
        const std::string folder = path("");
        std::filesystem::create_directories(path("cores"));
        const pid_t child = fork();
        if (child == 0) {
            setenv("NORV_SECRETS_WORK", work.c_str(), 1);
            setenv("NORV_SECRETS_FOLDER", folder.c_str(), 1);
            if (dumps) {
                setenv("NORV_SECRETS_DUMP", "1", 1);
                setenv("ASAN_OPTIONS", "disable_coredump=0:handle_abort=0", 1);
                const rlimit all{RLIM_INFINITY, RLIM_INFINITY};
                setrlimit(RLIMIT_CORE, &all);
                if (chdir(path("cores").c_str()) != 0) {
                    _exit(1);
                }
            }
            const std::string program = std::filesystem::read_symlink("/proc/self/exe");
            execl(program.c_str(), program.c_str(), static_cast<char*>(nullptr));
            _exit(1);
        }
        return child;
    }
    void search(const std::string& memory, const std::string& where, std::vector<std::string>& found) const {
        for (const auto& [name, secret] : m_secrets) {
            if (memmem(memory.data(), memory.size(), secret.data(), secret.size()) != nullptr) {
                found.push_back(name + " in " + where);
            }
        }
    }
    /// In all that a process may write to.
    [[nodiscard]] std::vector<std::string> searched(pid_t process) const {
        std::vector<std::string> found;
        std::ifstream maps("/proc/" + std::to_string(process) + "/maps");
        std::ifstream memory("/proc/" + std::to_string(process) + "/mem", std::ios::binary);
        std::size_t octets = 0;
        for (std::string line; std::getline(maps, line);) {
            std::uint64_t begin = 0;
            std::uint64_t end = 0;
            char permissions[5] = "";
            int name = 0;
            if (std::sscanf(line.c_str(), "%" SCNx64 "-%" SCNx64 " %4s %*s %*s %*s %n", &begin, &end, permissions,
                            &name) < 3 ||
                permissions[0] != 'r' || permissions[1] != 'w' || end - begin > (std::uint64_t{1} << 32U)) {
                continue; // beyond 4 GiB it is the sanitizer's shadow
            }
            std::string content(end - begin, '\0');
            memory.clear();
            memory.seekg(static_cast<std::streamoff>(begin));
            memory.read(content.data(), static_cast<std::streamsize>(content.size()));
            content.resize(static_cast<std::size_t>(std::max<std::streamsize>(memory.gcount(), 0)));
            octets += content.size();
            const std::string where = line.substr(static_cast<std::size_t>(name));
            search(content, where.empty() ? "memory" : std::filesystem::path(where).filename().string(), found);
        }
        EXPECT_GT(octets, std::size_t{1} << 20U) << "hardly anything could be read";
        return found;
    }

    norvtest::TemporaryFolder m_folder;
    Secrets m_secrets;
};

using Found = std::vector<std::string>;

// The search is no good unless it finds what is there.
TEST_F(SecretsInMemory, FindsAKeyThatIsKept) {
    const Found found = leftBy("keep");
    EXPECT_NE(
        std::find_if(found.begin(), found.end(), [](const std::string& one) { return one.rfind("p in ", 0) == 0; }),
        found.end());
    EXPECT_EQ(leftBy("nothing"), Found());
}

TEST_F(SecretsInMemory, NothingOfAKeyIsLeftBySigning) {
    EXPECT_EQ(leftByUs("sign"), Found());
}

TEST_F(SecretsInMemory, NothingIsLeftByDecryptingAsPrescribed) {
    EXPECT_EQ(leftByUs("decrypt"), Found());
}

TEST_F(SecretsInMemory, NothingIsLeftByReadingAnEnvelope) {
    EXPECT_EQ(leftByUs("readEnvelope"), Found());
}

TEST_F(SecretsInMemory, NothingIsLeftByReadingAnAuthenticatedEnvelope) {
    EXPECT_EQ(leftByUs("readAuthenticatedEnvelope"), Found());
}

TEST_F(SecretsInMemory, PiecesOfTheTextAreLeftByReadingAMail) {
    EXPECT_EQ(leftByUs("readMail"), Found{"clear text in memory"}) << "docs/threat-model.md says otherwise";
}

TEST_F(SecretsInMemory, NothingIsLeftByImportingPkcs12) {
    EXPECT_EQ(leftByUs("importPkcs12"), Found());
}

TEST_F(SecretsInMemory, NothingOfAKeyIsInACoreDump) {
    std::ifstream pattern("/proc/sys/kernel/core_pattern");
    std::string text;
    std::getline(pattern, text);
    if (text.empty() || text.find_first_of("|/") != std::string::npos) {
        GTEST_SKIP() << "core dumps go somewhere else here: " << text;
    }
    EXPECT_NE(leftInCoreOf("keep"), Found());
    const Found opensslsOwn = leftInCoreOf("openssl");
    for (const std::string& one : leftInCoreOf("sign")) {
        EXPECT_NE(std::find(opensslsOwn.begin(), opensslsOwn.end(), one), opensslsOwn.end()) << one;
    }
}

} // namespace
