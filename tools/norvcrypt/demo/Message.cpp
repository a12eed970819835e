#include "demo/Message.h"

#include <openssl/evp.h>

#include <array>
#include <cstddef>
#include <random>
#include <string>

namespace norvcrypt {

namespace {

constexpr std::string_view boundary = "=_norvcrypt_demo_0c8f21";
constexpr std::size_t octetsInLine = 57; // 76 characters of base64

/// A line of base64 over bytes that no compressor and no reader could guess, yet the same in every run.
std::string base64Line(std::mt19937& random) {
    std::array<unsigned char, octetsInLine> octets{};
    for (unsigned char& octet : octets)
        octet = static_cast<unsigned char>(random() & 0xFFU);
    std::array<unsigned char, octetsInLine / 3 * 4 + 1> text{};
    const int length = EVP_EncodeBlock(text.data(), octets.data(), static_cast<int>(octets.size()));
    return {reinterpret_cast<const char*>(text.data()), static_cast<std::size_t>(length)};
}

std::string partHeader(const std::string& headers) {
    return "\r\n--" + std::string(boundary) + "\r\n" + headers + "\r\n";
}

void writeAttachment(const std::function<void(std::string_view)>& write, const std::string& name, std::size_t lines,
                     std::mt19937& random) {
    write(partHeader("Content-Type: application/octet-stream; name=\"" + name +
                     "\"\r\nContent-Transfer-Encoding: base64\r\nContent-Disposition: attachment; filename=\"" + name +
                     "\"\r\n"));
    for (std::size_t line = 0; line < lines; ++line)
        write(base64Line(random) + "\r\n");
}

} // namespace

void generateMessage(const std::function<void(std::string_view)>& write) {
    std::mt19937 random(20260101); // NOLINT(cert-msc51-cpp): a message that differs each time could not be compared
    write("From: Alice Example <alice@example.org>\r\n"
          "To: Bob Example <bob@example.org>\r\n"
          "Subject: =?UTF-8?Q?Quarterly_figures_=E2=80=93_signed?=\r\n"
          "Date: Thu, 01 Jan 2026 09:00:00 +0000\r\n"
          "Message-ID: <demo-1@example.org>\r\n"
          "MIME-Version: 1.0\r\n"
          "Content-Type: multipart/mixed; boundary=\"");
    write(boundary);
    write("\"\r\n\r\nThis message has several parts.\r\n");
    write(partHeader("Content-Type: text/plain; charset=UTF-8\r\nContent-Transfer-Encoding: 8bit\r\n"));
    write("Dear Bob,\r\n\r\nattached are the figures for Zürich, København and Łódź.\r\n\r\nAlice\r\n");
    writeAttachment(write, "figures.bin", 30000, random);
    writeAttachment(write, "plan.bin", 20000, random);
    writeAttachment(write, "photo.bin", 25000, random);
    write(partHeader("Content-Type: text/html; charset=UTF-8\r\nContent-Transfer-Encoding: 8bit\r\n"));
    write("<p>Attached are the figures for Zürich, København and Łódź.</p>\r\n");
    write("\r\n--");
    write(boundary);
    write("--\r\n");
}

} // namespace norvcrypt
