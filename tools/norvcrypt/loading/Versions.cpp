#include "loading/Versions.h"

#include <openssl/crypto.h>

#include <dlfcn.h>

namespace norvcrypt {

namespace {

/// What a library of C answers when it is asked for its version with a null pointer.
std::string answered(const std::string& name, const char* file, const char* function) {
    void* const library = dlopen(file, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr)
        return name + " is not installed";
    const auto ask = reinterpret_cast<const char* (*)(const char*)>(dlsym(library, function));
    const char* const version = ask == nullptr ? nullptr : ask(nullptr);
    // cppcheck-suppress resourceLeak ; it stays
    return name + " " + (version == nullptr ? "of an unknown version" : version);
}

/// GMime has its version in three variables.
std::string gmimeVersion() {
    void* const library = dlopen("libgmime-3.0.so.0", RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr)
        return "GMime is not installed";
    std::string text = "GMime";
    for (const char* const part : {"gmime_major_version", "gmime_minor_version", "gmime_micro_version"}) {
        const auto* const number = static_cast<const unsigned int*>(dlsym(library, part));
        text += (text == "GMime" ? " " : ".") + (number == nullptr ? std::string("?") : std::to_string(*number));
    }
    return text;
}

} // namespace

std::vector<std::string> libraryVersions() {
    return {std::string("OpenSSL ") + OpenSSL_version(OPENSSL_VERSION_STRING), gmimeVersion(),
            answered("libidn2", "libidn2.so.0", "idn2_check_version"),
            answered("libgcrypt", "libgcrypt.so.20", "gcry_check_version")};
}

} // namespace norvcrypt
