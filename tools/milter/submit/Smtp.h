#pragma once

/// \file
/// A connection to an SMTP server. libcurl connects, greets, and speaks TLS; the mail transaction is spoken here, since libcurl has
/// no 8BITMIME (RFC 6152), and takes several messages apart into connections.

#include "submit/Submit.h"

#include <curl/curl.h>

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

namespace norvmilter {

/// "250 2.1.0 Ok"; of several lines the texts are put together.
struct SmtpAnswer {
    int code = 0;
    std::string text;
};

class Smtp {
public:
    using Clock = std::chrono::steady_clock;

    /// Connects. \throws SubmissionFailure, as all that follows
    /// \param end when all has to be over
    Smtp(const SubmitTo& to, Clock::time_point end);

    [[nodiscard]] bool offers(std::string_view extension) const;
    /// Sends a line, without its end, and waits for the answer.
    SmtpAnswer command(const std::string& line);
    /// The content of a message behind the answer 354, lines with "." in front doubled, with the line "." that ends it.
    SmtpAnswer content(Norvane::MediaIn whole);
    /// Says good bye, and does not mind whether it is heard.
    void quit() noexcept;

private:
    struct Closing {
        void operator()(CURL* handle) const noexcept { ::curl_easy_cleanup(handle); }
    };

    static int keepAnswers(CURL* handle, curl_infotype type, char* data, std::size_t size, void* kept);
    void send(std::string_view octets);
    SmtpAnswer answer();
    std::string line();
    void wait(short events);

    // What the server said until it was connected; libcurl knows its place.
    std::unique_ptr<std::string> m_greeting;
    std::unique_ptr<CURL, Closing> m_handle;
    std::chrono::seconds m_silence;
    Clock::time_point m_end;
    std::string m_received;
};

} // namespace norvmilter
