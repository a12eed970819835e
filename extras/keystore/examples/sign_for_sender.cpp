// Signs for a sender with what a directory of identities has for the address:
//
//     sign_for_sender /etc/mail/identities anna@example.com <body >body.p7s

#include <norvcmsg/Escape.h>
#include <norvcrypto-keystore/DirectoryKeyStore.h>
#include <norvcrypto/CMSSignerMedia.h>
#include <norvcrypto/Crypto.h>

#include <array>
#include <cstdio>
#include <iostream>
#include <string>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

/// The process-wide store, which asks the directory from now on.
NVX509::RefKeyStore openStore(const std::string& path) {
    const NVX509::RefDirectoryKeyStore directory(path); // kept by the caller that reloads
    for (const auto& problem : directory->contents()->problems) {
        std::cerr << escapeForDisplay(problem.folder) << (problem.file.empty() ? "" : "/" + problem.file) << ": "
                  << problem.reason << '\n';
    }
    NVX509::RefKeyStore store = NVX509::RefKeyStore::instance(true, false);
    store->add(directory.plugin());
    return store;
}

void signStandardInput(const NVX509::KeyCertificatePair& pair) {
    MemoryMediaOut signature;
    CMS::SignerMediaOut signer(Hasher::SHA256, pair);
    signer.attach(signature);
    static std::array<unsigned char, 65536> piece;
    while (const std::size_t length = std::fread(piece.data(), 1, piece.size(), stdin)) {
        signer.write(piece.data(), static_cast<unsigned int>(length));
    }
    if (std::ferror(stdin) != 0) { // what was read so far is not the body
        throw Exception("signStandardInput", 4, nullptr, 0).stringParameter("standard input cannot be read");
    }
    signer.end();
    const Buffer der = signature.content();
    std::fwrite(der.data(), 1, der.length(), stdout);
    if (std::fflush(stdout) != 0) {
        throw Exception("signStandardInput", 4, nullptr, 0).stringParameter("standard output cannot be written");
    }
}

} // namespace

int main(int argc, char* argv[]) {
    if (argc != 3) {
        std::cerr << "usage: sign_for_sender DIRECTORY ADDRESS <BODY >SIGNATURE\n";
        return 2;
    }
    initialize(); // once, before anything else
    int status = 1;
    try {
        const auto sender = EmailAddress::rfc5321Parse(argv[2], true);
        const auto pair = openStore(argv[1])->findSigningKey(sender);
        if (sender.isEmptyAddress() || !pair) {
            std::cerr << "nobody signs for " << escapeForDisplay(argv[2]) << '\n';
        } else if (!pair->certificate->validityPeriod().valid(0)) { // the store answers when it has nothing better
            std::cerr << "the certificate of " << escapeForDisplay(argv[2]) << " is expired or not yet valid\n";
        } else {
            signStandardInput(pair);
            status = 0;
        }
    } catch (const Exception& failure) {
        std::cerr << failure.asString() << '\n';
    }
    NVX509::RefKeyStore::instance(false, true); // before OpenSSL is left
    cleanup();
    return status;
}
