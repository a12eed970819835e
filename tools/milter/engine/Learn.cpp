#include "engine/Learn.h"

#include "stores/LearntFolder.h"

#include <norvcrypto-trust/TrustSender.h>

#include <algorithm>

namespace norvmilter {

namespace {

using namespace Norvane::Crypto;

constexpr std::size_t mostTried = 16; ///< certificates of a message

/// Those that came with the signatures of an accepted signer, the signer's own first.
std::list<NVX509::RefCertificate> candidatesOf(const SMime::Answer& answer) {
    std::list<NVX509::RefCertificate> certificates;
    for (const SMime::Layer& layer : answer.layers) {
        if (!layer.coversContent)
            continue;
        for (const SMime::LayerSigner& signer : layer.signers) {
            if (!signer.isAccepted())
                continue;
            certificates.push_front(signer.result.certificate);
            certificates.insert(certificates.end(), layer.certificates.begin(), layer.certificates.end());
        }
    }
    return certificates;
}

std::string messageIdOf(const Message& message) {
    for (const HeaderField& field : message.header) {
        if (isSameName(field.name, "Message-ID")) {
            const std::size_t begin = field.value.find_first_not_of(" \t\r\n");
            return begin == std::string::npos ? "" : field.value.substr(begin);
        }
    }
    return {};
}

} // namespace

void learnFrom(const SMime::Answer& answer, const LoadedStores& stores, LearntFolder& learnt, const Message& message,
               const Deadline& deadline, Outcome& outcome) {
    if (answer.verdict != SMime::Verdict::accepted || !answer.notCovered.empty() || answer.from.size() != 1 ||
        !stores.verifier)
        return;
    const std::list<NVX509::RefCertificate> candidates = candidatesOf(answer);
    Trust::Options options = stores.verifier->defaults();
    options.purpose = Trust::Purpose::encrypt;
    options.atSigningTime = false;
    std::vector<NVX509::RefCertificate> tried;
    for (const NVX509::RefCertificate& certificate : candidates) {
        deadline.check();
        const auto isSame = [&](const NVX509::RefCertificate& one) { return NVX509::sameEncoding(one, certificate); };
        if (tried.size() == mostTried || std::ranges::any_of(tried, isSame))
            continue;
        tried.push_back(certificate);
        if (!Trust::matchSender(certificate, answer.from).matches() ||
            !stores.verifier->judge(certificate, candidates, {}, options).accepted)
            continue;
        try {
            const Learning result =
                learnt.learn(answer.from.front(), certificate, messageIdOf(message), message.envelope.queueId);
            if (result != Learning::known)
                outcome.tell("learnt", nameOf(result));
        } catch (const Temporary& failure) {
            outcome.tell("learnt", failure.what());
            return;
        }
    }
}

} // namespace norvmilter
