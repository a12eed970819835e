// What whoever tries the commands for TLS needs: a server's identity, and the files that the appliance's server has.
#include "demo/Demo.h"
#include "openssl/OpenSsl.h"

#include <array>
#include <cstdio>
#include <filesystem>
#include <system_error>

namespace norvcrypt {

namespace {

/// The name under which OpenSSL looks for a certificate or list in a directory. \param infix "" or "r"
std::string hashedName(X509_NAME* name, const char* infix) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%08lx.%s0", X509_NAME_hash(name), infix);
    return text.data();
}

void makeFolders(const std::filesystem::path& folder) {
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    for (std::filesystem::path one = folder; !error && one.filename() != "appliance"; one = one.parent_path())
        std::filesystem::permissions(one, std::filesystem::perms::group_write | std::filesystem::perms::others_write,
                                     std::filesystem::perm_options::remove, error);
    if (error)
        throw Failure("cannot make the directory " + folder.string(), error.value());
}

} // namespace

void Demo::makeServer() {
    const Identity server = norvauthority::issue({.subject = {{"C", "DE"}, {"O", "Demo"}, {"CN", "localhost"}},
                                                  .key = norvauthority::Key::ec(),
                                                  .issuer = &m_authority,
                                                  .serial = "05e1",
                                                  .keyUsage = 0x80,
                                                  .extendedKeyUsage = {"serverAuth"},
                                                  .alternativeNames = {norvauthority::GeneralName::dns("localhost"),
                                                                       norvauthority::GeneralName::ip("127.0.0.1")}});
    const std::string key = server.key.pkcs8Pem();
    const std::string chain = server.certificate.pem() + m_authority.certificate.pem();
    put("server.key", key, OutputFile::Access::owner);
    put("server.pem", chain);
    tell("   " + path("server.pem") + "  a server on this machine, and the authority that knows it");
    command("openssl verify -purpose sslserver -verify_hostname localhost -CAfile " + argument("root.pem") +
            " -untrusted " + argument("ca.pem") + " " + argument("server.pem"));

    const std::string files = "appliance/migadmin/etc/cert/server";
    for (const char* folder : {"/apps", "/ca", "/crl"})
        makeFolders(path(files + folder));
    makeFolders(path("appliance/etc"));
    put(files + "/apps/server.key", key, OutputFile::Access::owner);
    put(files + "/apps/server.crt", chain);
    put("appliance/etc/cacert.pem", m_root.certificate.pem());
    const norvauthority::X509Ptr authority = m_authority.certificate.x509();
    X509_NAME* const name = X509_get_subject_name(authority.get());
    put(files + "/ca/" + hashedName(name, ""), m_authority.certificate.pem());
    put(files + "/crl/" + hashedName(name, "r"), m_list);
    tell("   " + path("appliance") + "  the files of a server, where the appliance has them");
}

} // namespace norvcrypt
