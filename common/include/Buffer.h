#ifndef NORVCMSG_BUFFER_H
#define NORVCMSG_BUFFER_H

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

#include <string>

namespace Norvane {

/// Owned or borrowed bytes. Copying, assigning or moving from any buffer gives owned bytes; a borrowing buffer becomes
/// an owning one before it changes (the non-const `data()` included). Capacity that a buffer gains is zeroed. What
/// `data()` answers is valid until the capacity changes. One buffer is used by one thread at a time.
class NORVCMSG_EXPORT Buffer {
public:
    Buffer();
    /// \param bytes  the content; null only with length 0
    /// \param borrow true refers to `bytes`, which must outlive this buffer or its next change; false copies them
    /// \throws Exception "Buffer::Buffer", code 4: null bytes with a length
    Buffer(const void* bytes, unsigned int length, bool borrow);
    /// `length` zeroed bytes with room for `capacity` (for `length` when that is more).
    /// \throws Exception "Buffer::Buffer", code 4: a negative argument
    Buffer(int capacity, int length);
    /// Copies the bytes and the mark of `protect()`; the capacity is the length.
    Buffer(const Buffer& other);
    /// Takes over the bytes and leaves `other` empty; bytes that `other` borrows are copied, which may throw.
    Buffer(Buffer&& other);
    /// Replaces the bytes. A buffer that was marked with `protect()` stays so, and is marked when `other` is.
    Buffer& operator=(const Buffer& other);
    Buffer& operator=(Buffer&& other);
    virtual ~Buffer();

    /// The bytes; never null, for an empty buffer neither.
    [[nodiscard]] const unsigned char* data() const noexcept;
    /// The bytes, writable up to `size()`; a borrowing buffer copies them first.
    [[nodiscard]] unsigned char* data();
    [[nodiscard]] unsigned int length() const noexcept;
    /// Sets the length, growing the capacity (with zeroes) when it has to. Within the capacity no byte changes, so that
    /// bytes written through `data()` can be counted in afterwards.
    void length(unsigned int newLength);
    /// The capacity.
    [[nodiscard]] unsigned int size() const noexcept;
    [[nodiscard]] bool empty() const noexcept { return length() == 0; }
    /// The byte at `index`. \throws Exception "Buffer::at", code 4: `index` is not below the length
    [[nodiscard]] unsigned char at(int index) const;

    /// Appends the bytes of `other`, which may be this buffer or borrow its bytes; takes over its mark of `protect()`.
    /// Appending again and again costs time linear in the bytes.
    /// \throws Exception "Buffer::append", code 4: the length would not fit 32 bits
    void append(const Buffer& other);

    /// Marks key material: the bytes are wiped before their memory is released or moved, in every later copy too. Bytes
    /// that are only borrowed are their owner's to wipe.
    void protect();
    [[nodiscard]] bool isProtected() const noexcept;

    /// Decodes this base64 text (RFC 4648 section 4; white space is skipped, padding is required, and the bits that
    /// padding leaves over must be zero) into `decoded`, which may be this buffer. It keeps its capacity, zeroed past
    /// the new length, and is marked with `protect()` when this buffer is. Answers false and leaves `decoded` empty
    /// when the text is not base64.
    bool decodeBase64(Buffer& decoded) const;
    /// The base64 text of the bytes, padded, on one line. It is an ordinary string: nothing wipes it.
    [[nodiscard]] std::string toBase64String() const;

    /// Equal length and bytes; when one of the two is protected, in time that does not depend on the bytes.
    bool operator==(const Buffer& other) const noexcept;

private:
    void own();
    void moveTo(unsigned int capacity);
    void release() noexcept;
    void take(Buffer& other) noexcept;

    unsigned char* m_bytes;
    unsigned int m_length = 0;
    unsigned int m_size = 0;
    bool m_borrowed = false;
    bool m_protected = false;
};

} // namespace Norvane

#endif
