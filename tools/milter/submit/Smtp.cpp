#include "submit/Smtp.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <poll.h>
#include <span>

namespace norvmilter {

namespace {

constexpr std::size_t longestLine = 4096;
constexpr std::size_t longestAnswer = 65536;

[[noreturn]] void fail(const std::string& what) {
    throw SubmissionFailure(what, false);
}

/// Before any other thread could.
void startCurl() {
    static const CURLcode started = ::curl_global_init(CURL_GLOBAL_DEFAULT);
    if (started != CURLE_OK)
        fail("libcurl does not start");
}

bool isHostName(const std::string& name) {
    return !name.empty() && std::ranges::all_of(name, [](unsigned char one) {
        return std::isalnum(one) != 0 || one == '-' || one == '.';
    });
}

/// Of a message, which may be a secret: wiped when it goes.
struct Piece {
    Piece() { sent.reserve(2 * read.size()); } // at most two for each, so that it never moves
    ~Piece() {
        ::explicit_bzero(read.data(), read.size());
        ::explicit_bzero(sent.data(), sent.capacity());
    }
    Piece(const Piece&) = delete;
    Piece& operator=(const Piece&) = delete;

    std::array<unsigned char, 16384> read{};
    std::string sent;
};

char upper(char one) {
    return static_cast<char>(std::toupper(static_cast<unsigned char>(one)));
}

} // namespace

int Smtp::keepAnswers(CURL* /*handle*/, curl_infotype type, char* data, std::size_t size, void* kept) {
    auto& greeting = *static_cast<std::string*>(kept);
    if (type == CURLINFO_HEADER_IN && greeting.size() < longestAnswer)
        greeting.append(data, size);
    return 0;
}

Smtp::Smtp(const SubmitTo& to, Clock::time_point end)
    : m_greeting(std::make_unique<std::string>()),
      m_silence(to.silence),
      m_end(end) {
    startCurl();
    m_handle.reset(::curl_easy_init());
    if (!m_handle)
        fail("out of memory");
    // The path of the URL is the name that the server is told.
    const bool hasPath = to.url.find('/', to.url.find("://") + 3) != std::string::npos;
    const std::string url = hasPath || !isHostName(to.name) ? to.url : to.url + '/' + to.name;
    CURL* handle = m_handle.get();
    const long most = std::chrono::milliseconds(to.silence).count();
    ::curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    ::curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "smtp,smtps");
    ::curl_easy_setopt(handle, CURLOPT_PROXY, "");
    ::curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    ::curl_easy_setopt(handle, CURLOPT_CONNECT_ONLY, 1L);
    ::curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, most);
    ::curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, most);
    ::curl_easy_setopt(handle, CURLOPT_VERBOSE, 1L);
    ::curl_easy_setopt(handle, CURLOPT_DEBUGFUNCTION, keepAnswers);
    ::curl_easy_setopt(handle, CURLOPT_DEBUGDATA, m_greeting.get());
    const CURLcode result = ::curl_easy_perform(handle);
    ::curl_easy_setopt(handle, CURLOPT_VERBOSE, 0L);
    if (result != CURLE_OK)
        fail(to.url + ": " + ::curl_easy_strerror(result));
    std::ranges::transform(*m_greeting, m_greeting->begin(), upper);
}

bool Smtp::offers(std::string_view extension) const {
    // "250-8BITMIME", "250 SIZE 10240000"
    for (std::size_t begin = 0; begin < m_greeting->size();) {
        const std::size_t end = std::min(m_greeting->find('\n', begin), m_greeting->size());
        std::string_view one = std::string_view(*m_greeting).substr(begin, end - begin);
        begin = end + 1;
        if (!one.starts_with("250") || one.size() < 4)
            continue;
        one.remove_prefix(4);
        if (one.substr(0, one.find_first_of(" =\r")) == extension)
            return true;
    }
    return false;
}

SmtpAnswer Smtp::command(const std::string& line) {
    send(line + "\r\n");
    return answer();
}

SmtpAnswer Smtp::content(Norvane::MediaIn whole) {
    Piece piece;
    std::string& out = piece.sent;
    bool isAtBegin = true;
    bool hasCr = false;
    for (int length = 0; (length = whole.read(piece.read.data(), piece.read.size())) > 0;) {
        out.clear();
        for (const unsigned char octet : std::span(piece.read).first(static_cast<std::size_t>(length))) {
            // A line feed by itself, which servers differ on, must not make a line here that is none there.
            if (octet == '\n' && !hasCr)
                out += '\r';
            if (octet == '.' && isAtBegin)
                out += '.';
            out += static_cast<char>(octet);
            hasCr = octet == '\r';
            isAtBegin = octet == '\n';
        }
        send(out);
    }
    send(isAtBegin ? ".\r\n" : "\r\n.\r\n");
    return answer();
}

void Smtp::quit() noexcept {
    std::size_t sent = 0;
    static_cast<void>(::curl_easy_send(m_handle.get(), "QUIT\r\n", 6, &sent));
}

void Smtp::wait(short events) {
    curl_socket_t socket = CURL_SOCKET_BAD;
    ::curl_easy_getinfo(m_handle.get(), CURLINFO_ACTIVESOCKET, &socket);
    const auto left = std::min<Clock::duration>(m_end - Clock::now(), m_silence);
    pollfd waiting{socket, events, 0};
    const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    if (socket == CURL_SOCKET_BAD || milliseconds <= 0 || ::poll(&waiting, 1, static_cast<int>(milliseconds)) == 0)
        fail("the server does not answer in time");
}

void Smtp::send(std::string_view octets) {
    while (!octets.empty()) {
        std::size_t sent = 0;
        // cppcheck-suppress invalidLifetime ; it takes a caller's text for one of its own
        const CURLcode result = ::curl_easy_send(m_handle.get(), octets.data(), octets.size(), &sent);
        if (result == CURLE_AGAIN)
            wait(POLLOUT);
        else if (result != CURLE_OK)
            fail(std::string("the server went away: ") + ::curl_easy_strerror(result));
        octets.remove_prefix(sent);
    }
}

std::string Smtp::line() {
    while (true) {
        const std::size_t end = m_received.find('\n');
        if (end != std::string::npos) {
            std::string one = m_received.substr(0, end);
            m_received.erase(0, end + 1);
            if (one.ends_with('\r'))
                one.pop_back();
            return one;
        }
        if (m_received.size() > longestLine)
            fail("the server answers with a line that has no end");
        std::array<char, 1024> piece{};
        std::size_t got = 0;
        const CURLcode result = ::curl_easy_recv(m_handle.get(), piece.data(), piece.size(), &got);
        if (result == CURLE_AGAIN)
            wait(POLLIN);
        else if (result != CURLE_OK || got == 0)
            fail("the server went away");
        m_received.append(piece.data(), got);
    }
}

SmtpAnswer Smtp::answer() {
    SmtpAnswer whole;
    while (true) {
        const std::string one = line();
        const bool isAnswer = one.size() >= 3 && std::all_of(one.begin(), one.begin() + 3, [](unsigned char digit) {
                                  return std::isdigit(digit) != 0;
                              });
        if (!isAnswer || (one.size() > 3 && one[3] != ' ' && one[3] != '-'))
            fail("the server does not speak SMTP");
        whole.code = std::stoi(one.substr(0, 3));
        if (one.size() > 4)
            whole.text += (whole.text.empty() ? "" : " ") + one.substr(4);
        if (whole.text.size() > longestAnswer)
            fail("the server answers without an end");
        if (one.size() <= 3 || one[3] == ' ')
            return whole;
    }
}

} // namespace norvmilter
