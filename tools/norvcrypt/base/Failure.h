#pragma once

#include "base/PlainWords.h"

#include <norvcmsg/Exception.h>

#include <stdexcept>
#include <string>

namespace norvcrypt {

/// What a command answers to the shell.
enum class Exit : int { good = 0, refused = 1, failed = 2 };

/// Bad usage, or input that cannot be read: told on one line, exit code 2. The text may hold bytes of the input; it is
/// escaped where it is shown.
class Failure : public std::runtime_error {
public:
    explicit Failure(const std::string& text) : std::runtime_error(text) {}
    /// With the errno of a failed call behind it: "text: No such file or directory".
    Failure(const std::string& text, int error);
    /// With the library's failure behind it, in plain words.
    Failure(const std::string& text, const Norvane::Exception& cause) : Failure(text + ": " + inPlainWords(cause)) {}
};

/// The answer is no: a wrong passphrase, nobody in the store for an address. Told likewise, exit code 1.
class Refusal : public Failure {
public:
    using Failure::Failure;
};

/// The exit code that goes with a failure.
Exit exitOf(const Failure& failure) noexcept;

/// What the exception that is being handled tells, and the exit code that goes with it.
struct Told {
    Exit exit = Exit::failed;
    std::string text;
};
Told toldOfException();

/// Shows one line on standard error: "norvcrypt: " and the text, escaped.
void reportError(const std::string& text);

} // namespace norvcrypt
