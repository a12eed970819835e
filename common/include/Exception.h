#ifndef NORVCMSG_EXCEPTION_H
#define NORVCMSG_EXCEPTION_H

/// \file
/// The exceptions of the appliance. A failure is told by where it happened, a code, the source module and line, any
/// number of text or integer parameters, and the failure that caused it:
///
/// \code
/// Norvane::Exception failure("Crypto::MemoryBIO", 4, "BIO", __LINE__);
/// failure.stringParameter("MemoryBIO:  " + Norvane::Crypto::getErrString());
/// throw failure;
/// \endcode
///
/// `asString()` puts all of it on one line; control bytes are escaped there, so that bytes of a message cannot forge a
/// line of a log:
///
/// \code
/// Crypto::MemoryBIO (code 4, BIO:61): MemoryBIO:  0x8000000C: ...; caused by: Buffer::append (code 4, Buffer:97)
/// \endcode
///
/// Threads: copies may be read, changed and destroyed from several threads at once; one object is used by one thread at
/// a time, or read by several while none changes it. This header stands alone: the handle templates throw from it.

#include <norvcmsg/Export.h>

#include <exception>
#include <string>
#include <variant>
#include <vector>

namespace Norvane {

/// The base of every failure that the appliance throws. Copying never throws and is cheap, and a copy is independent:
/// no later change of one is seen through the other. What the accessors refer to is valid until this object changes or
/// goes.
class NORVCMSG_EXPORT Exception : public std::exception {
public:
    /// One detail of a failure: a text or a number, in the order in which they were attached.
    using Parameter = std::variant<std::string, int>;

    /// \param where the failing operation
    /// \param code  4 for failed operations and bad input, 1 for null handles and failed casts
    /// \param file  the source module; may be null, which `fileName()` reports as the empty text
    /// \param line  the line of the throw, counted from 1; 0 when there is none
    Exception(const std::string& where, int code, const char* file, unsigned int line);
    Exception(const Exception& other) noexcept;
    Exception& operator=(const Exception& other) noexcept;
    ~Exception() override;

    /// Attaches a text, kept byte for byte. Returns this exception, so that calls can follow one another; throwing what
    /// it returns throws a plain `Exception`, so a subclass is given a name first and thrown by it.
    Exception& stringParameter(const std::string& text);
    /// Attaches a number.
    Exception& intParameter(int number);
    /// Attaches a copy of the failure behind this one; an earlier cause is replaced. The copy is a plain `Exception`,
    /// whatever class `reason` is of.
    Exception& cause(const Exception& reason);

    [[nodiscard]] bool hasCause() const noexcept;
    /// The cause, or null. It lives as long as this exception.
    [[nodiscard]] const Exception* cause() const noexcept;
    [[nodiscard]] const std::string& where() const noexcept;
    [[nodiscard]] int code() const noexcept;
    /// The source module, without extension; empty when none was given.
    [[nodiscard]] const std::string& fileName() const noexcept;
    [[nodiscard]] unsigned int lineNumber() const noexcept;
    [[nodiscard]] const std::vector<Parameter>& parameters() const noexcept;

    /// Everything on one line: where, code, file, line, parameters and the chain of causes, escaped as by
    /// `escapeForDisplay`. Of a chain longer than 32 the rest is told as a number.
    [[nodiscard]] std::string asString() const;
    /// `asString()`, valid until this exception changes or goes.
    [[nodiscard]] const char* what() const noexcept override;

private:
    struct State;

    template <class Change> Exception& change(Change change);
    static void release(State* state) noexcept;

    State* m_state;
};

/// A failure of a stream handle.
class NORVCMSG_EXPORT MediaException : public Exception {
public:
    using Exception::Exception;
    MediaException(const MediaException& other) noexcept;
    MediaException& operator=(const MediaException& other) noexcept;
    ~MediaException() override;
};

/// A failure of a socket.
class NORVCMSG_EXPORT SocketException : public Exception {
public:
    using Exception::Exception;
    SocketException(const SocketException& other) noexcept;
    SocketException& operator=(const SocketException& other) noexcept;
    ~SocketException() override;
};

} // namespace Norvane

#endif
