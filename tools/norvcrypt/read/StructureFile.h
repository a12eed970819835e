#pragma once

/// \file
/// A CMS structure of any size in a file, read as a stream.

#include "files/Input.h"
#include "recognise/ContentType.h"

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Media.h>

#include <memory>
#include <string>

namespace norvcrypt {

/// The one structure of a file, BER or PEM. A text is taken into memory (256 MiB at most), of many inputs at a time one that is longer than 1 MiB;
/// what is binary passes.
class StructureFile {
public:
    /// \throws Failure: there is no structure in it
    StructureFile(Inputs& inputs, std::string path, Progress* progress = nullptr);
    ~StructureFile();
    StructureFile(const StructureFile&) = delete;
    StructureFile& operator=(const StructureFile&) = delete;

    /// A stream over the structure, from its first byte on. Those from before are not to be used again.
    ///
    /// Files are gone back in. What comes through a pipe is kept, encrypted or signed as it is, in case it is read again;
    /// beyond 1 MiB in a file without a name.
    Norvane::MediaIn structure();
    /// Tells that `structure` will not be called again: nothing more is kept.
    void readOnce() noexcept;

    /// Whether more was asked for than there is: the structure is cut off.
    [[nodiscard]] bool endedEarly() const noexcept;
    /// To be called when the structure was read to its end. \throws Failure: more than blanks follows it
    void requireEnd();

    [[nodiscard]] const ContentType& contentType() const noexcept { return m_contentType; }
    /// As it is named in messages.
    [[nodiscard]] std::string name() const { return inputName(m_path); }

    struct State;

private:
    std::string m_path;
    ContentType m_contentType;
    std::shared_ptr<State> m_state;
};

} // namespace norvcrypt
