// The files of an identity in a key store: a byte that chooses which of them holds the input.
#include "Driver.h"

#include "Files.h"
#include "Owners.h"
#include "Pem.h"
#include "identities/OwnerPatterns.h"

#include <norvcmsg/Escape.h>
#include <norvcrypto-keystore/KeyFiles.h>

#include <string_view>
#include <vector>

using namespace Norvane;
using namespace Norvane::Crypto;
using namespace Norvane::Crypto::NVX509;

namespace {

/// owners.txt: every pattern asked, and what the tool says of it.
void readOwners(const Buffer& input) {
    std::vector<norvcrypt::PatternShape> shapes;
    unsigned int before = 0;
    for (const DirectoryKeyStore::Owner& owner : keystore::ownersOf(input)) {
        const std::string& text = owner.pattern.text();
        fuzz::require(!text.empty() && text.front() != '#' && isDisplayable(text) && owner.line > before);
        before = owner.line;
        static_cast<void>(owner.pattern.matches("alice@example.org"));
        const norvcrypt::PatternShape shape(text);
        fuzz::require(shape.covers(shape));
        if (norvcrypt::whyNeverMatches(text)) {
            fuzz::require(!owner.pattern.matches("alice@example.org") && !owner.pattern.matches("a@b"));
        }
        if (shapes.size() < 4) { // each with each is a product
            for (const norvcrypt::PatternShape& other : shapes) {
                fuzz::require(!shape.covers(other) || shape.key() == other.key());
            }
            shapes.push_back(shape);
        }
    }
}

void readPassphrase(const Buffer& input) {
    const Buffer passphrase = keystore::passphraseOf(input);
    fuzz::require(passphrase.length() <= longestPassphrase);
}

/// cert.pem: what is looked at first, and all of it.
void readCertificates(const Buffer& input) {
    const std::optional<Buffer> first = keystore::firstCertificate(input);
    const std::list<RefCertificate> all = keystore::certificatesOf(input);
    fuzz::require(!all.empty() && first);
    fuzz::require(*CertificateFactory().readDER(*first) == *all.front());
}

void readKey(const Buffer& input, bool encrypted) {
    const std::optional<Buffer> passphrase =
        encrypted ? std::optional<Buffer>(Buffer("secret", 6, false)) : std::nullopt;
    const RefKey key = keystore::privateKeyOf(input, passphrase);
    fuzz::require(!key.isNull());
    Buffer out;
    key->write(out, false);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const unsigned int kind = data[0] % 5;
    const auto read = [kind](const Buffer& input) {
        try {
            switch (kind) {
            case 0:
                readOwners(input);
                return;
            case 1:
                readPassphrase(input);
                return;
            case 2:
                readCertificates(input);
                return;
            default:
                readKey(input, kind == 4);
            }
        } catch (const keystore::Refusal& refusal) {
            fuzz::require(*refusal.what() != '\0');
        }
    };
    fuzz::Budget budget;
    if (kind >= 3) {
        budget.constant = kind == 4 ? fuzz::passwords : fuzz::longNumbers;
    }
    return fuzz::run(data + 1, size - 1, read, budget);
}
