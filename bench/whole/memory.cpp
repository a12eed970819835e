// What a reader or writer of messages holds: its peak of memory for a body of a size. One process for each, see
// scripts/memory-curve. Bodies are made on the way; what readers read comes through a pipe from a child process, whose memory
// does not count.
#include "Contest.h"
#include "Mails.h"
#include "Material.h"
#include "OurMedia.h"

#include <norvcmsg/File.h>
#include <norvcrypto-smime/SMimeReader.h>
#include <norvcrypto-smime/SMimeWriter.h>
#include <norvcrypto/CMSEncryptionMedia.h>
#include <norvcrypto/CMSEnvelopeReader.h>
#include <norvcrypto/CMSEnvelopeWriter.h>
#include <norvcrypto/CMSSignedReader.h>
#include <norvcrypto/CMSSignedWriter.h>
#include <norvcrypto/CMSSignerMedia.h>
#include <norvcrypto/Crypto.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <string>
#include <vector>

using namespace bench;
using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

void writeBodyOf(MediaOut& out, std::uint64_t size) {
    const Bytes& bytes = body(piece);
    for (std::uint64_t done = 0; done < size;) {
        const auto count = static_cast<unsigned int>(std::min<std::uint64_t>(piece, size - done));
        out.write(bytes.data(), count);
        done += count;
    }
}

template <class Stream> void through(Stream stream, MediaOut target, std::uint64_t size) {
    stream.attach(target);
    writeBodyOf(stream, size);
    stream.end();
}

CMS::EnvelopeWriter enveloper(const Material& material, CMS::ContentCipher cipher, CMS::EnvelopeEncoding encoding,
                              std::optional<std::uint64_t> length) {
    CMS::EnvelopeOptions options;
    options.cipher = cipher;
    options.encoding = encoding;
    options.bodyLength = length;
    options.temporaryFile = "/var/tmp/bench-XXXXXX"; // not in memory, as /tmp may be
    return CMS::EnvelopeWriter({CMS::EnvelopeRecipient(material.pair()->certificate)}, options);
}

CMS::SignedWriter signer(const Material& material, CMS::SignedWriter::Content content) {
    CMS::SignedWriter::Options options;
    options.signers.emplace_back(material.pair());
    options.content = content;
    return CMS::SignedWriter(options);
}

/// What a child writes into a pipe, as a source.
class Piped {
public:
    explicit Piped(const std::function<void(MediaOut&)>& write) {
        int ends[2];
        require(pipe(ends) == 0, "no pipe");
        m_child = fork();
        require(m_child >= 0, "no child");
        if (m_child == 0) {
            close(ends[0]);
            try {
                FileMediaOut out{File::Path("/dev/fd/" + std::to_string(ends[1]))};
                write(out);
                _exit(0);
            } catch (const std::exception& failure) {
                std::fprintf(stderr, "%s\n", failure.what());
                _exit(1);
            }
        }
        close(ends[1]);
        m_end = ends[0];
    }
    Piped(const Piped&) = delete;
    Piped& operator=(const Piped&) = delete;
    ~Piped() {
        close(m_end);
        waitpid(m_child, nullptr, 0);
    }
    [[nodiscard]] MediaIn in() const { return FileMediaIn{File::Path("/dev/fd/" + std::to_string(m_end))}; }

private:
    pid_t m_child = 0;
    int m_end = 0;
};

struct Work {
    const char* task;
    const char* who;
    std::uint64_t most;
    std::function<void(std::uint64_t)> run;
};

constexpr std::uint64_t any = ~UINT64_C(0);
constexpr std::uint64_t inMemory = UINT64_C(512) << 20U; ///< for those who hold it

std::vector<Work> parts(const Material& material) {
    using Encoding = CMS::EnvelopeEncoding;
    using Content = CMS::SignedWriter::Content;
    constexpr auto cbc = CMS::ContentCipher::aes256Cbc;
    constexpr auto gcm = CMS::ContentCipher::aes256Gcm;
    const auto nowhere = [] { return NullMediaOut(); };
    const auto envelope = [&material](std::uint64_t size, CMS::ContentCipher cipher) {
        return [&material, size, cipher](MediaOut& out) {
            through(enveloper(material, cipher, Encoding::ber, size), out, size);
        };
    };
    const auto open = [&material, envelope](std::uint64_t size, CMS::ContentCipher cipher) {
        const Piped message(envelope(size, cipher));
        CMS::EnvelopeReader reader(message.in());
        require(reader.open(CMS::KeyStoreLookup(material.store())), "no key");
        NullMediaOut target;
        reader.write(target);
        require(reader.verdict() == CMS::EnvelopeReader::Complete && target.tell() == size, "not decrypted");
    };
    return {
        {"sign", "SignerMediaOut", any,
         [&, nowhere](std::uint64_t size) {
             through(CMS::SignerMediaOut(Hasher::SHA256, material.pair()), nowhere(), size);
         }},
        {"sign", "SignedWriter", any,
         [&, nowhere](std::uint64_t size) { through(signer(material, Content::detached), nowhere(), size); }},
        {"sign", "SignedWriter, attached", any,
         [&, nowhere](std::uint64_t size) { through(signer(material, Content::attached), nowhere(), size); }},
        {"verify", "CMSVerifier", any,
         [&](std::uint64_t size) {
             MemoryMediaOut signature;
             through(signer(material, Content::detached), signature, size);
             MemoryMediaIn in(signature.content());
             CMS::CMSVerifier verifier(in);
             const CMS::SignedData data = CMS::signedData(verifier.contentInfo());
             VerifierMediaOut digested = verifier.verifierMediaOut(data.signerInfo().front());
             writeBodyOf(digested, size);
             require(verifier.isValid(digested, data.signerInfo().front(), material.pair()->certificate),
                     "not verified");
         }},
        {"verify", "SignedReader, attached", any,
         [&](std::uint64_t size) {
             const Piped message([&, size](MediaOut& out) { through(signer(material, Content::attached), out, size); });
             CMS::SignedReader reader(message.in());
             NullMediaOut target;
             reader.write(target);
             require(target.tell() == size && reader.isValid(reader.signers().front(), material.pair()->certificate),
                     "not verified");
         }},
        {"envelope", "CMS::EncrypterMediaOut", inMemory,
         [&, nowhere](std::uint64_t size) {
             through(CMS::EncrypterMediaOut(AES_256_CBC, {material.pair()->certificate}), nowhere(), size);
         }},
        {"envelope", "EnvelopeWriter, BER", any,
         [&, nowhere](std::uint64_t size) { through(enveloper(material, cbc, Encoding::ber, {}), nowhere(), size); }},
        {"envelope", "EnvelopeWriter, DER, length known", any,
         [&, nowhere](std::uint64_t size) { through(enveloper(material, cbc, Encoding::der, size), nowhere(), size); }},
        {"envelope", "EnvelopeWriter, DER, spilled", any,
         [&, nowhere](std::uint64_t size) { through(enveloper(material, cbc, Encoding::der, {}), nowhere(), size); }},
        {"envelope", "EnvelopeWriter, authenticated", any,
         [&, nowhere](std::uint64_t size) { through(enveloper(material, gcm, Encoding::ber, {}), nowhere(), size); }},
        {"open", "CMS::DecrypterMediaIn", inMemory,
         [&, envelope](std::uint64_t size) {
             const Piped message(envelope(size, cbc));
             MediaIn in = message.in();
             CMS::DecrypterMediaIn decrypter(in, material.store());
             NullMediaOut target;
             decrypter.write(target);
             require(decrypter.decryptionSucceeded() && target.tell() == size, "not decrypted");
         }},
        {"open", "EnvelopeReader", any, [open, cbc](std::uint64_t size) { open(size, cbc); }},
        {"open", "EnvelopeReader, authenticated", any, [open, gcm](std::uint64_t size) { open(size, gcm); }},
    };
}

/// A mail in a file that is nowhere: it can be read again.
class MailIn : public MediaInImpl {
public:
    explicit MailIn(std::uint64_t size) : m_mail(size) {}
    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override { return m_position == m_mail.length(); }
    [[nodiscard]] int peek() const override {
        return atEnd() ? -1 : static_cast<unsigned char>(m_mail.at(m_position).front());
    }
    int read(unsigned char* out, unsigned int length) override {
        unsigned int done = 0;
        while (done != length && !atEnd()) {
            const auto count = static_cast<unsigned int>(
                m_mail.at(m_position).copy(reinterpret_cast<char*>(out) + done, length - done));
            done += count;
            m_position += count;
        }
        return static_cast<int>(done);
    }
    [[nodiscard]] unsigned long tell() const override { return m_position; }
    void setpos(unsigned long position) override { m_position = position; }

private:
    Mail m_mail;
    std::uint64_t m_position = 0;
};

constexpr const char* spillTemplate = "/var/tmp/bench-XXXXXX"; // not in memory, as /tmp may be

void wrapMail(const MediaIn& mail, const std::vector<SMime::Wrapping>& shells, MediaOut& out) {
    SMime::WriteOptions how;
    how.spillTemplate = spillTemplate;
    SMime::wrap(mail, shells, out, how);
}

/// Whole messages: what is written comes through a pipe, so that a copy of it has to be kept for the second look.
std::vector<Work> messages(const Material& material) {
    SMime::SignOptions clear;
    clear.signers.emplace_back(material.pair());
    SMime::SignOptions opaque = clear;
    opaque.form = SMime::SigningForm::opaque;
    SMime::EncryptOptions encrypting;
    encrypting.certificates.push_back(material.pair()->certificate);
    struct Kind {
        const char* writing;
        const char* reading;
        std::vector<SMime::Wrapping> shells;
        SMime::Verdict verdict;
    };
    const std::vector<Kind> kinds{
        {"sign", "verify", {clear}, SMime::Verdict::signatureGood},
        {"sign opaquely", "verify, opaque", {opaque}, SMime::Verdict::signatureGood},
        {"encrypt", "decrypt", {encrypting}, SMime::Verdict::decrypted},
        {"sign and encrypt", "decrypt and verify", {clear, encrypting}, SMime::Verdict::signatureGood},
    };
    std::vector<Work> works;
    for (const Kind& kind : kinds) {
        works.push_back({"write a message", kind.writing, any, [shells = kind.shells](std::uint64_t size) {
                             const Piped mail([size](MediaOut& out) {
                                 writeMail(Mail(size), [&out](std::string_view part) {
                                     out.write(reinterpret_cast<const unsigned char*>(part.data()),
                                               static_cast<unsigned int>(part.size()));
                                 });
                                 out.end();
                             });
                             NullMediaOut target;
                             wrapMail(mail.in(), shells, target);
                             require(target.tell() >= size, "not written");
                         }});
    }
    for (const Kind& kind : kinds) {
        works.push_back({"read a message", kind.reading, any, [&material, kind](std::uint64_t size) {
                             const Piped message([size, &kind](MediaOut& out) {
                                 wrapMail(MediaIn(makeReference<MailIn, MediaInImpl>(size)), kind.shells, out);
                             });
                             const CMS::KeyStoreLookup keys(material.store());
                             SMime::ReadOptions options;
                             options.keys = &keys;
                             options.spillTemplate = spillTemplate;
                             NullMediaOut target;
                             const SMime::Answer answer = SMime::read(message.in(), target, options);
                             require(answer.verdict == kind.verdict && target.tell() + 512 >= size,
                                     answer.detail.c_str());
                         }});
    }
    return works;
}

std::vector<Work> works(const Material& material) {
    std::vector<Work> all = parts(material);
    for (Work& work : messages(material)) {
        all.push_back(std::move(work));
    }
    return all;
}

} // namespace

/// bench_memory FOLDER: lists what there is; bench_memory FOLDER NUMBER SIZE: "task","who",PEAK in KiB, or nothing beyond what it
/// is to do.
int main(int argc, char** argv) try {
    require(argc == 2 || argc == 4, "usage: bench_memory FOLDER [NUMBER SIZE]");
    initialize();
    const Material material(argv[1]);
    const std::vector<Work> all = works(material);
    if (argc == 2) {
        std::printf("%zu\n", all.size());
        return 0;
    }
    const Work& work = all.at(std::strtoul(argv[2], nullptr, 10));
    const std::uint64_t size = std::strtoull(argv[3], nullptr, 10);
    if (size > work.most) {
        return 0;
    }
    work.run(size);
    rusage used{};
    getrusage(RUSAGE_SELF, &used);
    std::printf("\"%s\",\"%s\",%ld\n", work.task, work.who, used.ru_maxrss);
    return 0;
} catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
}
