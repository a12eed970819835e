#include "openssl/TimeComparison.h"

#include "openssl/ErrorQueue.h"

#include <openssl/x509.h>

namespace Norvane::Crypto::openssl {

int compareTime(const ASN1_TIME* time, std::time_t moment) {
    const ErrorMark mark;
    if (const int order = X509_cmp_time(time, &moment); order != 0) {
        return order;
    }
    // The installed comparison takes only the form that RFC 5280 demands. The old one also read zone offsets, fractions
    // and times without seconds; without this such a certificate would never expire.
    std::tm fields{};
    if (ASN1_TIME_to_tm(time, &fields) != 1) {
        return 0;
    }
    switch (ASN1_TIME_cmp_time_t(time, moment)) {
    case 1:
        return 1;
    case 0: // the same moment is -1 to X509_cmp_time
    case -1:
        return -1;
    default:
        return moment > 0 ? -1 : 1; // a moment beyond the calendar that times can express
    }
}

} // namespace Norvane::Crypto::openssl
