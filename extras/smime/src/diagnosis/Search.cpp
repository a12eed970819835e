#include "diagnosis/Search.h"

#include <algorithm>
#include <set>
#include <utility>

namespace Norvane::Crypto::SMime::diagnosis {

namespace {

using CMS::SignatureReason;
using CMS::SignatureResult;
using CMS::SignatureVerdict;
using CMS::SignedReader;

/// Each try holds some kilobytes, which is more than a short body: that is read again instead.
constexpr std::uint64_t shortBody = std::uint64_t{64} << 10U;
constexpr std::size_t mostOfShortBody = 100;

/// Lengths of the message digests that signers say their body has.
std::set<std::size_t> digestLengths(const SignedReader& message) {
    std::set<std::size_t> lengths;
    for (const SignedReader::Signer& signer : message.signers()) {
        if (const auto digest = signer.messageDigest()) {
            lengths.insert(digest->length());
        }
    }
    return lengths;
}

std::size_t countOfDigests(const SignedReader& message) {
    std::set<std::string> names;
    for (const SignedReader::Signer& signer : message.signers()) {
        names.insert(signer.digestAlgorithm());
    }
    return std::clamp<std::size_t>(names.size(), 1, CMS::maximumDigests);
}

/// Whether a verdict says that the signature is that of the certificate or, where there is something about that, of its key.
bool isBy(const OpenSigner& open, const SignatureResult& result) {
    return result.verdict == SignatureVerdict::good || (!open.about.empty() && keyFits(result));
}

/// The line end of lines that are made.
LineEnd newLineOf(EndMode mode, const BodyFacts& facts) noexcept {
    if (mode == EndMode::asIs) {
        return facts.usual();
    }
    return mode == EndMode::lf ? LineEnd::lf : LineEnd::crLf;
}

} // namespace

Search::Search(const Buffer& structure, const BodySource& body, const DiagnosisOptions& options)
    : m_structure(structure),
      m_source(body),
      m_options(options),
      m_budget(options.budget.verifications),
      m_message(sourceOver(structure)),
      m_digests(m_message.isDetached() ? countOfDigests(m_message) : 0),
      m_otherDigests(m_message.isDetached() ? digestLengths(m_message) : std::set<std::size_t>()) {}

Diagnosis Search::run() {
    if (!m_message.isDetached()) {
        notLooked("the content is in the structure, where no relay changes it");
        return m_diagnosis;
    }
    for (const EndMode mode : {EndMode::asIs, EndMode::crLf, EndMode::crLfButBareCr, EndMode::lf}) {
        m_tries.push_back(started(nullptr, mode));
    }
    if (!pass(true)) {
        return m_diagnosis;
    }
    findOpenSigners();
    finishAll();
    if (isAnyOpen()) {
        tryRecipes(recipesFor(m_facts));
    }
    if (m_budget.isSpent()) {
        notLooked("more than " + std::to_string(m_options.budget.verifications) +
                  " signatures would have had to be verified");
    }
    m_diagnosis.verifications = m_budget.taken();
    for (OpenSigner& open : m_open) {
        if (open.explanation) {
            m_diagnosis.explanations.push_back(std::move(*open.explanation));
        }
    }
    std::ranges::sort(m_diagnosis.explanations, {}, &Explanation::signer);
    return m_diagnosis;
}

Try Search::started(const Recipe* recipe, EndMode mode) const {
    Try one{recipe, mode};
    one.out = std::make_unique<TryOutput>(m_structure, mode, newLineOf(mode, m_facts));
    one.undoing = recipe == nullptr ? std::make_unique<Undoing>(*one.out) : recipe->undo(*one.out);
    return one;
}

/// Reads the body through all tries; false when it is too long.
bool Search::pass(bool isFirst) {
    FactsCollector facts(m_facts);
    std::vector<BodyConsumer*> consumers;
    if (isFirst) {
        consumers.push_back(&facts);
    }
    for (const Try& one : m_tries) {
        consumers.push_back(one.undoing.get());
    }
    BodyScanner scanner(std::move(consumers));
    MediaOut digest = m_message.digest();
    MediaIn body = m_source();
    ++m_diagnosis.passes;
    std::vector<unsigned char> piece(std::size_t{64} << 10U);
    std::uint64_t length = 0;
    const auto read = [&] { return body.read(piece.data(), static_cast<unsigned int>(piece.size())); };
    for (int count = read(); count > 0; count = read()) {
        length += static_cast<std::uint64_t>(count);
        if (length > m_options.budget.body) {
            notLooked("the body has more than " + std::to_string(m_options.budget.body) +
                      " bytes: what may have happened to it was not tried");
            return false;
        }
        if (isFirst) {
            digest.write(piece.data(), static_cast<unsigned int>(count));
            m_otherDigests.update(piece.data(), static_cast<std::size_t>(count));
        }
        scanner.write({reinterpret_cast<const char*>(piece.data()), static_cast<std::size_t>(count)});
    }
    scanner.finish();
    m_facts.length = length;
    if (isFirst) {
        m_diagnosis.digested += length * (m_digests + m_otherDigests.count());
    }
    return true;
}

/// The signers whose signature does not fit, and what there is about them beside the body.
void Search::findOpenSigners() {
    CertificateSearch certificates(m_message, m_options, m_budget);
    const auto& signers = m_message.signers();
    std::size_t refused = 0;
    for (std::size_t index = 0; index != signers.size(); ++index) {
        const SignatureResult result = m_message.verdict(signers[index]);
        if (result.verdict != SignatureVerdict::refused) {
            continue;
        }
        if (++refused > m_options.budget.signers) {
            notLooked("of the signers whose signature does not fit, only the first " +
                      std::to_string(m_options.budget.signers) + " were looked at");
            break;
        }
        open(index, result, certificates);
    }
}

void Search::open(std::size_t index, const SignatureResult& result, CertificateSearch& certificates) {
    const SignedReader::Signer& signer = m_message.signers()[index];
    OpenSigner open{index, signer.hasSignedAttributes()};
    if (open.hasAttributes) {
        if (!m_budget.take()) {
            return;
        }
        const SignatureResult attributes = m_message.verdictOnAttributes(signer);
        if (attributes.verdict == SignatureVerdict::good) {
            open.certificate = attributes.certificate;
        } else if (isAboutCertificate(attributes.reason)) {
            if (const auto fitting = certificates.find(signer)) {
                open.certificate = fitting->certificate;
                if (fitting->finding) {
                    open.about.push_back(*fitting->finding);
                }
            }
        }
        const bool isSigned = static_cast<X509*>(open.certificate) != nullptr;
        if (!isSigned) {
            open.certificate = certificates.named(signer);
        }
        if (explainDigest(open, signer) || !isSigned) { // else nobody signed any body with this
            return;
        }
    } else if (isAboutCertificate(result.reason)) {
        if (const auto fitting = certificates.find(signer)) {
            open.certificate = fitting->certificate;
            if (fitting->finding) {
                open.about.push_back(*fitting->finding);
            }
        } else {
            open.certificate = certificates.named(signer);
        }
    }
    if (static_cast<X509*>(open.certificate) == nullptr) {
        return;
    }
    if (fits(m_message, open)) { // the body is the one that was signed
        if (!open.about.empty()) {
            m_diagnosis.explanations.push_back({index, open.about, open.certificate});
        }
        return;
    }
    m_open.push_back(std::move(open));
}

/// Whether the digest is the body's by another algorithm, and the attributes with it were signed.
bool Search::explainDigest(const OpenSigner& open, const SignedReader::Signer& signer) {
    const auto digest = signer.messageDigest();
    const bool isAnybodys = digest && static_cast<X509*>(open.certificate) != nullptr;
    const std::string named = signer.digestAlgorithm();
    for (const std::string& name : isAnybodys ? m_otherDigests.namesOf(*digest) : std::vector<std::string>()) {
        if (name == named) {
            continue;
        }
        for (const std::string& by : {std::string(), name}) {
            if (m_budget.take() && isBy(open, m_message.verdictOnAttributes(signer, open.certificate, by))) {
                std::string text = "the signer says to have digested the text by ";
                text.append(named).append(", but the digest that was signed is its ").append(name);
                std::vector<Finding> findings{
                    {Change::digestOfOtherAlgorithm, text,
                     "the sender's program names the wrong algorithm: it has to be mended there"}};
                findings.insert(findings.end(), open.about.begin(), open.about.end());
                m_diagnosis.explanations.push_back({open.index, std::move(findings), open.certificate});
                return true;
            }
        }
    }
    return false;
}

bool Search::isAnyOpen() const noexcept {
    return std::ranges::any_of(m_open, [](const OpenSigner& open) { return !open.explanation; });
}

/// How line ends may be changed along with something else, the likeliest first.
std::vector<EndMode> Search::modes() const {
    std::vector<EndMode> modes;
    if (!findingsOf(EndMode::crLf, m_facts).empty()) {
        modes.push_back(EndMode::crLf);
    }
    modes.push_back(EndMode::asIs);
    if (m_facts.count(LineEnd::cr) != 0 && !findingsOf(EndMode::crLfButBareCr, m_facts).empty()) {
        modes.push_back(EndMode::crLfButBareCr);
    }
    if (!findingsOf(EndMode::lf, m_facts).empty()) {
        modes.push_back(EndMode::lf);
    }
    return modes;
}

void Search::tryRecipes(const std::vector<Recipe>& recipes) {
    std::vector<std::pair<const Recipe*, EndMode>> chosen;
    std::size_t left = 0;
    std::uint64_t cost = m_diagnosis.digested;
    const std::uint64_t each = m_facts.length * m_digests;
    for (const EndMode mode : modes()) {
        for (const Recipe& recipe : recipes) {
            if (cost + each > m_options.budget.digested) {
                ++left;
                continue;
            }
            cost += each;
            chosen.emplace_back(&recipe, mode);
        }
    }
    if (left != 0) {
        notLooked(std::to_string(left) + " of " + std::to_string(left + chosen.size()) +
                  " further changes were not tried, which would take the digests of more than " +
                  std::to_string(m_options.budget.digested) + " bytes");
    }
    const std::size_t atOnce = m_facts.length <= shortBody ? mostOfShortBody : chosen.size();
    for (auto next = chosen.begin(); next != chosen.end() && isAnyOpen();) {
        for (; next != chosen.end() && m_tries.size() != atOnce; ++next) {
            m_tries.push_back(started(next->first, next->second));
        }
        if (!pass(false)) {
            return;
        }
        finishAll();
    }
}

void Search::finishAll() {
    for (Try& one : m_tries) {
        finish(one);
    }
    m_tries.clear();
}

void Search::finish(Try& one) {
    m_findings = findingsOf(one.mode, m_facts);
    m_isRecipe = one.recipe != nullptr;
    const bool isNew = one.mode == EndMode::asIs || !m_findings.empty();
    if (one.recipe != nullptr) {
        m_findings.push_back(findingOf(*one.recipe));
    }
    ++m_diagnosis.tries;
    m_diagnosis.digested += one.out->length() * m_digests;
    if (isNew) {
        one.out->setNewLine(newLineOf(one.mode, m_facts)); // of the first pass it tells what is usual
        one.out->finish(*this);
    }
    // What they keep is not held until the last of a hundred is finished.
    one.undoing.reset();
    one.out.reset();
}

bool Search::fits(const SignedReader& message, const OpenSigner& open) {
    const SignedReader::Signer& signer = message.signers()[open.index];
    // Without attributes there is no digest to compare: each question is a verification.
    if (!open.hasAttributes && !m_budget.take()) {
        return false;
    }
    const SignatureResult result = message.verdict(signer, open.certificate);
    if (open.hasAttributes && result.reason != SignatureReason::bodyDiffers) {
        static_cast<void>(m_budget.take());
    }
    return isBy(open, result);
}

void Search::judge(const SignedReader& message, const EndChange& change) {
    for (OpenSigner& open : m_open) {
        const std::size_t count = m_findings.size() + (change.isNone() ? 0 : 1) + open.about.size();
        const bool isBody = !m_findings.empty() || !change.isNone();
        const bool isSimpler = !open.explanation || open.explanation->findings.size() > count;
        // Without attributes each question costs a verification.
        const bool isAsked =
            open.hasAttributes || change.isNone() ||
            (!m_isRecipe && change.linesLess == 0 && change.lineEndsLess <= 1 && change.lineEndsMore <= 1);
        if (!isBody || !isSimpler || !isAsked || !fits(message, open)) {
            continue;
        }
        Explanation explanation{open.index, m_findings, open.certificate};
        const std::vector<Finding> end = findingsOf(change);
        explanation.findings.insert(explanation.findings.end(), end.begin(), end.end());
        explanation.findings.insert(explanation.findings.end(), open.about.begin(), open.about.end());
        open.explanation = std::move(explanation);
    }
}

void Search::notLooked(const std::string& what) {
    m_diagnosis.notLooked += (m_diagnosis.notLooked.empty() ? "" : "; ") + what;
}

} // namespace Norvane::Crypto::SMime::diagnosis
