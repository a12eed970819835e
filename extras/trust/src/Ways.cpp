#include "Ways.h"

#include <norvcrypto-trust/Trust.h>

#include <algorithm>
#include <utility>

namespace Norvane::Crypto::Trust::detail {

namespace {

/// Whether a reason about the first certificate may be gone with other issuers.
bool comesFromAbove(ReasonCode code) {
    switch (code) {
    case ReasonCode::signatureWrong:
    case ReasonCode::nameNotPermitted:
    case ReasonCode::nameExcluded:
    case ReasonCode::nameConstraintsUnsupported:
    case ReasonCode::policyMissing:
        return true;
    default:
        return false;
    }
}

/// Whether there is somebody else of that name. Among the anchors nobody is looked for: they go first, so that no candidate
/// stands where one of them would fit.
bool hasNamesake(const std::vector<X509*>& candidates, const X509* certificate) {
    const X509_NAME* const name = X509_get_subject_name(certificate);
    return std::any_of(candidates.begin(), candidates.end(), [&](const X509* one) {
        return X509_NAME_cmp(X509_get_subject_name(one), name) == 0 && X509_cmp(one, certificate) != 0;
    });
}

/// The candidate to go on without; null when there is none, or another way would not help.
const X509* obstacle(const std::vector<X509*>& candidates, const Verdict& verdict) {
    if (std::any_of(verdict.reasons.begin(), verdict.reasons.end(),
                    [](const Reason& reason) { return reason.depth == 0 && !comesFromAbove(reason.code); })) {
        return nullptr;
    }
    for (const Reason& reason : verdict.reasons) {
        // What is wrong with one may be due to any between it and the first.
        std::size_t depth = reason.depth + (reason.code == ReasonCode::signatureWrong ? 1 : 0);
        depth = depth == 0 ? verdict.chain.size() - 1 : std::min(depth, verdict.chain.size() - 1);
        for (; depth > 0; --depth) {
            const X509* const one = verdict.chain[depth];
            const bool isCandidate = std::any_of(candidates.begin(), candidates.end(),
                                                 [one](const X509* each) { return X509_cmp(each, one) == 0; });
            if (isCandidate && hasNamesake(candidates, one)) {
                return one;
            }
        }
    }
    return nullptr;
}

} // namespace

Judged judgedByAnyWay(const Snapshot& snapshot, Request request) {
    Judged first;
    for (std::size_t way = 0; way != maximumWays; ++way) {
        Judgement judgement(snapshot, request);
        Verdict verdict = judgement.reach();
        request.spent = judgement.effort();
        first.lists.insert(first.lists.end(), judgement.lists().begin(), judgement.lists().end());
        const QuietQuestion quiet;
        const X509* const leftOut = verdict.chain.empty() ? nullptr : obstacle(request.candidates, verdict);
        const auto isLeftOut = [leftOut](const X509* one) { return X509_cmp(one, leftOut) == 0; };
        if (leftOut != nullptr) {
            request.candidates.erase(std::remove_if(request.candidates.begin(), request.candidates.end(), isLeftOut),
                                     request.candidates.end());
        }
        const bool accepted = verdict.accepted;
        if (way == 0 || accepted) {
            first.verdict = std::move(verdict);
        }
        if (leftOut == nullptr || request.spent.keys > maximumVerdictWork) {
            break;
        }
    }
    return first;
}

} // namespace Norvane::Crypto::Trust::detail
