#include <norvcmsg/Media.h>

#include "MediaFailure.h"
#include "Wiped.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace Norvane {

template class RefCounted<MediaInImpl>;
template class Ref<MediaInImpl>;
template class RefCounted<MediaOutImpl>;
template class Ref<MediaOutImpl>;

namespace {

constexpr unsigned int chunkSize = 16384;
constexpr unsigned int largestCount = std::numeric_limits<int>::max();

/// Throws when `total` bytes were read, as many as an int counts, and more are left.
void requireCountable(const MediaInImpl& source, unsigned int total) {
    if (total == largestCount && !source.atEnd()) {
        detail::throwMedia("MediaInImpl::read", "Media", "more than 2147483647 bytes");
    }
}

using Chunk = detail::Wiped<chunkSize>;

} // namespace

MediaInImpl::MediaInImpl() = default;

MediaInImpl::~MediaInImpl() = default;

bool MediaInImpl::readline(Buffer& line) {
    constexpr unsigned int most = 256;
    detail::Wiped<most> piece;
    unsigned int held = 0;
    line.length(0);
    while (read(piece.data() + held, 1) > 0) {
        const bool ended = piece.data()[held] == '\n';
        ++held;
        if (ended || held == most) {
            line.append(Buffer(piece.data(), held, true));
            held = 0;
        }
        if (ended) {
            return true;
        }
    }
    line.append(Buffer(piece.data(), held, true));
    return !line.empty();
}

int MediaInImpl::read(Buffer& out, unsigned int length) {
    const auto limit = length == 0 ? largestCount : std::min(length, largestCount);
    const auto before = out.length();
    unsigned int total = 0;
    out.length(0);
    while (total < limit) {
        if (total == out.size()) {
            if (total != 0 && atEnd()) {
                break;
            }
            // Twice as much each time, so that the bytes that arrive decide about memory, not the announced length.
            out.length(std::min(limit, std::max(total, chunkSize / 2) * 2));
            out.length(total);
        }
        const auto count = read(out.data() + total, std::min(limit, out.size()) - total);
        if (count <= 0) {
            break;
        }
        total += static_cast<unsigned int>(count);
        out.length(total);
    }
    if (length == 0) {
        requireCountable(*this, total);
    }
    if (before > total) {
        std::memset(out.data() + total, 0, before - total);
    }
    return static_cast<int>(total);
}

int MediaInImpl::read(Buffer& out) {
    return read(out, out.size());
}

int MediaInImpl::read(std::string& out) {
    Chunk chunk;
    out.clear();
    int count = 0;
    while ((count = read(chunk.data(), chunkSize)) > 0) {
        if (out.size() > largestCount - static_cast<unsigned int>(count)) {
            detail::throwMedia("MediaInImpl::read", "Media", "more than 2147483647 bytes");
        }
        out.append(reinterpret_cast<const char*>(chunk.data()), static_cast<std::size_t>(count));
    }
    return static_cast<int>(out.size());
}

unsigned long MediaInImpl::tell() const {
    detail::throwMedia("MediaInImpl::tell", "Media", "this stream keeps no position");
}

void MediaInImpl::setpos(unsigned long /*position*/) {
    detail::throwMedia("MediaInImpl::setpos", "Media", "this stream keeps no position");
}

MediaOut& MediaInImpl::write(MediaOut& out) {
    Chunk chunk;
    int count = 0;
    while ((count = read(chunk.data(), chunkSize)) > 0) {
        out.write(chunk.data(), static_cast<unsigned int>(count));
    }
    return out;
}

MediaOutImpl::MediaOutImpl() = default;

MediaOutImpl::~MediaOutImpl() = default;

void MediaOutImpl::write(const Buffer& data) {
    write(data.data(), data.length());
}

void MediaOutImpl::end() {}

void MediaOutImpl::characterSet(const std::string& /*name*/) {}

unsigned long MediaOutImpl::tell() const {
    detail::throwMedia("MediaOutImpl::tell", "Media", "this stream keeps no position");
}

void MediaOutImpl::setpos(unsigned long /*position*/) {
    detail::throwMedia("MediaOutImpl::setpos", "Media", "this stream keeps no position");
}

MediaIn::MediaIn() = default;

MediaIn::MediaIn(RefCounted<MediaInImpl>* reference) : Ref<MediaInImpl>(reference) {}

MediaIn::MediaIn(const MediaIn& other) = default;

MediaIn& MediaIn::operator=(const MediaIn& other) = default;

MediaIn::~MediaIn() = default;

bool MediaIn::atEnd() const {
    return (*this)->atEnd();
}

int MediaIn::peek() const {
    return (*this)->peek();
}

bool MediaIn::readline(Buffer& line) {
    return (*this)->readline(line);
}

int MediaIn::read(Buffer& out, unsigned int length) {
    return (*this)->read(out, length);
}

int MediaIn::read(Buffer& out) {
    return (*this)->read(out);
}

int MediaIn::read(std::string& out) {
    return (*this)->read(out);
}

int MediaIn::read(unsigned char* out, unsigned int length) {
    return (*this)->read(out, length);
}

unsigned long MediaIn::tell() const {
    return (*this)->tell();
}

void MediaIn::setpos(unsigned long position) {
    (*this)->setpos(position);
}

MediaOut& MediaIn::write(MediaOut& out) {
    return (*this)->write(out);
}

MediaOut::MediaOut() = default;

MediaOut::MediaOut(RefCounted<MediaOutImpl>* reference) : Ref<MediaOutImpl>(reference) {}

MediaOut::MediaOut(const MediaOut& other) = default;

MediaOut& MediaOut::operator=(const MediaOut& other) = default;

MediaOut::~MediaOut() = default;

void MediaOut::write(const Buffer& data) {
    (*this)->write(data);
}

void MediaOut::write(const unsigned char* data, unsigned int length) {
    (*this)->write(data, length);
}

void MediaOut::end() {
    (*this)->end();
}

void MediaOut::characterSet(const std::string& name) {
    (*this)->characterSet(name);
}

unsigned long MediaOut::tell() const {
    return (*this)->tell();
}

void MediaOut::setpos(unsigned long position) {
    (*this)->setpos(position);
}

} // namespace Norvane
