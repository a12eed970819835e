#include "read/StructureFile.h"
#include "base/Failure.h"
#include "files/Spill.h"
#include "recognise/CmsInText.h"
#include "recognise/DerAndPem.h"

#include <norvcmsg/SwapBufferMediaOut.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>
#include <mutex>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

namespace norvcrypt {

namespace {

constexpr unsigned int looksAt = 64;

constexpr std::uintmax_t longText = std::uintmax_t{1} << 20U;

/// A long text is in memory with what is decoded from it for as long as it is worked on: one at a time, in however many threads
/// inputs are worked on. A thread may have several.
using Turn = std::unique_lock<std::recursive_mutex>;
Turn turnOf(const Inputs& inputs, const std::string& path) {
    static std::recursive_mutex longTexts;
    std::error_code failure;
    const bool isLong = inputs.areOfOneOfMany() && std::filesystem::file_size(path, failure) > longText && !failure;
    return isLong ? Turn(longTexts) : Turn();
}

bool knowsItsPosition(const Norvane::MediaIn& in) {
    try {
        static_cast<void>(in.tell());
        return true;
    } catch (const Norvane::Exception&) {
        return false; // a pipe
    }
}

} // namespace

/// What the streams over one file share.
struct StructureFile::State {
    Turn turn; // given up last
    Norvane::MediaIn file;
    std::optional<Norvane::SwapBufferMediaOut> kept; ///< all that was read, of what cannot be gone back in
    bool keeping = false;
    bool endedEarly = false;

    unsigned int readFile(unsigned char* out, unsigned int length) {
        const auto count = static_cast<unsigned int>(file.read(out, length));
        if (keeping && count != 0)
            kept->write(out, count);
        return count;
    }
};

namespace {

/// What was kept, and then the file.
class StructureSource : public Norvane::MediaInImpl {
public:
    explicit StructureSource(std::shared_ptr<StructureFile::State> state) : m_state(std::move(state)) {
        if (m_state->kept)
            m_again.emplace(m_state->kept->in());
    }

    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override { return (!m_again || m_again->atEnd()) && m_state->file.atEnd(); }
    [[nodiscard]] int peek() const override {
        return m_again && !m_again->atEnd() ? m_again->peek() : m_state->file.peek();
    }
    int read(unsigned char* out, unsigned int length) override {
        unsigned int done = 0;
        if (m_again) {
            done = static_cast<unsigned int>(m_again->read(out, length));
            if (done == length)
                return static_cast<int>(done);
            m_again.reset();
        }
        done += m_state->readFile(out + done, length - done);
        m_state->endedEarly = m_state->endedEarly || done < length;
        return static_cast<int>(done);
    }

private:
    std::shared_ptr<StructureFile::State> m_state;
    std::optional<Norvane::MediaIn> m_again;
};

} // namespace

StructureFile::StructureFile(Inputs& inputs, std::string path, Progress* progress)
    : m_path(std::move(path)),
      m_state(std::make_shared<State>()) {
    m_state->file = inputs.open(m_path, progress);
    m_state->keeping = !knowsItsPosition(m_state->file);
    if (m_state->keeping)
        m_state->kept.emplace(emptySpill());
    Norvane::Buffer start(static_cast<int>(looksAt), 0);
    start.length(m_state->readFile(start.data(), looksAt));
    if (!beginsStructure(start)) {
        m_state->keeping = false;
        m_state->turn = turnOf(inputs, m_path);
        Norvane::MediaIn text = structure();
        const Norvane::Buffer der = structureInText(Inputs::readAll(text, m_path), name());
        m_state->kept.reset();
        m_state->file = Norvane::MemoryMediaIn(der);
        start = Norvane::Buffer(der.data(), std::min(der.length(), looksAt), false);
    }
    m_contentType = contentTypeOf(start);
}

StructureFile::~StructureFile() = default;

Norvane::MediaIn StructureFile::structure() {
    if (!m_state->kept)
        m_state->file.setpos(0);
    m_state->endedEarly = false;
    return Norvane::MediaIn(Norvane::makeReference<StructureSource, Norvane::MediaInImpl>(m_state));
}

void StructureFile::readOnce() noexcept {
    m_state->keeping = false;
}

bool StructureFile::endedEarly() const noexcept {
    return m_state->endedEarly;
}

void StructureFile::requireEnd() {
    // What is told about one of several structures would pass for a word on all of them.
    const auto isPadding = [](unsigned char byte) { return byte == 0 || std::isspace(byte) != 0; };
    std::vector<unsigned char> piece(65536);
    for (;;) {
        const int count = m_state->file.read(piece.data(), static_cast<unsigned int>(piece.size()));
        if (count <= 0)
            return;
        if (!std::all_of(piece.begin(), piece.begin() + count, isPadding))
            throw Failure("bytes follow the CMS structure in " + name());
    }
}

} // namespace norvcrypt
