// Key stores, PKCS#12, whole messages, trust and TLS, while memory runs out, system calls and streams fail and the process
// forks.

#include "FaultsTesting.h"

#include "support/Cms.h"
#include "support/Pkcs12.h"
#include "support/TemporaryFolder.h"
#include "support/Tls.h"

#include <norvcrypto-keystore/DirectoryKeyStore.h>
#include <norvcrypto-smime/SMimeReader.h>
#include <norvcrypto-smime/SMimeWriter.h>
#include <norvcrypto-trust/Trust.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

namespace {

using namespace faultstesting;
using cmstest::certificateOf;
using cmstest::identities;
using cmstest::keyOf;
using cmstest::pairOf;
using Norvane::EmailAddress;
using norvauthority::GeneralName;
using norvauthority::Identity;
namespace Crypto = Norvane::Crypto;
namespace CMS = Norvane::Crypto::CMS;
namespace NVSSL = Norvane::Crypto::NVSSL;
namespace NVX509 = Norvane::Crypto::NVX509;
namespace SMime = Norvane::Crypto::SMime;
namespace Trust = Norvane::Crypto::Trust;
using NVX509::DirectoryKeyStore;

const Identity& alice() {
    return identities().rsa;
}
const Identity& bob() {
    return identities().otherRsa;
}

// PKCS#12.

Operation importsPkcs12(const std::string& password, bool bad) {
    const auto der = norvtest::pkcs12({.key = &alice(), .certificate = &alice(), .chain = {&identities().authority}});
    return {.name = std::string("PKCS12::Store ") + (bad ? "under another password" : "good"),
            .act =
                [=] {
                    Crypto::MemoryBIO source(x509testing::buffer(der));
                    Crypto::PKCS12::Store store(source);
                    store.read(password);
                    const faults::Pause pause;
                    const auto certificate = norvtest::owned(store);
                    if (store.privateKey().isNull() || certificate.isNull()) {
                        return Answer{Answer::refused, "one of them is missing"};
                    }
                    return EVP_PKEY_eq(store.privateKey(), alice().key.get()) == 1 &&
                                   certificate == certificateOf(alice())
                               ? Answer{Answer::done}
                               : Answer{Answer::wrong, "another key or certificate"};
                },
            .mustRefuse = bad,
            .mayRefuse = true};
}

// Key stores.

/// Two identities for one address: alice's is the closer one.
class Identities {
public:
    Identities() {
        add("alice", "alice@x.example\n", alice());
        add("anybody", "*\n", bob());
        write("anybody/chain.pem", identities().authority.certificate.pem(), 0644);
    }
    [[nodiscard]] std::string path(const std::string& name = "") const { return m_folder.path("store/" + name); }
    void write(const std::string& name, const std::string& content, mode_t mode) const {
        std::ofstream(path(name), std::ios::binary) << content;
        chmod(path(name).c_str(), mode);
    }

private:
    void add(const std::string& name, const std::string& owners, const Identity& who) const {
        std::filesystem::create_directories(path(name));
        chmod(path().c_str(), 0755);
        chmod(path(name).c_str(), 0755);
        write(name + "/cert.pem", who.certificate.pem(), 0644);
        write(name + "/owners.txt", owners, 0644);
        write(name + "/passphrase", "secret\n", 0600);
        write(name + "/key.pem", who.key.encryptedPem("secret"), 0600);
    }
    norvtest::TemporaryFolder m_folder;
};

EmailAddress address(const std::string& text) {
    return EmailAddress::rfc5321Parse(text, true);
}

Answer found(const NVX509::RefDirectoryKeyStore& store) {
    const auto pair = store->findSigningKey(address("alice@x.example"));
    const faults::Pause pause;
    if (pair && !pair->certificate.isNull() && pair->certificate == certificateOf(alice())) {
        return EVP_PKEY_eq(pair->key, alice().key.get()) == 1 ? Answer{Answer::done}
                                                              : Answer{Answer::wrong, "another key"};
    }
    // A file that cannot be read counts as absent: that has to be told.
    const auto problems = store->contents()->problems;
    return problems.empty() ? Answer{Answer::wrong, "the closer one is not found, and nobody is told"}
                            : Answer{Answer::refused, problems.front().file + " " + problems.front().reason};
}

Operation loadsStore(DirectoryKeyStore::Reading reading) {
    const auto folder = std::make_shared<Identities>();
    return {.name = std::string("DirectoryKeyStore ") +
                    (reading == DirectoryKeyStore::Reading::ahead ? "ahead" : "when asked"),
            .act =
                [=] {
                    const NVX509::RefDirectoryKeyStore store(folder->path(), reading);
                    return found(store);
                },
            .mayRefuse = true,
            .weight = 4};
}

Operation reloadsStore() {
    const auto folder = std::make_shared<Identities>();
    const auto store =
        std::make_shared<NVX509::RefDirectoryKeyStore>(folder->path(), DirectoryKeyStore::Reading::ahead);
    const auto turn = std::make_shared<int>(0);
    return {.name = "DirectoryKeyStore::reload",
            .act =
                [=] {
                    const std::string newer = "n" + std::to_string(++*turn) + "@x.example";
                    {
                        const faults::Pause pause;
                        folder->write("anybody/owners.txt", newer + "\n*\n", 0644);
                    }
                    try {
                        (*store)->reload();
                    } catch (...) {
                        const faults::Pause pause; // what was loaded before stays in use
                        if (found(*store).verdict != Answer::done) {
                            return Answer{Answer::wrong, "the old content is gone"};
                        }
                        throw;
                    }
                    const auto pair = (*store)->findSigningKey(address(newer));
                    const faults::Pause pause;
                    if (pair == nullptr || pair->certificate.isNull() || !(pair->certificate == certificateOf(bob()))) {
                        return Answer{Answer::refused, "the newer one is not found"};
                    }
                    return found(*store);
                },
            .mayRefuse = true,
            .weight = 2};
}

// Trust.

struct Chain {
    Identity root = norvauthority::issue(
        {.subject = {{"CN", "Root"}}, .key = norvauthority::Key::ec(), .ca = true, .keyUsage = 0x06});
    Identity stranger = norvauthority::issue(
        {.subject = {{"CN", "Stranger"}}, .key = norvauthority::Key::ec(), .ca = true, .keyUsage = 0x06});
    Identity middle = issued(root, "Middle", "b2", {.ca = true, .keyUsage = 0x06});
    Identity anna = person(middle, "a1");
    Identity revoked = person(middle, "a2");
    Identity expired = person(middle, "a3", -86400);
    Identity limited = person(issued(root, "Limited", "b3", {.ca = false, .keyUsage = 0x80}), "a4");
    norvauthority::Crl rootList = norvauthority::issueList({.issuer = &root, .crlNumber = "1"});
    norvauthority::Crl middleList =
        norvauthority::issueList({.issuer = &middle, .revoked = {{.serial = "a2"}}, .crlNumber = "1"});

    static Identity issued(const Identity& issuer, const std::string& name, const std::string& serial,
                           norvauthority::CertificateRequest request) {
        request.subject = {{"CN", name}};
        request.key = norvauthority::Key::ec();
        request.issuer = &issuer;
        request.serial = serial;
        return norvauthority::issue(request);
    }
    static Identity person(const Identity& issuer, const std::string& serial, long until = 86400) {
        return issued(issuer, "Anna", serial,
                      {.notBefore = norvauthority::Time::fromNow(-2 * 86400),
                       .notAfter = norvauthority::Time::fromNow(until),
                       .keyUsage = 0x80,
                       .extendedKeyUsage = {"emailProtection"},
                       .alternativeNames = {GeneralName::email("anna@example.org")}});
    }
};
const Chain& chain() {
    static const Chain made;
    return made;
}

Operation judges(const std::string& name, const Identity& who, const Identity& anchor, bool bad) {
    const auto material = std::make_shared<Trust::Material>();
    material->addAnchor(certificateOf(anchor));
    material->addUntrusted(certificateOf(chain().middle));
    material->addList(x509testing::read(chain().rootList));
    material->addList(x509testing::read(chain().middleList));
    Trust::Options options;
    options.revocation = Trust::Revocation::required;
    const auto verifier = std::make_shared<Trust::Verifier>(material, options,
                                                            Trust::CacheLimits{.entries = 0, .bytes = 0, .seconds = 0});
    return {
        .name = "Trust::Verifier " + name,
        .act =
            [=] {
                NVX509::RefCertificate certificate;
                {
                    const faults::Pause pause;
                    certificate = certificateOf(who);
                }
                const Trust::Verdict verdict = verifier->judge(certificate);
                const faults::Pause pause;
                if (verdict.accepted) {
                    return verdict.chain.size() == 3 ? Answer{Answer::done} : Answer{Answer::wrong, "a short chain"};
                }
                return verdict.reasons.empty() ? Answer{Answer::wrong, "no reason"}
                                               : Answer{Answer::refused, verdict.reasons.front().text};
            },
        .mustRefuse = bad};
}

Operation loadsMaterial() {
    const auto folder = std::make_shared<norvtest::TemporaryFolder>();
    std::ofstream(folder->path("roots.pem")) << chain().root.certificate.pem() << chain().stranger.certificate.pem();
    std::filesystem::create_directory(folder->path("lists"));
    std::ofstream(folder->path("lists/one")) << chain().rootList.pem();
    std::ofstream(folder->path("lists/two")) << chain().middleList.pem();
    return {.name = "Trust::Material",
            .act =
                [=] {
                    Trust::Material material;
                    material.addAnchors(folder->path("roots.pem"));
                    material.addLists(folder->path("lists"));
                    material.reload();
                    const auto counts = material.counts();
                    const faults::Pause pause;
                    if (counts.anchors == 2 && counts.lists == 2) {
                        return Answer{Answer::done};
                    }
                    return material.problems().empty()
                               ? Answer{Answer::wrong, "something is missing, and nobody is told"}
                               : Answer{Answer::refused, material.problems().front().reason};
                },
            .mayRefuse = true};
}

// Whole messages.

const std::string s_mail =
    "From: Anna <anna@example.org>\r\nTo: bob@example.org\r\nSubject: faults\r\n"
    "MIME-Version: 1.0\r\nContent-Type: text/plain; charset=utf-8\r\n\r\nHello Bob,\r\n\r\nyours\r\n";
const std::string s_content = "Content-Type: text/plain; charset=utf-8\r\n\r\nHello Bob,\r\n\r\nyours\r\n";

SMime::SignOptions signing() {
    SMime::SignOptions options;
    options.signers.emplace_back(
        NVX509::KeyCertificatePair(keyOf(chain().anna), certificateOf(chain().anna), {certificateOf(chain().middle)}));
    return options;
}
SMime::EncryptOptions encrypting() {
    SMime::EncryptOptions options;
    options.certificates.push_back(certificateOf(bob()));
    return options;
}
SMime::WriteOptions writing() {
    SMime::WriteOptions options;
    options.spillTemplate = "/tmp/faultsXXXXXX";
    return options;
}

std::string textOf(const Norvane::Buffer& buffer) {
    return {reinterpret_cast<const char*>(buffer.data()), buffer.length()};
}

std::string signedAndEncrypted() {
    Norvane::MemoryMediaOut out;
    SMime::signAndEncrypt(Norvane::MemoryMediaIn(s_mail), signing(), encrypting(), out, writing());
    return textOf(out.content());
}
std::string signedMail() {
    Norvane::MemoryMediaOut out;
    SMime::sign(Norvane::MemoryMediaIn(s_mail), signing(), out, writing());
    return textOf(out.content());
}

Operation readsMail(const std::string& name, const std::string& mail, const Identity& anchor, bool bad) {
    const auto material = std::make_shared<Trust::Material>();
    material->addAnchor(certificateOf(anchor));
    const auto verifier = std::make_shared<Trust::Verifier>(material, Trust::Options(),
                                                            Trust::CacheLimits{.entries = 0, .bytes = 0, .seconds = 0});
    const auto keys = std::make_shared<CMS::KeyListLookup>(std::list<NVX509::KeyCertificatePair>{pairOf(bob())});
    return {.name = "SMime::read " + name,
            .act =
                [=] {
                    SMime::ReadOptions options;
                    options.keys = keys.get();
                    options.trust = verifier.get();
                    options.spillTemplate = "/tmp/faultsXXXXXX";
                    Target content;
                    const SMime::Answer answer = SMime::read(faults::source(mail), content, options);
                    const faults::Pause pause;
                    if (answer.verdict != SMime::Verdict::accepted) {
                        return Answer{answer.verdict == SMime::Verdict::unsupported ? Answer::undecided
                                                                                    : Answer::refused,
                                      std::string(SMime::nameOf(answer.verdict)) + ": " + answer.detail};
                    }
                    return content.content().find("Hello Bob,\r\n\r\nyours\r\n") != std::string::npos
                               ? Answer{Answer::done}
                               : Answer{Answer::wrong, "another content: " + content.content()};
                },
            .mustRefuse = bad,
            .weight = 2};
}

/// What the reader says of a mail that was written.
Answer readBack(const Target& written, SMime::Verdict expected) {
    const faults::Pause pause;
    if (!written.ended()) {
        return {Answer::wrong, "the target was not ended"};
    }
    SMime::ReadOptions options;
    const CMS::KeyListLookup keys({pairOf(bob())});
    options.keys = &keys;
    Norvane::MemoryMediaOut content;
    const SMime::Answer answer = SMime::read(Norvane::MemoryMediaIn(written.content()), content, options);
    return answer.verdict == expected && textOf(content.content()) == s_content
               ? Answer{Answer::done}
               : Answer{Answer::wrong, std::string(SMime::nameOf(answer.verdict)) + ": " + answer.detail};
}

std::vector<Operation> writesMails() {
    const auto sign = signing();
    const auto encrypt = encrypting();
    const auto how = writing();
    return {{.name = "SMime::sign",
             .act =
                 [=] {
                     Target out;
                     SMime::sign(faults::source(s_mail), sign, out, how);
                     return readBack(out, SMime::Verdict::signatureGood);
                 },
             .weight = 2},
            {.name = "SMime::encrypt",
             .act =
                 [=] {
                     Target out;
                     SMime::encrypt(faults::source(s_mail), encrypt, out, how);
                     return readBack(out, SMime::Verdict::decrypted);
                 },
             .weight = 2},
            {.name = "SMime::signAndEncrypt",
             .act =
                 [=] {
                     Target out;
                     SMime::signAndEncrypt(faults::source(s_mail), sign, encrypt, out, how);
                     return readBack(out, SMime::Verdict::signatureGood);
                 },
             .weight = 2}};
}

// TLS.

constexpr std::size_t s_transfer = 5000;
const std::string s_sent(s_transfer, 's');
const std::string s_answer(s_transfer, 'a');

/// All of it, or an exception.
void sendAll(Norvane::Socket& socket, const std::string& text) {
    if (tlstesting::send(socket, text) != static_cast<int>(text.size())) {
        throw Norvane::Exception("sendAll", 4, "test", 1);
    }
}
std::string receiveAll(Norvane::Socket& socket, std::size_t length) {
    std::string all;
    std::vector<Norvane::uchar_t> piece(16384);
    while (all.size() < length) {
        const int count = socket.receive(piece.data(), 16384);
        if (count <= 0) {
            break;
        }
        all.append(reinterpret_cast<const char*>(piece.data()), static_cast<std::size_t>(count));
    }
    return all;
}

/// The other end, in a thread without faults, which is let go whatever becomes of this one.
class Peer {
public:
    Peer(std::function<void()> work, std::function<void()> letGo) : m_letGo(std::move(letGo)) {
        const faults::Pause pause;
        m_thread = std::thread([this, run = std::move(work)] {
            try {
                run();
            } catch (const Norvane::Exception&) { // of a failure on this side
            }
            ERR_clear_error();
            m_over = true;
        });
    }
    ~Peer() {
        const faults::Pause pause;
        while (!m_over) {
            m_letGo();
            usleep(500);
        }
        m_thread.join();
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

private:
    std::function<void()> m_letGo;
    std::atomic<bool> m_over{false};
    std::thread m_thread;
};

/// Listens, for one connection: one that only lets a peer go must not be left for the next.
struct Server {
    explicit Server(const NVSSL::RefContext& context) : listening(tlstesting::listener(context)) {}
    NVSSL::SSLSocket listening;
    Norvane::SocketAddress address = listening.localAddress();
};
/// Keeps no sessions, which would count as memory that is not given back.
NVSSL::RefContext servingContext() {
    const NVSSL::RefContext context = tlstesting::serverContext();
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    return context;
}
std::shared_ptr<Server> serverOn(const NVSSL::RefContext& context) {
    const faults::Pause pause;
    return std::make_shared<Server>(context);
}

NVSSL::ConnectionOptions trusting() {
    NVSSL::ConnectionOptions options;
    options.requireTrust = true;
    options.hostName = "localhost";
    options.timeLimit = 60000;
    return options;
}

Operation connects(const std::string& name, const Identity& trusted, int version, bool bad) {
    const NVSSL::RefContext serving = servingContext();
    const auto context = std::make_shared<NVSSL::RefContext>(tlstesting::only(tlstesting::clientContext(), version));
    tlstesting::trust(*context, trusted);
    SSL_CTX_set_verify(*context, SSL_VERIFY_PEER, nullptr);
    return {.name = "TLS client " + name,
            .act =
                [=] {
                    const auto server = serverOn(serving);
                    const Peer peer(
                        [server] {
                            Norvane::Socket socket = server->listening.accept();
                            if (receiveAll(socket, s_transfer) == s_sent) {
                                sendAll(socket, s_answer);
                            }
                        },
                        [server] { // a connection that ends at once
                            Norvane::Socket socket(true);
                            try {
                                socket.connect(server->address);
                            } catch (const Norvane::Exception&) {
                            }
                        });
                    NVSSL::SSLSocket socket(*context, server->address, trusting());
                    sendAll(socket, s_sent);
                    const std::string answer = receiveAll(socket, s_transfer);
                    if (answer == s_answer) {
                        return Answer{Answer::done};
                    }
                    return answer == s_answer.substr(0, answer.size()) ? Answer{Answer::refused, "the end came early"}
                                                                       : Answer{Answer::wrong, "other bytes"};
                },
            .mustRefuse = bad,
            .mayRefuse = true,
            .weight = 4};
}

Operation accepts() {
    const NVSSL::RefContext serving = servingContext();
    const auto context = std::make_shared<NVSSL::RefContext>(tlstesting::clientContext());
    return {.name = "TLS server",
            .act =
                [=] {
                    const auto server = serverOn(serving);
                    const Peer peer(
                        [=] {
                            NVSSL::SSLSocket socket(*context, server->address);
                            sendAll(socket, s_sent);
                            receiveAll(socket, s_transfer);
                        },
                        [server] { // whoever is still waiting to be accepted
                            pollfd ready{server->listening.descriptor(), POLLIN, 0};
                            if (poll(&ready, 1, 1) == 1) {
                                close(accept(ready.fd, nullptr, nullptr));
                            }
                        });
                    Norvane::Socket socket = server->listening.accept();
                    const std::string received = receiveAll(socket, s_transfer);
                    if (received != s_sent) {
                        return received == s_sent.substr(0, received.size())
                                   ? Answer{Answer::refused, "the end came early"}
                                   : Answer{Answer::wrong, "other bytes"};
                    }
                    sendAll(socket, s_answer);
                    return Answer{Answer::done};
                },
            .mayRefuse = true,
            .weight = 4};
}

std::vector<Operation> operations() {
    Norvane::Crypto::initialize();
    const std::string both = signedAndEncrypted();
    const std::string sent = signedMail();
    const std::string changed = [&] {
        std::string text = sent;
        return text.replace(text.find("Hello Bob"), 9, "Hello Rob");
    }();
    std::vector<Operation> all{importsPkcs12("secret", false),
                               importsPkcs12("another", true),
                               loadsStore(DirectoryKeyStore::Reading::ahead),
                               loadsStore(DirectoryKeyStore::Reading::whenAsked),
                               reloadsStore(),
                               judges("good", chain().anna, chain().root, false),
                               judges("of a stranger", chain().anna, chain().stranger, true),
                               judges("revoked", chain().revoked, chain().root, true),
                               judges("expired", chain().expired, chain().root, true),
                               judges("issued by no authority", chain().limited, chain().root, true),
                               loadsMaterial(),
                               readsMail("signed and encrypted", both, chain().root, false),
                               readsMail("signed", sent, chain().root, false),
                               readsMail("changed", changed, chain().root, true),
                               readsMail("not trusted", both, chain().stranger, true),
                               connects("1.3", tlstesting::root(), TLS1_3_VERSION, false),
                               connects("1.2", tlstesting::root(), TLS1_2_VERSION, false),
                               connects("not trusted", chain().stranger, TLS1_3_VERSION, true),
                               accepts()};
    for (Operation& one : writesMails()) {
        all.push_back(std::move(one));
    }
    return all;
}

NORV_FAULTS(Stores, operations);

} // namespace
