// Key stores, PKCS#12, whole messages, trust and TLS, while memory runs out, system calls and streams fail and the process
// forks.

#include "Operations.h"

#include "support/Tls.h"

namespace {

using namespace faultsofstores;

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
                               judges("with policy constraints", chain().constrained, chain().root, false),
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
