// Writes the dictionary of each fuzz target, in libFuzzer's form: make_dictionary FOLDER.
#include "Dictionary.h"

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>
#include <string>
#include <vector>

namespace {

using Words = std::vector<std::string>;

Words texts(const std::vector<fuzz::Bytes>& all) {
    Words words;
    for (const fuzz::Bytes& one : all) {
        words.emplace_back(one.begin(), one.end());
    }
    return words;
}

std::string escaped(const std::string& word) {
    static constexpr std::array<char, 17> digits{"0123456789ABCDEF"};
    std::string out;
    for (const char c : word) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte > ' ' && byte <= '~' && c != '"' && c != '\\') {
            out += c;
        } else {
            out += {'\\', 'x', digits[byte >> 4U], digits[byte & 0xFU]};
        }
    }
    return out;
}

bool write(const std::filesystem::path& path, const std::vector<Words>& parts) {
    std::ofstream out(path);
    std::set<std::string> written;
    for (const Words& words : parts) {
        for (const std::string& word : words) {
            // Longer ones are put in by mutators that know elements.
            if (!word.empty() && word.size() <= 64 && written.insert(word).second) {
                out << '"' << escaped(word) << "\"\n";
            }
        }
    }
    return static_cast<bool>(out.flush());
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "make_dictionary FOLDER\n";
        return 2;
    }
    const std::filesystem::path folder = argv[1];
    const Words elements = texts(fuzz::elements());
    const Words headers = texts(fuzz::headers());
    const Words& mail = fuzz::mailWords();
    const Words& pem = fuzz::pemWords();
    const Words& text = fuzz::textWords();
    std::filesystem::create_directories(folder);
    bool good = true;
    for (const char* target :
         {"certificate", "cms",  "crl",           "crosspair", "decrypt",    "envelope_reader", "files",
          "framing",     "key",  "material",      "outline",   "pkcs12",     "points",          "reader",
          "refusal",     "show", "signed_reader", "trust",     "unattended", "verify",          "extension"}) {
        good = write(folder / (std::string("fuzz_") + target + ".dict"), {elements, headers, pem}) && good;
    }
    good = write(folder / "fuzz_display.dict", {elements, text}) && good;
    for (const char* target : {"name", "text", "address", "owners"}) {
        good = write(folder / (std::string("fuzz_") + target + ".dict"), {text}) && good;
    }
    for (const char* target : {"explain", "smime", "smime_writer"}) {
        good = write(folder / (std::string("fuzz_") + target + ".dict"), {mail}) && good;
    }
    good = write(folder / "fuzz_milter.dict", {fuzz::milterWords(), mail}) && good;
    good = write(folder / "fuzz_config.dict", {fuzz::configWords()}) && good;
    for (const char* target : {"tls", "tls_client"}) {
        good = write(folder / (std::string("fuzz_") + target + ".dict"), {fuzz::tlsWords()}) && good;
    }
    return good ? EXIT_SUCCESS : EXIT_FAILURE;
}
