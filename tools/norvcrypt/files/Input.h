#pragma once

#include "files/Progress.h"

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Media.h>

#include <string>

namespace norvcrypt {

/// How an input is named in messages.
std::string inputName(const std::string& path);

/// The inputs of one command. "-" is standard input, which can be read only once.
class Inputs {
public:
    /// A stream over a file of any size. `progress` is told how far reading has come and must outlive the stream.
    /// \throws Failure: there is no such file, or standard input was taken already
    Norvane::MediaIn open(const std::string& path, Progress* progress = nullptr);
    /// All bytes of a file of at most 256 MiB, wiped with the last copy when they are secret. \throws Failure
    Norvane::Buffer readAll(const std::string& path, bool secret = false);
    /// Tells how a stream begins, and answers a stream that still delivers all of it. The first is not to be used
    /// again.
    static Norvane::MediaIn lookAhead(Norvane::MediaIn& in, unsigned int length, Norvane::Buffer& start);
    /// What is left of an open stream, with the same limit. \throws Failure
    static Norvane::Buffer readAll(Norvane::MediaIn& in, const std::string& path, bool secret = false);

private:
    bool m_standardInputTaken = false;
};

} // namespace norvcrypt
