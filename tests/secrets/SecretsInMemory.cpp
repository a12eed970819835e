#include "SecretsInMemory.h"

#include "support/Pkcs12.h"
#include "support/Places.h"
#include "support/TemporaryFolder.h"

#include <norvcrypto-keystore/DirectoryKeyStore.h>
#include <norvcrypto-smime/SMimeWriter.h>
#include <norvcrypto/Crypto.h>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

namespace secrettesting {

namespace {

std::map<std::string, Work>& works() {
    static std::map<std::string, Work> all;
    return all;
}

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

/// The files that works are given, made once: the key takes its time.
struct Scene {
    norvtest::TemporaryFolder folder;
    Identity alice =
        norvauthority::issue({.subject = {{"CN", "Alice"}}, .key = norvauthority::Key::rsa(), .serial = "a11ce"});
    Secrets secrets;
};
std::unique_ptr<Scene> s_scene;

std::string octetsOf(const Norvane::Buffer& buffer) {
    return {reinterpret_cast<const char*>(buffer.data()), buffer.length()};
}

std::string encrypted(const std::string& clear, const NVX509::RefCertificate& certificate, CMS::ContentCipher cipher) {
    CMS::EnvelopeOptions options;
    options.cipher = cipher;
    Norvane::MemoryMediaOut out;
    CMS::EnvelopeWriter writer({CMS::EnvelopeRecipient(certificate)}, options);
    writer.attach(out);
    writer.write(reinterpret_cast<const unsigned char*>(clear.data()), static_cast<unsigned int>(clear.size()));
    writer.end();
    return octetsOf(out.content());
}

pid_t start(const std::string& work, bool dumps) {
    const std::string folder = s_scene->folder.path();
    const std::string cores = s_scene->folder.path("cores");
    std::filesystem::remove_all(cores);
    std::filesystem::create_directories(cores);
    const pid_t child = fork();
    if (child == 0) {
        setenv("NORV_SECRETS_WORK", work.c_str(), 1);
        setenv("NORV_SECRETS_FOLDER", folder.c_str(), 1);
        // As what is installed is linked: else the dynamic linker finds a function when it is called first, and saves the
        // registers on the stack, which may hold 64 octets of anything.
        setenv("LD_BIND_NOW", "1", 1);
        if (dumps) {
            setenv("NORV_SECRETS_DUMP", "1", 1);
            setenv("ASAN_OPTIONS", "disable_coredump=0:handle_abort=0", 1);
            const rlimit all{RLIM_INFINITY, RLIM_INFINITY};
            setrlimit(RLIMIT_CORE, &all);
            if (chdir(cores.c_str()) != 0) {
                _exit(1);
            }
        }
        const std::string program = std::filesystem::read_symlink("/proc/self/exe");
        execl(program.c_str(), program.c_str(), static_cast<char*>(nullptr));
        _exit(1);
    }
    return child;
}

void search(const Secrets& secrets, const std::string& memory, const std::string& where, Found& found) {
    for (const auto& [name, secret] : secrets) {
        const std::string one = name + " in " + where;
        if (memmem(memory.data(), memory.size(), secret.data(), secret.size()) != nullptr &&
            std::find(found.begin(), found.end(), one) == found.end()) {
            found.push_back(one);
        }
    }
}

/// In all that a process may write to.
Found searched(const Secrets& secrets, pid_t process) {
    Found found;
    std::ifstream maps("/proc/" + std::to_string(process) + "/maps");
    std::ifstream memory("/proc/" + std::to_string(process) + "/mem", std::ios::binary);
    std::size_t octets = 0;
    for (std::string line; std::getline(maps, line);) {
        std::uint64_t begin = 0;
        std::uint64_t end = 0;
        char permissions[5] = "";
        int name = 0;
        if (std::sscanf(line.c_str(), "%" SCNx64 "-%" SCNx64 " %4s %*s %*s %*s %n", &begin, &end, permissions, &name) <
                3 ||
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
        search(secrets, content, where.empty() ? "memory" : std::filesystem::path(where).filename().string(), found);
    }
    EXPECT_GT(octets, std::size_t{1} << 20U) << "hardly anything could be read";
    return found;
}

/// Instead of the tests.
void workAndStop(const std::string& work, const std::string& folder) {
    Norvane::Crypto::initialize();
    works().at(work)(folder);
    if (std::getenv("NORV_SECRETS_DUMP") != nullptr) {
        std::abort();
    }
    std::raise(SIGSTOP);
    _exit(0);
}

} // namespace

AddedWork::AddedWork(const char* name, Work work) {
    works()[name] = work;
}

NVX509::RefKeyStore keysIn(const std::string& folder) {
    NVX509::RefDirectoryKeyStore directory(folder + "/store");
    NVX509::RefKeyStore keys(true);
    keys->add(directory.plugin());
    return keys;
}

void SecretsInMemory::SetUpTestSuite() {
    Norvane::Crypto::initialize();
    s_scene = std::make_unique<Scene>();
    const Identity& alice = s_scene->alice;
    Secrets& secrets = s_scene->secrets;
    secrets["passphrase"] = "a passphrase " + std::to_string(getpid()) + " that stands nowhere else";
    secrets["clear text"] = "a sentence " + std::to_string(getpid()) + " that nobody else may read";
    addNumber(secrets, "p", alice.key.get(), OSSL_PKEY_PARAM_RSA_FACTOR1);
    addNumber(secrets, "q", alice.key.get(), OSSL_PKEY_PARAM_RSA_FACTOR2);
    addNumber(secrets, "d", alice.key.get(), OSSL_PKEY_PARAM_RSA_D);
    addNumber(secrets, "d mod (p-1)", alice.key.get(), OSSL_PKEY_PARAM_RSA_EXPONENT1);
    std::filesystem::create_directories(path("store/alice"));
    chmod(path("store").c_str(), 0755);
    write("store/alice/cert.pem", alice.certificate.pem());
    write("store/alice/owners.txt", "*\n");
    write("store/alice/passphrase", secrets["passphrase"] + "\n");
    write("store/alice/key.pem", alice.key.encryptedPem(secrets["passphrase"]));
    const Bytes p12 = norvtest::pkcs12({.key = &alice, .certificate = &alice, .password = secrets["passphrase"]});
    write("alice.der", {alice.certificate.der.begin(), alice.certificate.der.end()});
    write("alice.p12", {p12.begin(), p12.end()});
    const auto certificate = NVX509::CertificateFactory().readDER(x509testing::buffer(alice.certificate.der));
    write("clear", text());
    write("message", encrypted(text(), certificate, CMS::ContentCipher::aes256Cbc));
    write("authenticated", encrypted(text(), certificate, CMS::ContentCipher::aes256Gcm));
    const std::string header = "From: alice@example.org\r\nTo: alice@example.org\r\nSubject: x\r\n";
    write("clear.eml", header + "\r\n" + text());
    SMime::EncryptOptions options;
    options.certificates.push_back(certificate);
    Norvane::MemoryMediaOut mail;
    SMime::encrypt(Norvane::MemoryMediaIn(read("clear.eml")), options, mail);
    write("mail", octetsOf(mail.content()));
    for (const char* const name : {"message", "authenticated", "mail"}) {
        secrets[std::string("content key of ") + name] = contentKey(read(name));
    }
}

void SecretsInMemory::TearDownTestSuite() {
    s_scene.reset();
}

Found SecretsInMemory::leftByUs(const std::string& work, const std::function<void(Secrets&)>& learn) {
    static const Found opensslsOwn = leftBy("openssl"); // names, the same for every key
    Found left = leftBy(work, learn);
    std::erase_if(left, [&](const std::string& one) {
        return std::find(opensslsOwn.begin(), opensslsOwn.end(), one) != opensslsOwn.end();
    });
    return left;
}

Found SecretsInMemory::leftBy(const std::string& work, const std::function<void(Secrets&)>& learn) {
    const pid_t child = start(work, false);
    int status = 0;
    waitpid(child, &status, WUNTRACED);
    EXPECT_TRUE(WIFSTOPPED(status)) << "the work failed";
    Secrets secrets = s_scene->secrets;
    if (learn) {
        learn(secrets);
    }
    Found found = searched(secrets, child);
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    return found;
}

Found SecretsInMemory::leftInCoreOf(const std::string& work) {
    int status = 0;
    waitpid(start(work, true), &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT);
    for (const auto& entry : std::filesystem::directory_iterator(path("cores"))) {
        std::ifstream core(entry.path(), std::ios::binary);
        Found found;
        search(s_scene->secrets, std::string(std::istreambuf_iterator<char>(core), {}), "core", found);
        return found;
    }
    ADD_FAILURE() << "there is no core";
    return {};
}

std::string SecretsInMemory::path(const std::string& name) {
    return s_scene->folder.path(name);
}

void SecretsInMemory::write(const std::string& name, const std::string& content) {
    std::ofstream(path(name), std::ios::binary) << content;
    chmod(path(name).c_str(), 0600);
}

std::string SecretsInMemory::read(const std::string& name) {
    return s_scene->folder.read(name);
}

const Secrets& SecretsInMemory::secrets() {
    return s_scene->secrets;
}

std::string SecretsInMemory::text() {
    std::string all;
    while (all.size() < 200000) {
        all += s_scene->secrets.at("clear text") + "\r\n";
    }
    return all;
}

std::string SecretsInMemory::contentKey(const std::string& message) {
    std::string octets = message;
    if (const std::size_t body = message.find("\r\n\r\n"); message.starts_with("From:")) {
        std::unique_ptr<EVP_ENCODE_CTX, decltype(&EVP_ENCODE_CTX_free)> context(EVP_ENCODE_CTX_new(),
                                                                                EVP_ENCODE_CTX_free);
        int length = 0;
        EVP_DecodeInit(context.get());
        EXPECT_GE(EVP_DecodeUpdate(context.get(), reinterpret_cast<unsigned char*>(octets.data()), &length,
                                   reinterpret_cast<const unsigned char*>(message.data()) + body + 4,
                                   static_cast<int>(message.size() - body - 4)),
                  0);
        octets.resize(static_cast<std::size_t>(length));
    }
    // The encrypted key is the first OCTET STRING of 256 octets.
    const std::size_t at = octets.find(std::string("\x04\x82\x01\x00", 4));
    if (at == std::string::npos) {
        ADD_FAILURE() << "no encrypted key";
        return "no key";
    }
    EVP_PKEY_CTX* const context = EVP_PKEY_CTX_new(s_scene->alice.key.get(), nullptr);
    std::string key(256, '\0');
    std::size_t length = key.size();
    EXPECT_EQ(EVP_PKEY_decrypt_init(context), 1);
    EXPECT_EQ(EVP_PKEY_decrypt(context, reinterpret_cast<unsigned char*>(key.data()), &length,
                               reinterpret_cast<const unsigned char*>(octets.data()) + at + 4, 256),
              1);
    EVP_PKEY_CTX_free(context);
    EXPECT_EQ(length, 32U);
    key.resize(length);
    return key;
}

} // namespace secrettesting

int main(int count, char** arguments) {
    const char* const work = std::getenv("NORV_SECRETS_WORK");
    const char* const folder = std::getenv("NORV_SECRETS_FOLDER");
    if (work != nullptr && folder != nullptr) {
        secrettesting::workAndStop(work, folder);
    }
    testing::InitGoogleTest(&count, arguments);
    return RUN_ALL_TESTS();
}
