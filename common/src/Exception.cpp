#include <norvcmsg/Exception.h>

#include <norvcmsg/Escape.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <utility>

namespace Norvane {

namespace {

/// Not by the copy constructor: libstdc++ 12 destroys a variant whose text found no memory as if it held something.
std::vector<Exception::Parameter> copyOf(const std::vector<Exception::Parameter>& parameters) {
    std::vector<Exception::Parameter> copies(parameters.size()); // empty texts
    for (std::size_t i = 0; i != parameters.size(); ++i) {
        if (const auto* number = std::get_if<int>(&parameters[i])) {
            copies[i] = *number;
        } else {
            std::get<std::string>(copies[i]) = std::get<std::string>(parameters[i]);
        }
    }
    return copies;
}

} // namespace

/// What an exception says. It is shared by copies and never changes: a change of an exception makes a new state, so
/// that copying cannot throw and `what()` is valid from several threads.
struct Exception::State {
    State(std::string whereText, int codeNumber, const char* fileName, unsigned int lineNumber)
        : where(std::move(whereText)),
          code(codeNumber),
          file(fileName == nullptr ? "" : fileName),
          line(lineNumber) {}
    State(const State& other)
        : where(other.where),
          code(other.code),
          file(other.file),
          line(other.line),
          parameters(copyOf(other.parameters)),
          cause(other.cause ? std::make_unique<Exception>(*other.cause) : nullptr),
          causes(other.causes) {}
    State& operator=(const State&) = delete;
    ~State() = default;

    /// Fills the texts.
    void render();

    std::atomic<unsigned int> references{1};
    std::string where;
    int code;
    std::string file;
    unsigned int line;
    std::vector<Parameter> parameters;
    std::unique_ptr<Exception> cause;
    std::size_t causes = 0; ///< how many failures stand behind this one
    std::string ownText;    ///< this failure on one line
    std::string text;       ///< and its causes
};

namespace {

constexpr std::size_t shownCauses = 32;

std::string shown(const Exception::Parameter& parameter) {
    if (const auto* number = std::get_if<int>(&parameter)) {
        return std::to_string(*number);
    }
    return escapeForDisplay(std::get<std::string>(parameter));
}

} // namespace

void Exception::State::render() {
    auto& result = ownText;
    result = escapeForDisplay(where) + " (code " + std::to_string(code);
    if (!file.empty()) {
        result += ", " + escapeForDisplay(file) + ':' + std::to_string(line);
    } else if (line != 0) {
        result += ", line " + std::to_string(line);
    }
    result += ')';
    const char* separator = ": ";
    for (const auto& parameter : parameters) {
        result += separator + shown(parameter);
        separator = ", ";
    }
    text = ownText;
    const State* state = this;
    for (std::size_t i = 0; state->cause != nullptr; ++i) {
        if (i == shownCauses) {
            text += "; and " + std::to_string(state->causes) + " more";
            return;
        }
        state = state->cause->m_state;
        text.append("; caused by: ").append(state->ownText);
    }
}

Exception::Exception(const std::string& where, int code, const char* file, unsigned int line) : m_state(nullptr) {
    auto state = std::make_unique<State>(where, code, file, line);
    state->render();
    m_state = state.release();
}

Exception::Exception(const Exception& other) noexcept : std::exception(other), m_state(other.m_state) {
    m_state->references.fetch_add(1, std::memory_order_relaxed);
}

// NOLINTNEXTLINE(bugprone-unhandled-self-assignment): counted before it is released
Exception& Exception::operator=(const Exception& other) noexcept {
    other.m_state->references.fetch_add(1, std::memory_order_relaxed);
    release(std::exchange(m_state, other.m_state));
    return *this;
}

Exception::~Exception() {
    release(m_state);
}

/// Gives a reference back. A chain of causes is taken apart link by link: its length must not become depth of the
/// stack.
void Exception::release(State* state) noexcept {
    while (state != nullptr && state->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        const std::unique_ptr<State> last(state);
        state = last->cause ? std::exchange(last->cause->m_state, nullptr) : nullptr;
    }
}

template <class Change> Exception& Exception::change(Change change) {
    auto state = std::make_unique<State>(*m_state);
    change(*state);
    state->render();
    release(std::exchange(m_state, state.release()));
    return *this;
}

Exception& Exception::stringParameter(const std::string& text) {
    return change([&](State& state) { state.parameters.emplace_back(text); });
}

Exception& Exception::intParameter(int number) {
    return change([&](State& state) { state.parameters.emplace_back(number); });
}

Exception& Exception::cause(const Exception& reason) {
    return change([&](State& state) {
        state.cause = std::make_unique<Exception>(reason);
        state.causes = reason.m_state->causes + 1;
    });
}

bool Exception::hasCause() const noexcept {
    return m_state->cause != nullptr;
}

const Exception* Exception::cause() const noexcept {
    return m_state->cause.get();
}

const std::string& Exception::where() const noexcept {
    return m_state->where;
}

int Exception::code() const noexcept {
    return m_state->code;
}

const std::string& Exception::fileName() const noexcept {
    return m_state->file;
}

unsigned int Exception::lineNumber() const noexcept {
    return m_state->line;
}

const std::vector<Exception::Parameter>& Exception::parameters() const noexcept {
    return m_state->parameters;
}

std::string Exception::asString() const {
    return m_state->text;
}

const char* Exception::what() const noexcept {
    return m_state->text.c_str();
}

MediaException::MediaException(const MediaException& other) noexcept = default;
MediaException& MediaException::operator=(const MediaException& other) noexcept = default;
MediaException::~MediaException() = default;

SocketException::SocketException(const SocketException& other) noexcept = default;
SocketException& SocketException::operator=(const SocketException& other) noexcept = default;
SocketException::~SocketException() = default;

} // namespace Norvane
