#pragma once

/// \file
/// The byte buffer in which bytes cross every interface of the appliance. A buffer has a length (the bytes it holds)
/// and a size (its capacity); both are 32-bit counts of bytes.
///
/// \code
/// Norvane::Buffer key(bytes, count, false); // owns a copy
/// key.protect();                            // wiped before its memory goes, in every copy too
/// Norvane::Buffer view(bytes, count, true); // borrows: no copy until it changes
/// \endcode

#include <norvcmsg/Export.h>

#include <cstddef>
#include <memory>
#include <string>

namespace Norvane {

/// Owned or borrowed bytes. Copying, assigning or moving from any buffer gives owned bytes; a borrowing buffer becomes
/// an owning one before it changes (the non-const `data()` included). One buffer is used by one thread at a time.
class NORVCMSG_EXPORT Buffer {
public:
    Buffer();
    /// \param bytes  the content; null only with length 0
    /// \param borrow true refers to `bytes`, which must outlive this buffer or its next change; false copies them
    Buffer(const void* bytes, unsigned int length, bool borrow);
    /// Zeroed bytes. \throws Exception "Buffer::Buffer", code 4: a negative argument
    Buffer(int capacity, int length);
    Buffer(const Buffer& other);
    Buffer(Buffer&& other);
    Buffer& operator=(const Buffer& other);
    Buffer& operator=(Buffer&& other);
    virtual ~Buffer();

    /// The bytes; never null, for an empty buffer neither.
    [[nodiscard]] const unsigned char* data() const noexcept;
    /// The bytes, writable up to `size()`; a borrowing buffer copies them first.
    [[nodiscard]] unsigned char* data();
    [[nodiscard]] unsigned int length() const noexcept;
    /// Sets the length, growing the capacity (with zeroes) when it has to.
    void length(unsigned int newLength);
    /// The capacity.
    [[nodiscard]] unsigned int size() const noexcept;
    [[nodiscard]] bool empty() const noexcept { return length() == 0; }
    /// The byte at `index`. \throws Exception "Buffer::at", code 4: `index` is not below the length
    [[nodiscard]] unsigned char at(int index) const;

    /// Appends the bytes of `other`, which may be this buffer.
    /// \throws Exception "Buffer::append", code 4: the length would pass 4 GiB
    void append(const Buffer& other);

    /// Marks key material: the bytes are wiped before their memory is released or moved, in every later copy too.
    void protect();
    [[nodiscard]] bool isProtected() const noexcept;

    /// Decodes this base64 text (RFC 4648 section 4; white space is skipped, padding is required) into `decoded`.
    /// Answers false and leaves `decoded` empty when the text is not base64.
    bool decodeBase64(Buffer& decoded) const;
    /// The base64 text of the bytes, on one line.
    [[nodiscard]] std::string toBase64String() const;

    /// Equal length and bytes.
    bool operator==(const Buffer& other) const noexcept;

private:
    void own();
    void reserve(unsigned int capacity);
    void release() noexcept;

    unsigned char* m_bytes;
    unsigned int m_length = 0;
    unsigned int m_size = 0;
    bool m_borrowed = false;
    bool m_protected = false;
};

} // namespace Norvane
