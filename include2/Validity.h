#ifndef NORVCRYPTO_VALIDITY_H
#define NORVCRYPTO_VALIDITY_H

/// \file
/// The time in which a certificate is meant to be used (RFC 5280, 4.1.2.5).
///
/// \code
/// const auto& period = certificate->validityPeriod();
/// if (!period.valid(0)) {                                          // 0: now; why not is in the log
///     report(period.notBefore()->asTime(), period.notAfter()->asTime());
/// }
/// \endcode

#include <norvcrypto/ASN1.h>
#include <norvcrypto/Export.h>

struct X509_val_st;

namespace Norvane::Crypto::NVX509 {

/// A validity period. It borrows the times: what they came from, usually a certificate, must outlive the period and its
/// copies. Threads: `valid` only reads; the other accessors fill a cache on first use without a lock.
class NORVCRYPTO_EXPORT ValidityPeriod {
public:
    /// \param period borrowed; null makes a period that no moment lies in
    explicit ValidityPeriod(const X509_val_st* period);
    ValidityPeriod(const ValidityPeriod& other) = default;
    ValidityPeriod& operator=(const ValidityPeriod& other) = default;
    virtual ~ValidityPeriod();

    /// The first moment of the period, in UTC; an empty handle when there is no period. A UTCTime is given in the form
    /// with a four-digit year. A time that does not parse is a handle on an empty value. A time with a zone offset, which
    /// RFC 5280 forbids, may keep it: its fields are given as they stand (see `ASN1::GeneralizedTime`).
    [[nodiscard]] const ASN1::RefGeneralizedTime& notBefore() const;
    /// The end of the period, as `notBefore`.
    [[nodiscard]] const ASN1::RefGeneralizedTime& notAfter() const;

    /// Whether a moment lies inside the period. Never throws.
    ///
    /// A moment outside is logged under event 0x4000000, level 0, with the fields 7 and "Certificate Validity period
    /// check. Time is before validity period.", or 6 and "Certificate Validity period check. Time is after validity
    /// period.".
    ///
    /// Deliberate: the moment of `notAfter` itself counts as after the period (that of `notBefore` as inside), and a
    /// bound that cannot be read as a time does not bound the period. Times with zone offsets, without seconds or with
    /// fractions, which RFC 5280 forbids, are read and do bound it.
    ///
    /// \param when seconds since 1970-01-01 00:00 UTC; 0 stands for the present moment
    [[nodiscard]] bool valid(long when) const;

private:
    const X509_val_st* m_period;
    mutable ASN1::RefGeneralizedTime m_notBefore;
    mutable ASN1::RefGeneralizedTime m_notAfter;
};

} // namespace Norvane::Crypto::NVX509

#endif
