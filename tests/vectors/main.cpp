// Reads tasks from standard input, a line of JSON each, and answers each with a line. What the library throws is an answer:
// {"failed": text}. scripts/foreign-vectors writes the tasks and judges the answers.

#include "Tasks.h"

#include <norvcmsg/Exception.h>
#include <norvcmsg/Logger.h>
#include <norvcrypto/Crypto.h>
#include <norvcrypto/Key.h>

#include <openssl/evp.h>

#include <fstream>
#include <iostream>
#include <iterator>
#include <map>

namespace vectors {

Bytes contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw BadTask("cannot read " + path);
    }
    return {std::istreambuf_iterator<char>(file), {}};
}

Bytes octetsOf(const Json& task, const char* member) {
    const std::string digits = task.value(member, "");
    if (digits.size() % 2 != 0) {
        throw BadTask(std::string("half an octet in ") + member);
    }
    Bytes octets;
    for (std::size_t at = 0; at < digits.size(); at += 2) {
        octets.push_back(static_cast<unsigned char>(std::stoi(digits.substr(at, 2), nullptr, 16)));
    }
    return octets;
}

std::string hexOf(const Bytes& octets) {
    std::string digits;
    for (const unsigned char octet : octets) {
        digits += "0123456789abcdef"[octet >> 4U];
        digits += "0123456789abcdef"[octet & 0xFU];
    }
    return digits;
}

std::string sha256Of(const Bytes& octets) {
    Bytes value(32);
    EVP_Digest(octets.data(), octets.size(), value.data(), nullptr, EVP_sha256(), nullptr);
    return hexOf(value);
}

} // namespace vectors

namespace {

using namespace vectors;

const std::map<std::string, Json (*)(const Json&)> tasks = {
    {"certificates", certificates},
    {"revocationList", revocationList},
    {"privateKey", privateKey},
    {"publicKey", publicKey},
    {"pkcs12", pkcs12},
    {"signedData", signedData},
    {"envelopedData", envelopedData},
    {"mail", mail},
    {"digest", digest},
    {"signature", signature},
    {"signing", signing},
    {"messageSignature", messageSignature},
    {"blockCipher", blockCipher},
    {"authenticatedCipher", authenticatedCipher},
    {"keyTransport", keyTransport},
};

Json answerTo(const std::string& line) {
    const Json task = Json::parse(line);
    const auto found = tasks.find(task.at("do"));
    if (found == tasks.end()) {
        throw BadTask("no such task: " + line);
    }
    try {
        return found->second(task);
    } catch (const Norvane::Crypto::TooCostlyException& refused) {
        return {{"failed", refused.asString()}, {"tooCostly", true}};
    } catch (const Norvane::Exception& failure) {
        return {{"failed", failure.asString()}};
    }
}

} // namespace

int main() {
    Norvane::Crypto::initialize();
    std::string line;
    while (std::getline(std::cin, line)) {
        try {
            std::cout << answerTo(line).dump(-1, ' ', true, Json::error_handler_t::replace) << std::endl;
        } catch (const BadTask& mistake) {
            std::cerr << mistake.what() << '\n';
            return 2;
        }
    }
    Norvane::Crypto::cleanup();
    return 0;
}
