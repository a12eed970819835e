#include "show/DiagnosisReport.h"

#include <algorithm>

namespace norvcrypt {

namespace SMime = Norvane::Crypto::SMime;

const SMime::Explanation* explanationOf(const SMime::Diagnosis& diagnosis, std::size_t signer) {
    const auto found = std::ranges::find(diagnosis.explanations, signer, &SMime::Explanation::signer);
    return found == diagnosis.explanations.end() ? nullptr : &*found;
}

void tellExplanation(TextOutput& out, const std::string& who, const std::string& indent,
                     const SMime::Explanation& explanation) {
    for (const SMime::Finding& finding : explanation.findings) {
        std::string line = indent;
        line.append("why ").append(who).append(" is refused: ").append(finding.text);
        out.line(line.append(" (").append(SMime::nameOf(finding.change)).append(")"));
        out.line(indent + "  what to do: " + finding.advice);
    }
}

Description explanationFacts(const SMime::Explanation& explanation) {
    Description facts{{"findings", Description::array()}};
    for (const SMime::Finding& finding : explanation.findings) {
        facts["findings"].push_back({{"code", SMime::nameOf(finding.change)},
                                     {"number", static_cast<int>(finding.change)},
                                     {"text", finding.text},
                                     {"advice", finding.advice}});
    }
    facts["certificate"] = certificateFacts(explanation.certificate);
    return facts;
}

} // namespace norvcrypt
