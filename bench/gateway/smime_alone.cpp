// What the mail filter does to a message, without the filter: the library in a loop, in this process alone.
//
//     smime_alone STORE ROOTS (sign|sign-encrypt|read) THREADS SECONDS MAIL RECIPIENT [WRITTEN]
//
// prints the messages done, the seconds that passed and those of the processor; writes the last result into WRITTEN.
#include <norvcmsg/File.h>
#include <norvcmsg/Media.h>
#include <norvcrypto-keystore/DirectoryKeyStore.h>
#include <norvcrypto-smime/SMimeReader.h>
#include <norvcrypto-smime/SMimeWriter.h>
#include <norvcrypto-trust/Trust.h>
#include <norvcrypto/Crypto.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <iostream>
#include <memory>
#include <mutex>
#include <thread>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

class Work {
public:
    Work(const std::string& store, const std::string& roots, std::string task, const std::string& mail,
         const std::string& recipient)
        : m_task(std::move(task)),
          m_directory(store),
          m_keys(true),
          m_recipient(EmailAddress::rfc5321Parse(recipient, true)) {
        m_keys->add(m_directory.plugin());
        const auto material = std::make_shared<Trust::Material>();
        material->addAnchors(roots);
        m_verifier = std::make_unique<Trust::Verifier>(material);
        FileMediaIn(File::Path(mail)).read(m_mail, 0);
    }

    /// \throws std::runtime_error when a mail that is read is not accepted
    void once(MemoryMediaOut& out) const {
        const MemoryMediaIn mail(m_mail);
        if (m_task == "read") {
            const CMS::KeyStoreLookup keys(m_keys);
            SMime::ReadOptions options;
            options.keys = &keys;
            options.trust = m_verifier.get();
            options.wholeMessage = true;
            const SMime::Answer answer = SMime::read(mail, out, options);
            if (answer.verdict != SMime::Verdict::accepted) {
                throw std::runtime_error(answer.detail);
            }
            return;
        }
        SMime::SignOptions signing;
        signing.keys = m_keys;
        if (m_task == "sign") {
            SMime::sign(mail, signing, out);
            return;
        }
        SMime::EncryptOptions encrypting;
        encrypting.keys = m_keys;
        encrypting.addresses.push_back(m_recipient);
        SMime::signAndEncrypt(mail, signing, encrypting, out);
    }

private:
    std::string m_task;
    NVX509::RefDirectoryKeyStore m_directory;
    NVX509::RefKeyStore m_keys;
    EmailAddress m_recipient;
    std::unique_ptr<Trust::Verifier> m_verifier;
    Buffer m_mail;
};

double processorSeconds() {
    return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

int run(char** argv, const char* written) {
    const Work work(argv[1], argv[2], argv[3], argv[6], argv[7]);
    const auto began = std::chrono::steady_clock::now();
    const auto until = began + std::chrono::duration<double>(std::stod(argv[5]));
    const double used = processorSeconds();
    std::atomic<unsigned long> done = 0;
    std::atomic<bool> hasFailed = false;
    std::vector<std::thread> threads;
    for (int number = std::stoi(argv[4]); number > 0; --number) {
        threads.emplace_back([&work, until, &done, &hasFailed] {
            try {
                do { // once at least: on a busy machine the time may be over before a thread begins
                    MemoryMediaOut out;
                    work.once(out);
                    ++done;
                } while (!hasFailed && std::chrono::steady_clock::now() < until);
            } catch (const Exception& failure) {
                hasFailed = true;
                std::cerr << failure.asString() << '\n';
            } catch (const std::exception& failure) {
                hasFailed = true;
                std::cerr << failure.what() << '\n';
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    if (hasFailed) {
        return 1;
    }
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - began;
    std::cout << done << ' ' << passed.count() << ' ' << processorSeconds() - used << '\n';
    if (written != nullptr) {
        MemoryMediaOut out;
        work.once(out);
        FileMediaOut file{File::Path(written)};
        MemoryMediaIn(out.content()).write(file);
        file.end();
    }
    return 0;
}

} // namespace

int main(int argc, char* argv[]) {
    if (argc != 8 && argc != 9) {
        std::cerr
            << "usage: smime_alone STORE ROOTS (sign|sign-encrypt|read) THREADS SECONDS MAIL RECIPIENT [WRITTEN]\n";
        return 2;
    }
    initialize(); // once, before anything else
    int status = 1;
    try {
        status = run(argv, argc == 9 ? argv[8] : nullptr);
    } catch (const Exception& failure) {
        std::cerr << failure.asString() << '\n';
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << '\n';
    }
    cleanup();
    return status;
}
