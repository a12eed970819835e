// What whoever sent a message may not learn from how decrypting it failed: all failures have one answer, and come to the same
// work. Calls of OpenSSL and allocations are counted.
#include "support/Allocations.h"
#include "support/FailingEnvelopes.h"
#include "support/Interpose.h"

#include "../../CMSStreamReader/Reading.h"

#include <openssl/rand.h>

using namespace cmstest;
using norvtest::FailingEnvelope;

namespace {

/// What a try came to, as far as anybody but the clock can tell.
struct Work {
    std::size_t privateKeys = 0;
    std::size_t started = 0;
    std::size_t decrypted = 0; ///< octets
    std::size_t finished = 0;
    std::size_t lengths = 0; ///< calls that give a cipher another length of its key
    std::size_t randoms = 0;
    std::size_t errors = 0; ///< that OpenSSL queued, dropped ones included
    std::size_t allocations = 0;

    auto operator<=>(const Work&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Work& work) {
    return out << "private keys " << work.privateKeys << ", started " << work.started << ", decrypted "
               << work.decrypted << ", finished " << work.finished << ", lengths " << work.lengths << ", randoms "
               << work.randoms << ", errors " << work.errors << ", allocations " << work.allocations;
}

Work s_work;

} // namespace

extern "C" int EVP_PKEY_decrypt(EVP_PKEY_CTX* context, unsigned char* out, std::size_t* length, const unsigned char* in,
                                std::size_t inLength) {
    ++s_work.privateKeys;
    return norvtest::next<&EVP_PKEY_decrypt>("EVP_PKEY_decrypt")(context, out, length, in, inLength);
}
extern "C" int EVP_DecryptInit_ex(EVP_CIPHER_CTX* context, const EVP_CIPHER* cipher, ENGINE* engine,
                                  const unsigned char* key, const unsigned char* vector) {
    ++s_work.started;
    return norvtest::next<&EVP_DecryptInit_ex>("EVP_DecryptInit_ex")(context, cipher, engine, key, vector);
}
extern "C" int EVP_DecryptUpdate(EVP_CIPHER_CTX* context, unsigned char* out, int* length, const unsigned char* in,
                                 int inLength) {
    s_work.decrypted += static_cast<std::size_t>(inLength);
    return norvtest::next<&EVP_DecryptUpdate>("EVP_DecryptUpdate")(context, out, length, in, inLength);
}
extern "C" int EVP_DecryptFinal_ex(EVP_CIPHER_CTX* context, unsigned char* out, int* length) {
    ++s_work.finished;
    return norvtest::next<&EVP_DecryptFinal_ex>("EVP_DecryptFinal_ex")(context, out, length);
}
extern "C" int EVP_CIPHER_CTX_set_key_length(EVP_CIPHER_CTX* context, int length) {
    ++s_work.lengths;
    return norvtest::next<&EVP_CIPHER_CTX_set_key_length>("EVP_CIPHER_CTX_set_key_length")(context, length);
}
extern "C" int EVP_CIPHER_CTX_rand_key(EVP_CIPHER_CTX* context, unsigned char* key) {
    ++s_work.randoms;
    return norvtest::next<&EVP_CIPHER_CTX_rand_key>("EVP_CIPHER_CTX_rand_key")(context, key);
}
extern "C" void ERR_new(void) {
    ++s_work.errors;
    norvtest::next<&ERR_new>("ERR_new")();
}

namespace {

/// The answer in words, and whether the message was taken for good.
struct Answer {
    std::string text;
    bool good = false;
    Work work;
};
using Reading = std::function<Answer(const Bytes&)>;

class DecryptionOracles : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_envelopes =
            norvtest::FailingEnvelopes({alice().key, identities().authority.name.der(), alice().serial}).all();
    }
    static const std::vector<FailingEnvelope>& envelopes() { return s_envelopes; }
    static Bytes sound(bool authenticated) {
        return norvtest::FailingEnvelopes({alice().key, identities().authority.name.der(), alice().serial})
            .sound(authenticated);
    }

    static std::string told(const norvtest::RecordedLog& log) {
        std::string all;
        for (const Norvane::LogRecord& record : log.records()) {
            all += " event " + std::to_string(record.event) + " " + record.format;
            for (const std::string& field : record.fields) {
                all += " " + field;
            }
        }
        return all;
    }
    static Answer counted(const std::function<void(Answer&)>& act) {
        Answer answer;
        s_work = {};
        norvtest::s_beforeAllocation = [](std::size_t /*length*/) { ++s_work.allocations; };
        act(answer);
        norvtest::s_beforeAllocation = nullptr;
        answer.work = s_work;
        EXPECT_EQ(ERR_peek_error(), 0UL);
        return answer;
    }

    static Answer byDecrypter(const Bytes& message) {
        static const auto store = storeOfKeys({&alice()});
        const norvtest::RecordedLog log;
        Norvane::MemoryMediaIn in(bufferOf(message));
        Norvane::SwapBufferMediaOut clear(0x10000, "/tmp/norvoraclesXXXXXX");
        CMS::DecrypterMediaIn decrypter(in, store);
        Answer answer = counted([&](Answer& made) { made.good = decrypter.decrypt(clear); });
        answer.text = std::to_string(clear.length()) + " octets out;";
        for (const auto& attempt : decrypter.attempts()) {
            answer.text += " outcome " + std::to_string(attempt.outcome()) + " " + attempt.algorithm() + " for " +
                           attempt.recipient().serialNumber()->hex() + ";";
        }
        answer.text += told(log);
        return answer;
    }
    static Answer byReader(const Bytes& message, const std::function<bool(Reader&)>& open) {
        const norvtest::RecordedLog log;
        Norvane::NullMediaOut out;
        Answer answer = counted([&](Answer& made) {
            Reader reader(Norvane::MemoryMediaIn(
                Norvane::Buffer(message.data(), static_cast<unsigned int>(message.size()), true)));
            if (!open(reader)) {
                made.text = "not opened";
                return;
            }
            try {
                reader.write(out);
                made.good = true;
            } catch (const Norvane::Exception& thrown) {
                made.text = thrown.asString();
            }
            made.text += "; verdict " + std::to_string(reader.verdict()) + "; " + reader.unsupported() + ";";
        });
        answer.text += told(log);
        return answer;
    }

    /// The first answer that is no success by chance, which a random content key has one time in 256.
    static Answer failing(const Reading& read, const Bytes& message) {
        Answer answer = read(message);
        for (int again = 0; answer.good && again != 10; ++again) {
            answer = read(message);
        }
        EXPECT_FALSE(answer.good);
        return answer;
    }

    /// All have one answer, and those whose failure nobody can see in the message come to one work.
    static void expectOneAnswer(const Reading& read, bool authenticated) {
        EXPECT_TRUE(opensSound(read, authenticated));
        std::optional<Answer> first;
        std::size_t count = 0;
        for (const FailingEnvelope& envelope : envelopes()) {
            if (envelope.authenticated != authenticated) {
                continue;
            }
            SCOPED_TRACE(envelope.name);
            const Answer answer = failing(read, envelope.der);
            first = first ? first : std::optional(answer);
            EXPECT_EQ(answer.text, first->text);
            if (!envelope.isSeen) {
                EXPECT_EQ(answer.work, first->work);
            }
            ++count;
        }
        EXPECT_GE(count, authenticated ? 20U : 270U);
    }
    /// Whether a sound message is read; what is fetched on first use comes before what is counted.
    static bool opensSound(const Reading& read, bool authenticated) {
        for (int warm = 0; warm != 2; ++warm) {
            static_cast<void>(read(envelopes().front().der));
        }
        return read(sound(authenticated)).good;
    }

private:
    static inline std::vector<FailingEnvelope> s_envelopes;
};

} // namespace

TEST_F(DecryptionOracles, OfTheDecryptingStream) {
    expectOneAnswer(byDecrypter, false);
}

TEST_F(DecryptionOracles, OfTheReaderOfStreams) {
    const auto keys = std::make_shared<CMS::KeyListLookup>(std::list<NVX509::KeyCertificatePair>{pairOf(alice())});
    for (const bool authenticated : {false, true}) {
        expectOneAnswer(
            [&](const Bytes& message) { return byReader(message, [&](Reader& reader) { return reader.open(*keys); }); },
            authenticated);
    }
}

TEST_F(DecryptionOracles, OfARecipientThatIsChosen) {
    for (const bool authenticated : {false, true}) {
        expectOneAnswer(
            [](const Bytes& message) {
                return byReader(
                    message, [](Reader& reader) { return reader.open(reader.recipients().front(), pairOf(alice())); });
            },
            authenticated);
    }
}
