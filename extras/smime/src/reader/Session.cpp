#include "Session.h"

#include "mime/SpillPlace.h"

#include <algorithm>

namespace Norvane::Crypto::SMime {

namespace {

constexpr std::size_t maximumOddities = 50;
constexpr unsigned int keptInMemory = 65536;

class GuardedIn : public MediaInImpl {
public:
    GuardedIn(Session& session, const MediaIn& in) : m_session(session), m_in(in) {}
    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override {
        return m_session.outside([&] { return m_in.atEnd(); });
    }
    [[nodiscard]] int peek() const override {
        return m_session.outside([&] { return m_in.peek(); });
    }
    int read(unsigned char* out, unsigned int length) override {
        return m_session.outside([&] { return m_in.read(out, length); });
    }

private:
    Session& m_session;
    MediaIn m_in;
};

class GuardedOut : public MediaOutImpl {
public:
    GuardedOut(Session& session, const MediaOut& out) : m_session(session), m_out(out) {}
    using MediaOutImpl::write;
    void write(const unsigned char* data, unsigned int length) override {
        m_session.outside([&] { m_out.write(data, length); });
    }

private:
    Session& m_session;
    MediaOut m_out;
};

} // namespace

Session::Session(const ReadOptions& theOptions, const MediaOut& theContent)
    : options(theOptions),
      content(makeReference<GuardedOut, MediaOutImpl>(*this, theContent)) {}

MediaIn guarded(Session& session, const MediaIn& in) {
    return MediaIn(makeReference<GuardedIn, MediaInImpl>(session, in));
}

std::size_t Session::addLayer(LayerKind kind, const Place& place) {
    Layer added;
    added.kind = kind;
    added.path = place.path;
    added.coversContent = place.role == Role::main;
    added.detail = "it was not read to its end";
    answer.layers.push_back(added);
    messageOfLayer.push_back(place.message);
    return answer.layers.size() - 1;
}

Role Session::take(std::size_t index, const Place& place) {
    if (place.role != Role::candidate)
        return place.role;
    if (isTaken)
        return Role::passing;
    isTaken = true;
    layer(index).coversContent = true;
    return Role::main;
}

void Session::addUncovered(const Place& place, const std::string& type) {
    if (place.layers != passedBy && place.depth > 0)
        uncovered.push_back({place.layers, {place.path, type}});
}

void Session::addOddity(const Place& place, const std::string& text) {
    if (answer.oddities.size() < maximumOddities)
        answer.oddities.push_back("part " + place.path + ": " + text);
}

void Session::addAmbiguity(const Place& place, const std::string& text) {
    if (place.role != Role::passing)
        ambiguities.try_emplace(place.layers, "part " + place.path + ": " + text);
}

void Session::lookAtPreamble(const Place& place, const mime::Multipart& multipart) {
    if (multipart.lookAlikes() > 0 || multipart.isCutByReturns())
        addAmbiguity(place,
                     "lines in front of the first part begin with the boundary, so that others may see other parts");
}

void Session::lookBehind(const Place& place, mime::Multipart& multipart) {
    multipart.lookBehind();
    if (multipart.goesOn())
        addAmbiguity(place, "behind the last boundary it stands once more, so that others may see further parts");
    if (multipart.hasLookAlikesBeside())
        addAmbiguity(place, "lines beside its parts begin with the boundary, so that others may see other parts");
    if (multipart.isCutByReturns())
        addAmbiguity(place, "others may see parts beside those of this message that begin behind a CR");
    if (multipart.hasFound())
        addAmbiguity(place,
                     "beside the parts are lines that may be boundaries to those who read its header in another way");
}

void Session::addProtected(Senders&& found) {
    std::vector<std::string>& from = protectedSenders.from;
    for (std::string& address : found.from) {
        if (std::ranges::find(from, address) == from.end())
            from.push_back(std::move(address));
    }
    if (!found.sender.empty())
        protectedSenders.sender = std::move(found.sender);
}

void Session::fail(const Place& place, LayerStatus status, const std::string& text) {
    const bool isMessage = place.depth == 0;
    if ((place.role == Role::main || isMessage) && !failure) {
        failure.emplace(status, "part " + place.path + ": " + text);
    } else {
        addOddity(place, text + "; it was not looked at");
        addUncovered(place, "not looked at");
    }
}

std::string Session::spillTemplate() const {
    return mime::spillPlace(options.spillTemplate);
}

SwapBufferMediaOut Session::spill() const {
    return {keptInMemory, spillTemplate().c_str()};
}

bool Session::mayKeep(std::uint64_t octets) {
    m_kept += octets;
    return m_kept <= options.budget.spill;
}

} // namespace Norvane::Crypto::SMime
