// The functions of GMime and GLib that libnorvcrypto-smime calls.

#include "loading/Library.h"

// Its headers are C of its own style.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
#include <gmime/gmime.h>
#pragma GCC diagnostic pop

namespace {
constexpr norvcrypt::Library gmime("libgmime-3.0.so.0"); // GLib's functions are found through it
} // namespace

extern "C" {

NORV_LOADED(gmime, void, g_mime_init, (void), ())

NORV_LOADED(gmime, void, g_free, (gpointer memory), (memory))
NORV_LOADED(gmime, void, g_object_unref, (gpointer object), (object))
NORV_LOADED(gmime, GTypeInstance*, g_type_check_instance_cast, (GTypeInstance * instance, GType type), (instance, type))
NORV_LOADED(gmime, gboolean, g_type_check_instance_is_a, (GTypeInstance * instance, GType type), (instance, type))
NORV_LOADED(gmime, gboolean, g_utf8_validate, (const gchar* text, gssize length, const gchar** end),
            (text, length, end))
NORV_LOADED(gmime, gchar*, g_utf8_make_valid, (const gchar* text, gssize length), (text, length))
NORV_LOADED(gmime, gchar*, g_convert_with_fallback,
            (const gchar* text, gssize length, const gchar* to, const gchar* from, const gchar* fallback,
             gsize* bytesRead, gsize* bytesWritten, GError** failure),
            (text, length, to, from, fallback, bytesRead, bytesWritten, failure))

NORV_LOADED(gmime, GMimeParserOptions*, g_mime_parser_options_new, (void), ())
NORV_LOADED(gmime, void, g_mime_parser_options_free, (GMimeParserOptions * options), (options))
NORV_LOADED(gmime, void, g_mime_parser_options_set_parameter_compliance_mode,
            (GMimeParserOptions * options, GMimeRfcComplianceMode mode), (options, mode))
NORV_LOADED(gmime, void, g_mime_parser_options_set_address_compliance_mode,
            (GMimeParserOptions * options, GMimeRfcComplianceMode mode), (options, mode))

NORV_LOADED(gmime, GMimeContentType*, g_mime_content_type_parse, (GMimeParserOptions * options, const char* text),
            (options, text))
NORV_LOADED(gmime, const char*, g_mime_content_type_get_media_type, (GMimeContentType * type), (type))
NORV_LOADED(gmime, const char*, g_mime_content_type_get_media_subtype, (GMimeContentType * type), (type))
NORV_LOADED(gmime, GMimeParamList*, g_mime_content_type_get_parameters, (GMimeContentType * type), (type))
NORV_LOADED(gmime, void, g_mime_content_type_set_parameter,
            (GMimeContentType * type, const char* name, const char* value), (type, name, value))
NORV_LOADED(gmime, char*, g_mime_content_type_encode, (GMimeContentType * type, GMimeFormatOptions* options),
            (type, options))
NORV_LOADED(gmime, GMimeContentDisposition*, g_mime_content_disposition_parse,
            (GMimeParserOptions * options, const char* text), (options, text))
NORV_LOADED(gmime, GMimeParamList*, g_mime_content_disposition_get_parameters, (GMimeContentDisposition * disposition),
            (disposition))
NORV_LOADED(gmime, int, g_mime_param_list_length, (GMimeParamList * list), (list))
NORV_LOADED(gmime, GMimeParam*, g_mime_param_list_get_parameter_at, (GMimeParamList * list, int index), (list, index))
NORV_LOADED(gmime, const char*, g_mime_param_get_name, (GMimeParam * parameter), (parameter))
NORV_LOADED(gmime, const char*, g_mime_param_get_value, (GMimeParam * parameter), (parameter))

NORV_LOADED(gmime, InternetAddressList*, internet_address_list_parse, (GMimeParserOptions * options, const char* text),
            (options, text))
NORV_LOADED(gmime, int, internet_address_list_length, (InternetAddressList * list), (list))
NORV_LOADED(gmime, InternetAddress*, internet_address_list_get_address, (InternetAddressList * list, int index),
            (list, index))
NORV_LOADED(gmime, GType, internet_address_group_get_type, (void), ())
NORV_LOADED(gmime, InternetAddressList*, internet_address_group_get_members, (InternetAddressGroup * group), (group))
NORV_LOADED(gmime, GType, internet_address_mailbox_get_type, (void), ())
NORV_LOADED(gmime, const char*, internet_address_mailbox_get_addr, (InternetAddressMailbox * mailbox), (mailbox))

NORV_LOADED(gmime, GMimeHeaderList*, g_mime_header_list_new, (GMimeParserOptions * options), (options))
NORV_LOADED(gmime, void, g_mime_header_list_append,
            (GMimeHeaderList * list, const char* name, const char* value, const char* charset),
            (list, name, value, charset))
NORV_LOADED(gmime, char*, g_mime_header_list_to_string, (GMimeHeaderList * list, GMimeFormatOptions* options),
            (list, options))
NORV_LOADED(gmime, char*, g_mime_utils_header_decode_text, (GMimeParserOptions * options, const char* text),
            (options, text))
NORV_LOADED(gmime, char*, g_mime_utils_header_encode_text,
            (GMimeFormatOptions * options, const char* text, const char* charset), (options, text, charset))

NORV_LOADED(gmime, GMimeContentEncoding, g_mime_content_encoding_from_string, (const char* text), (text))
NORV_LOADED(gmime, void, g_mime_encoding_init_encode, (GMimeEncoding * state, GMimeContentEncoding encoding),
            (state, encoding))
NORV_LOADED(gmime, void, g_mime_encoding_init_decode, (GMimeEncoding * state, GMimeContentEncoding encoding),
            (state, encoding))
NORV_LOADED(gmime, size_t, g_mime_encoding_outlen, (GMimeEncoding * state, size_t length), (state, length))
NORV_LOADED(gmime, size_t, g_mime_encoding_step, (GMimeEncoding * state, const char* in, size_t length, char* out),
            (state, in, length, out))
NORV_LOADED(gmime, size_t, g_mime_encoding_flush, (GMimeEncoding * state, const char* in, size_t length, char* out),
            (state, in, length, out))

} // extern "C"
