#include "recognise/ContentType.h"
#include "openssl/CertificateDetails.h"
#include "openssl/OpenSsl.h"
#include "recognise/DerAndPem.h"

#include <openssl/objects.h>

namespace norvcrypt {

ContentType contentTypeOf(const Norvane::Buffer& start) {
    if (!beginsStructure(start))
        return {};
    const QuietQuestion quiet;
    const unsigned char length = start.data()[1];
    const std::size_t inner = 2 + (length > 0x80 ? length & 0x7FU : 0U);
    const unsigned char* at = start.data() + inner;
    const Owned<ASN1_OBJECT, ASN1_OBJECT_free> type(
        d2i_ASN1_OBJECT(nullptr, &at, static_cast<long>(start.length() - inner)));
    if (!type)
        return {};
    return {objectName(type.get()), OBJ_obj2nid(type.get()) != NID_undef};
}

} // namespace norvcrypt
