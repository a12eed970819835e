// What is to be said of the whole message, once all of it was read.

#include "Session.h"

#include <algorithm>

namespace Norvane::Crypto::SMime {

namespace {

Verdict verdictOf(LayerStatus status) {
    switch (status) {
    case LayerStatus::signatureWrong:
        return Verdict::refused;
    case LayerStatus::noKey:
        return Verdict::noKey;
    case LayerStatus::unsupported:
        return Verdict::unsupported;
    case LayerStatus::tooCostly:
        return Verdict::tooCostly;
    case LayerStatus::good:
    case LayerStatus::damaged:
        break;
    }
    return Verdict::damaged;
}

bool isSigned(const Layer& layer) {
    return layer.kind == LayerKind::multipartSigned || layer.kind == LayerKind::opaqueSigned;
}

bool isEncrypted(const Layer& layer) {
    return layer.kind == LayerKind::enveloped || layer.kind == LayerKind::authEnveloped;
}

/// Whom the signers of the content are compared with: a reader of the message is shown the From outside, in whose place the
/// caller may name others, or one that is covered, so that all count.
Senders sendersOfContent(const Session& session) {
    const bool isGiven = !session.options.from.empty();
    Senders senders = session.senders.empty() || isGiven ? Senders() : session.senders.front();
    if (isGiven)
        senders.from = session.options.from;
    for (const std::string& address : session.protectedSenders.from) {
        if (std::ranges::find(senders.from, address) == senders.from.end())
            senders.from.push_back(address);
    }
    if (senders.sender.empty() && !isGiven)
        senders.sender = session.protectedSenders.sender;
    return senders;
}

void compareSenders(Session& session) {
    const Senders ofContent = sendersOfContent(session);
    session.answer.from = ofContent.from;
    session.answer.sender = ofContent.sender;
    for (std::size_t index = 0; index < session.answer.layers.size(); ++index) {
        Layer& layer = session.answer.layers[index];
        const Senders& senders = layer.coversContent ? ofContent : session.senders[session.messageOfLayer[index]];
        const std::string sender = senders.sender.size() == 1 ? senders.sender.front() : std::string();
        for (LayerSigner& signer : layer.signers) {
            if (signer.result.verdict == CMS::SignatureVerdict::good)
                signer.sender = Trust::matchSender(signer.result.certificate, senders.from, sender);
        }
    }
}

/// Which of the layers around the content the verdict rests on: the first one that somebody signed who is accepted, or has a good
/// signature where nobody is asked; the first of all where there is none such. What lies in those around it, a layer that was
/// encrypted or that another one signed, is anybody's.
std::size_t decisiveIn(const std::vector<const Layer*>& layers, bool isTrustAsked) {
    const auto counts = [&](const Layer* layer) {
        return isTrustAsked ? std::ranges::any_of(layer->signers, &LayerSigner::isAccepted)
                            : isSigned(*layer) && layer->status == LayerStatus::good;
    };
    const auto found = std::ranges::find_if(layers, counts);
    return found == layers.end() ? 0 : static_cast<std::size_t>(found - layers.begin());
}

/// Why nobody is accepted: the first reason of the first signer.
std::string reasonOf(const std::vector<const Layer*>& layers) {
    for (const Layer* layer : layers) {
        for (const LayerSigner& signer : layer->signers) {
            if (signer.trust && !signer.trust->accepted && !signer.trust->reasons.empty())
                return signer.trust->reasons.front().text;
            if (signer.sender && !signer.sender->reasons.empty())
                return signer.sender->reasons.front().text;
        }
    }
    return "no signer was judged";
}

} // namespace

void conclude(Session& session) {
    compareSenders(session);
    Answer& answer = session.answer;
    std::vector<const Layer*> around;
    for (const Layer& layer : answer.layers) {
        if (layer.coversContent && layer.kind != LayerKind::forwarded)
            around.push_back(&layer);
    }
    const std::size_t decisive = decisiveIn(around, session.options.trust != nullptr);
    for (const auto& [layers, part] : session.uncovered) {
        const bool isContent =
            std::ranges::any_of(around, [&path = part.path](const Layer* one) { return one->path == path; });
        if (!isContent && layers <= decisive)
            answer.notCovered.push_back(part);
    }
    const auto conclusion = [&](Verdict verdict, const std::string& detail) {
        answer.verdict = verdict;
        answer.detail = detail;
    };
    if (around.empty()) {
        const bool isCertificates = answer.layers.size() == 1 && answer.layers.front().path == "1" &&
                                    answer.layers.front().kind == LayerKind::certificatesOnly;
        if (isCertificates)
            conclusion(Verdict::certificates, "certificates and nothing else");
        else if (session.failure)
            conclusion(verdictOf(session.failure->first), session.failure->second);
        else
            conclusion(Verdict::notSMime, "nothing of the message is signed or encrypted");
        return;
    }
    answer.headers.isEncrypted = std::ranges::any_of(around, [](const Layer* one) { return isEncrypted(*one); });
    if (!answer.headers.isEncrypted)
        answer.headers.legacyDisplay.clear(); // nothing was hidden
    answer.headers.isSigned = std::ranges::any_of(
        around, [](const Layer* one) { return isSigned(*one) && one->status == LayerStatus::good; });
    const auto bad = std::ranges::find_if(around, [](const Layer* one) { return one->status != LayerStatus::good; });
    if (bad != around.end())
        return conclusion(verdictOf((*bad)->status), "part " + (*bad)->path + ": " + (*bad)->detail);
    if (session.failure)
        return conclusion(verdictOf(session.failure->first), session.failure->second);
    if (!session.ambiguities.empty() && session.ambiguities.begin()->first <= decisive)
        return conclusion(Verdict::damaged, session.ambiguities.begin()->second);
    if (!answer.headers.isSigned)
        return conclusion(Verdict::decrypted, "nobody signed it");
    if (session.options.trust == nullptr)
        return conclusion(Verdict::signatureGood, "trust was not checked");
    const bool isAccepted = std::ranges::any_of(around, [](const Layer* one) {
        return std::ranges::any_of(one->signers, [](const LayerSigner& signer) { return signer.isAccepted(); });
    });
    if (isAccepted)
        return conclusion(Verdict::accepted, "signed by its sender, who is trusted");
    conclusion(Verdict::refused, reasonOf(around));
}

} // namespace Norvane::Crypto::SMime
