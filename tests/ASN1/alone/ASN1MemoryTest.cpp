#include "ASN1/Values.h"
#include "support/Interpose.h"

#include <new>

namespace {

bool s_withoutCopies = false;

} // namespace

extern "C" ASN1_STRING* ASN1_STRING_dup(const ASN1_STRING* string) {
    return s_withoutCopies ? nullptr : norvtest::next<&ASN1_STRING_dup>("ASN1_STRING_dup")(string);
}

extern "C" ASN1_OBJECT* OBJ_dup(const ASN1_OBJECT* object) {
    return s_withoutCopies ? nullptr : norvtest::next<&OBJ_dup>("OBJ_dup")(object);
}

namespace {

using namespace asn1testing;

// A copy that came out empty would compare, and print, as a value that was never there.
TEST(ASN1Values, WithoutMemoryNoCopyIsEmpty) {
    const Bytes seven = fromHex("020107");
    const RefInteger number(seven.data(), 3);
    const RefObjectIdentifier unknown(std::string("1.3.6.1.4.1.99999.1"));
    const StringPtr text = string(V_ASN1_UTCTIME, "260101000000Z");
    const GeneralizedTime time(text.get(), false);
    const Integer empty;
    const norvtest::During<bool> failing(s_withoutCopies, true);
    EXPECT_THROW(const Integer copy(*number), std::bad_alloc);
    EXPECT_THROW(const ObjectIdentifier copy(*unknown), std::bad_alloc);
    EXPECT_THROW(const GeneralizedTime copy(time), std::bad_alloc);
    EXPECT_EQ(Integer(empty).object(), nullptr);
    EXPECT_EQ(GeneralizedTime(GeneralizedTime(text.get(), true)).object(), text.get());
}

} // namespace
