#include "failures/Raise.h"
#include "openssl/Bios.h"

#include <norvcrypto/BIO.h>

#include <openssl/bio.h>

#include <climits>
#include <utility>

namespace Norvane::Crypto {

namespace {

constexpr const char* prefix = "MemoryBIO:  "; // the file BIO's failure carries it too

/// The bytes that a BIO over `data` reads; none when there are too many, so that nothing is copied only to be refused.
Buffer readable(const Buffer& data) {
    return data.length() > static_cast<unsigned int>(INT_MAX) ? Buffer() : data;
}

} // namespace

MemoryBIO::MemoryBIO() : m_cache(nullptr, 0, true), m_bio(BIO_new(BIO_s_mem())) {
    if (!m_bio) {
        failures::raise(failures::memoryBio);
    }
}

MemoryBIO::MemoryBIO(const Buffer& data)
    : m_cache(readable(data)),
      m_bio(openssl::memorySource(std::as_const(m_cache).data(), data.length()).release()) {
    if (!m_bio) {
        failures::raiseWithErrors(failures::memoryBio, prefix);
    }
}

MemoryBIO::~MemoryBIO() = default;

MemoryBIO::operator bio_st*() noexcept {
    return m_bio.get();
}

MemoryBIO::operator Buffer() {
    if (m_cache.length() != 0) {
        return m_cache;
    }
    const auto pending = static_cast<unsigned int>(BIO_ctrl(m_bio.get(), BIO_CTRL_PENDING, 0, nullptr));
    if (pending == 0) {
        return m_cache;
    }
    char* bytes = nullptr;
    BIO_ctrl(m_bio.get(), BIO_CTRL_INFO, 0, static_cast<void*>(&bytes));
    m_cache = Buffer(bytes, pending, true); // assigning makes the cache own its bytes, and keeps its mark
    return m_cache;
}

MemoryBIO::operator Buffer() const {
    return m_cache;
}

void MemoryBIO::protect() {
    m_cache.protect();
}

FileBIO::FileBIO(const File::Path& path, const std::string& mode) {
    const std::string& text = path.asString();
    if (path.empty() || text.empty()) {
        return;
    }
    m_bio.reset(openssl::fileBio(text, mode).release());
    if (!m_bio) {
        failures::raiseWithErrors(failures::fileBio, prefix);
    }
}

FileBIO::~FileBIO() = default;

FileBIO::operator bio_st*() noexcept {
    return m_bio.get();
}

} // namespace Norvane::Crypto
