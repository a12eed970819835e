#include "GmimeParts.h"

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
#include <gmime/gmime.h>
#pragma GCC diagnostic pop

#include <memory>
#include <stdexcept>

namespace smimetest {

namespace {

struct Freeing {
    void operator()(void* object) const { g_object_unref(object); }
};
template <class T> using Owned = std::unique_ptr<T, Freeing>;

std::string textOf(const char* text) {
    return text == nullptr ? "" : text;
}

std::string contentOf(GMimePart* part) {
    GMimeDataWrapper* const wrapper = g_mime_part_get_content(part);
    const Owned<GMimeStream> stream(g_mime_stream_mem_new());
    if (wrapper != nullptr) {
        g_mime_data_wrapper_write_to_stream(wrapper, stream.get());
    }
    GByteArray* const bytes = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(stream.get()));
    return {reinterpret_cast<const char*>(bytes->data), bytes->len};
}

std::string withLineFeeds(std::string text) {
    for (std::size_t at = text.find("\r\n"); at != std::string::npos; at = text.find("\r\n", at)) {
        text.erase(at, 1);
    }
    return text;
}

void collect(GMimeObject* object, std::vector<GmimePart>& parts) {
    if (object == nullptr) {
        return;
    }
    if (GMIME_IS_MULTIPART(object)) {
        for (int at = 0; at < g_mime_multipart_get_count(GMIME_MULTIPART(object)); ++at) {
            collect(g_mime_multipart_get_part(GMIME_MULTIPART(object), at), parts);
        }
    } else if (GMIME_IS_MESSAGE_PART(object)) {
        GMimeMessage* const inner = g_mime_message_part_get_message(GMIME_MESSAGE_PART(object));
        collect(inner == nullptr ? nullptr : g_mime_message_get_mime_part(inner), parts);
    } else if (GMIME_IS_PART(object)) {
        GMimePart* const part = GMIME_PART(object);
        GMimeContentType* const type = g_mime_object_get_content_type(object);
        char* const name = g_mime_content_type_get_mime_type(type);
        std::string content = contentOf(part);
        if (g_mime_content_type_is_type(type, "text", "*") != 0) {
            content = withLineFeeds(std::move(content));
        }
        parts.push_back({textOf(name), content, textOf(g_mime_part_get_filename(part)),
                         textOf(g_mime_part_get_content_description(part))});
        g_free(name);
    }
}

Owned<GMimeMessage> parsed(const std::string& mail) {
    g_mime_init();
    const Owned<GMimeStream> stream(g_mime_stream_mem_new_with_buffer(mail.data(), mail.size()));
    const Owned<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
    Owned<GMimeMessage> message(g_mime_parser_construct_message(parser.get(), nullptr));
    if (!message) {
        throw std::runtime_error("GMime reads no message");
    }
    return message;
}

std::string reasonOf(GError* error) {
    std::string text = error == nullptr ? "no reason" : textOf(error->message);
    g_clear_error(&error);
    return text;
}

} // namespace

GmimeMail readByGmime(const std::string& mail) {
    const Owned<GMimeMessage> message = parsed(mail);
    GmimeMail result;
    collect(g_mime_message_get_mime_part(message.get()), result.parts);
    result.subject = textOf(g_mime_message_get_subject(message.get()));
    char* const from = internet_address_list_to_string(g_mime_message_get_from(message.get()), nullptr, FALSE);
    result.from = textOf(from);
    g_free(from);
    return result;
}

std::string verdictOfGmime(const std::string& mail) {
    const Owned<GMimeMessage> message = parsed(mail);
    GMimeObject* const part = g_mime_message_get_mime_part(message.get());
    GError* error = nullptr;
    GMimeObject* content = nullptr;
    const Owned<GMimeSignatureList> list(
        GMIME_IS_MULTIPART_SIGNED(part)
            ? g_mime_multipart_signed_verify(GMIME_MULTIPART_SIGNED(part), GMIME_VERIFY_NONE, &error)
            : g_mime_application_pkcs7_mime_verify(GMIME_APPLICATION_PKCS7_MIME(part), GMIME_VERIFY_NONE, &content,
                                                   &error));
    const Owned<GMimeObject> freed(content);
    if (!list) {
        return reasonOf(error);
    }
    std::string verdict;
    for (int at = 0; at < g_mime_signature_list_length(list.get()); ++at) {
        const int status = g_mime_signature_get_status(g_mime_signature_list_get_signature(list.get(), at));
        verdict += (verdict.empty() ? "" : ", ");
        verdict += (status & GMIME_SIGNATURE_STATUS_VALID) != 0 ? "valid" : "status " + std::to_string(status);
    }
    return verdict;
}

std::string decryptedByGmime(const std::string& mail) {
    const Owned<GMimeMessage> message = parsed(mail);
    GMimeObject* const part = g_mime_message_get_mime_part(message.get());
    if (!GMIME_IS_APPLICATION_PKCS7_MIME(part)) {
        return "no application/pkcs7-mime";
    }
    GError* error = nullptr;
    const Owned<GMimeObject> content(g_mime_application_pkcs7_mime_decrypt(
        GMIME_APPLICATION_PKCS7_MIME(part), GMIME_DECRYPT_NONE, nullptr, nullptr, &error));
    if (!content) {
        return reasonOf(error);
    }
    char* const text = g_mime_object_to_string(content.get(), nullptr);
    std::string result = textOf(text);
    g_free(text);
    return result;
}

} // namespace smimetest
