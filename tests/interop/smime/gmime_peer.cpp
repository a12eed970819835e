// GMime's own S/MIME, by its context for PKCS#7, which has gpgsm do the work: a mail on standard input, what came out on
// standard output. Exit code 1 and the reason on standard error when GMime, or gpgsm behind it, does not do it.
#include <gmime/gmime.h>

#include <iostream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

struct Unreferencing {
    void operator()(void* object) const noexcept {
        if (object != nullptr)
            g_object_unref(object);
    }
};
template <class Object> using Owned = std::unique_ptr<Object, Unreferencing>;

class Failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// What a function of GMime's says about its failure.
class Said {
public:
    Said() = default;
    Said(const Said&) = delete;
    Said& operator=(const Said&) = delete;
    ~Said() { g_clear_error(&m_error); }
    GError** place() { return &m_error; }
    [[noreturn]] void fail(const std::string& what) const {
        throw Failure(what + ": " + (m_error != nullptr ? m_error->message : "no reason given"));
    }

private:
    GError* m_error = nullptr;
};

Owned<GMimeParser> parser() {
    const std::string mail{std::istreambuf_iterator<char>(std::cin), {}};
    const Owned<GMimeStream> in(g_mime_stream_mem_new_with_buffer(mail.data(), mail.size()));
    return Owned<GMimeParser>(g_mime_parser_new_with_stream(in.get()));
}

Owned<GMimeObject> part() {
    Owned<GMimeObject> read(g_mime_parser_construct_part(parser().get(), nullptr));
    if (!read)
        throw Failure("no MIME part");
    return read;
}

void write(GMimeObject* object) {
    const Owned<GMimeStream> out(g_mime_stream_mem_new());
    if (g_mime_object_write_to_stream(object, nullptr, out.get()) < 0)
        throw Failure("cannot write");
    const GByteArray* octets = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(out.get()));
    std::cout.write(reinterpret_cast<const char*>(octets->data), octets->len);
}

void sign(const std::string& who) {
    const Owned<GMimeObject> entity = part();
    const Owned<GMimeCryptoContext> context(g_mime_pkcs7_context_new());
    Said said;
    const Owned<GMimeMultipartSigned> made(
        g_mime_multipart_signed_sign(context.get(), entity.get(), who.c_str(), said.place()));
    if (!made)
        said.fail("signing");
    write(GMIME_OBJECT(made.get()));
}

void signOpaque(const std::string& who) {
    const Owned<GMimeObject> entity = part();
    Said said;
    const Owned<GMimeApplicationPkcs7Mime> made(
        g_mime_application_pkcs7_mime_sign(entity.get(), who.c_str(), said.place()));
    if (!made)
        said.fail("signing");
    write(GMIME_OBJECT(made.get()));
}

std::string textOf(GMimeSignatureStatus status) {
    std::string text;
    const auto add = [&](GMimeSignatureStatus bit, const char* name) {
        if ((status & bit) != 0)
            text += std::string(text.empty() ? "" : " ") + name;
    };
    add(GMIME_SIGNATURE_STATUS_VALID, "VALID");
    add(GMIME_SIGNATURE_STATUS_GREEN, "GREEN");
    add(GMIME_SIGNATURE_STATUS_RED, "RED");
    add(GMIME_SIGNATURE_STATUS_KEY_MISSING, "KEY_MISSING");
    add(GMIME_SIGNATURE_STATUS_SYS_ERROR, "SYS_ERROR");
    return text.empty() ? "status 0" : text;
}

void judge(GMimeSignatureList* signatures, const Said& said) {
    if (signatures == nullptr)
        said.fail("verifying");
    const int count = g_mime_signature_list_length(signatures);
    if (count == 0)
        throw Failure("no signature found");
    for (int at = 0; at < count; ++at) {
        const GMimeSignatureStatus status =
            g_mime_signature_get_status(g_mime_signature_list_get_signature(signatures, at));
        if ((status & GMIME_SIGNATURE_STATUS_GREEN) == 0)
            throw Failure("signature status " + textOf(status));
    }
}

void verify() {
    const Owned<GMimeObject> entity = part();
    Said said;
    if (GMIME_IS_MULTIPART_SIGNED(entity.get())) {
        const Owned<GMimeSignatureList> signatures(
            g_mime_multipart_signed_verify(GMIME_MULTIPART_SIGNED(entity.get()), GMIME_VERIFY_NONE, said.place()));
        judge(signatures.get(), said);
        write(g_mime_multipart_get_part(GMIME_MULTIPART(entity.get()), GMIME_MULTIPART_SIGNED_CONTENT));
        return;
    }
    if (!GMIME_IS_APPLICATION_PKCS7_MIME(entity.get()))
        throw Failure("GMime sees no signed message");
    GMimeObject* content = nullptr;
    const Owned<GMimeSignatureList> signatures(g_mime_application_pkcs7_mime_verify(
        GMIME_APPLICATION_PKCS7_MIME(entity.get()), GMIME_VERIFY_NONE, &content, said.place()));
    const Owned<GMimeObject> owned(content);
    judge(signatures.get(), said);
    if (!owned)
        throw Failure("no content");
    write(owned.get());
}

void encrypt(const std::string& whom) {
    const Owned<GMimeObject> entity = part();
    const std::unique_ptr<GPtrArray, decltype(&g_ptr_array_unref)> recipients(g_ptr_array_new(), g_ptr_array_unref);
    std::string address = whom;
    g_ptr_array_add(recipients.get(), address.data());
    Said said;
    const Owned<GMimeApplicationPkcs7Mime> made(g_mime_application_pkcs7_mime_encrypt(
        entity.get(), GMIME_ENCRYPT_ALWAYS_TRUST, recipients.get(), said.place()));
    if (!made)
        said.fail("encrypting");
    write(GMIME_OBJECT(made.get()));
}

void decrypt() {
    const Owned<GMimeObject> entity = part();
    if (!GMIME_IS_APPLICATION_PKCS7_MIME(entity.get()))
        throw Failure("GMime sees no encrypted message");
    Said said;
    GMimeDecryptResult* result = nullptr;
    const Owned<GMimeObject> content(g_mime_application_pkcs7_mime_decrypt(
        GMIME_APPLICATION_PKCS7_MIME(entity.get()), GMIME_DECRYPT_NONE, nullptr, &result, said.place()));
    const Owned<GMimeDecryptResult> owned(result);
    if (!content)
        said.fail("decrypting");
    write(content.get());
}

void act(const std::string& command, const std::string& who) {
    if (command == "sign")
        sign(who);
    else if (command == "sign-opaque")
        signOpaque(who);
    else if (command == "verify")
        verify();
    else if (command == "encrypt")
        encrypt(who);
    else if (command == "decrypt")
        decrypt();
    else if (command == "version")
        std::cout << gmime_major_version << '.' << gmime_minor_version << '.' << gmime_micro_version << '\n';
    else
        throw Failure("sign, sign-opaque, verify, encrypt, decrypt or version?");
}

} // namespace

int main(int argc, char* argv[]) {
    if (argc < 2)
        return 2;
    g_mime_init();
    try {
        act(argv[1], argc > 2 ? argv[2] : "");
    } catch (const Failure& failure) {
        std::cerr << failure.what() << '\n';
        return 1;
    }
    g_mime_shutdown();
    return 0;
}
