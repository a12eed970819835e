#pragma once

/// \file
/// A temporary folder with files of identities, and the identities of the tests.

#include <authority/Authority.h>

#include <optional>
#include <string>
#include <vector>

namespace interop {

/// A folder that goes with the object.
class Workspace {
public:
    Workspace();
    ~Workspace();
    Workspace(const Workspace&) = delete;
    Workspace& operator=(const Workspace&) = delete;

    [[nodiscard]] const std::string& directory() const { return m_directory; }
    [[nodiscard]] std::string path(const std::string& name) const { return m_directory + "/" + name; }
    /// Writes a file and tells its path.
    std::string write(const std::string& name, const std::string& content) const;
    std::string write(const std::string& name, const norvauthority::Bytes& content) const;
    [[nodiscard]] std::string read(const std::string& name) const;
    [[nodiscard]] bool exists(const std::string& name) const;
    /// The names of all files, sorted.
    [[nodiscard]] std::vector<std::string> names() const;
    [[nodiscard]] unsigned int mode(const std::string& name) const;

private:
    std::string m_directory;
};

/// Issued once in a process: a root, and people under it with stored keys.
const norvauthority::Identity& root();
const norvauthority::Identity& alice(); ///< RSA, 2048 bits
const norvauthority::Identity& bob();   ///< RSA, 2048 bits
const norvauthority::Identity& carol(); ///< RSA, 2048 bits
const norvauthority::Identity& dora();  ///< DSA
const norvauthority::Identity& erin();  ///< EC P-256

/// A body with line ends of both kinds and bytes above 0x7F.
std::string sampleBody();

/// A file of RFC 4134's examples, or nothing when they do not lie beside the project.
std::optional<std::string> rfc4134(const std::string& name);

/// SHA-256 in lower-case hexadecimal.
std::string sha256(const std::string& content);

} // namespace interop
