#pragma once

/// \file
/// Folders and files of the store, opened with suspicion: what is looked at is what was opened, nothing blocks, and no
/// link is followed.

#include <norvcmsg/Buffer.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Norvane::Crypto::NVX509::keystore {

/// Why something of the store is not used; the text is for people.
class Refusal : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The process lacks what every file needs: a load that goes on would lose identities that nothing is wrong with.
class Exhausted : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// An owned file descriptor.
class Descriptor {
public:
    explicit Descriptor(int number) noexcept : m_number(number) {}
    Descriptor(Descriptor&& other) noexcept : m_number(std::exchange(other.m_number, -1)) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    Descriptor& operator=(Descriptor&&) = delete;
    ~Descriptor();

    [[nodiscard]] int get() const noexcept { return m_number; }

private:
    int m_number;
};

/// The directory of the store, which may be reached through a link. \throws Refusal, Exhausted
Descriptor openStore(const std::string& path);

/// The names in an open folder that do not begin with a dot, in the order of their bytes. \throws Refusal, Exhausted
std::vector<std::string> namesIn(const Descriptor& folder);

/// A folder in an open one. \throws Refusal, Exhausted
Descriptor openFolder(const Descriptor& parent, const std::string& name);

enum class Content : int { open, secret };

/// All of a file in an open folder, in a buffer that is wiped when the content is secret; nothing when there is no such
/// file. \throws Refusal, Exhausted
std::optional<Buffer> readFile(const Descriptor& folder, const char* name, Content content);

} // namespace Norvane::Crypto::NVX509::keystore
