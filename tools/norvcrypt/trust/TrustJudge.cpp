#include "trust/TrustJudge.h"
#include "base/Failure.h"

#include <filesystem>
#include <system_error>
#include <utility>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
namespace Trust = Norvane::Crypto::Trust;
namespace fs = std::filesystem;

namespace {

/// Files that are read may not be replaced by an output.
void noteFiles(const std::string& path, Inputs& inputs) {
    std::error_code error;
    if (!fs::is_directory(path, error)) {
        inputs.note(path);
        return;
    }
    for (fs::directory_iterator at(path, error), end; !error && at != end; at.increment(error))
        inputs.note(at->path().string());
}

using Add = void (Trust::Material::*)(const std::string&);

void addAll(Trust::Material& material, Add add, const std::vector<std::string>& paths, Inputs& inputs) {
    for (const std::string& path : paths) {
        noteFiles(path, inputs);
        try {
            (material.*add)(path);
        } catch (const Norvane::Exception& failure) {
            throw Failure("cannot read " + path, failure);
        }
    }
}

std::string lineOf(const Trust::Material::Problem& problem) {
    return problem.path + ": " + problem.reason;
}

} // namespace

std::vector<Trust::Reason> TrustAnswer::reasons() const {
    std::vector<Trust::Reason> all = verdict.reasons;
    if (sender)
        all.insert(all.end(), sender->reasons.begin(), sender->reasons.end());
    return all;
}

TrustJudge::TrustJudge(TrustRequest request, Inputs& inputs)
    : m_request(std::move(request)),
      m_material(std::make_shared<Trust::Material>()),
      m_verifier(m_material, m_request.options) {
    addAll(*m_material, &Trust::Material::addAnchors, m_request.anchors, inputs);
    addAll(*m_material, &Trust::Material::addUntrusted, m_request.untrusted, inputs);
    addAll(*m_material, &Trust::Material::addLists, m_request.lists, inputs);
    if (m_material->counts().anchors == 0) {
        const auto problems = m_material->problems();
        throw Failure("there is nobody to believe: " +
                      (problems.empty() ? "no certificate in " + m_request.anchors.front() : lineOf(problems.front())));
    }
}

void TrustJudge::addIntermediates(const std::list<NVX509::RefCertificate>& certificates) const {
    for (const NVX509::RefCertificate& certificate : certificates)
        m_material->addUntrusted(certificate);
}

TrustAnswer TrustJudge::judge(const NVX509::RefCertificate& certificate,
                              const std::list<NVX509::RefCertificate>& fromMessage,
                              const std::list<NVX509::RefCertificateRevocationList>& listsFromMessage,
                              std::optional<std::time_t> signingTime) const {
    TrustAnswer answer{.verdict = {}, .options = m_request.options, .from = m_request.from, .sender = {}};
    if (answer.options.atSigningTime)
        answer.options.at = signingTime;
    answer.verdict = m_verifier.judge(certificate, fromMessage, listsFromMessage, answer.options);
    if (!answer.from.empty())
        answer.sender = Trust::matchSender(certificate, answer.from);
    return answer;
}

std::vector<std::string> TrustJudge::problems() const {
    std::vector<std::string> lines;
    for (const Trust::Material::Problem& problem : m_material->problems())
        lines.push_back(lineOf(problem));
    return lines;
}

} // namespace norvcrypt
