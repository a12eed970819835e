#include "Differences.h"

namespace agreement {

namespace {

constexpr const char* pathBuilding =
    "openssl takes the first issuer whose name and key identifier fit and never another one";
constexpr const char* goesOn = "openssl verify ends at its first error of most kinds; every reason is told here";
constexpr const char* anchorsAreBelieved =
    "openssl looks for anchors on revocation lists, too; RFC 5280, 6.1, takes them "
    "as believed";

} // namespace

const std::map<std::string, std::string>& otherVerdicts() {
    static const std::map<std::string, std::string> all{
        {"TwoIssuersOfOneNameTheRightOneLast", pathBuilding},
        {"CrossSignedBesideTheSelfSignedOne", pathBuilding},
        {"LoopWithAWayOut", pathBuilding},
        {"SignsForAnyPurpose", "RFC 8550, 4.4.4: anyExtendedKeyUsage allows mail; openssl wants emailProtection"},
        {"EncryptsWithKeyAgreement",
         "RFC 8550, 4.4.2: keys that agree on a key have keyAgreement; openssl wants keyEncipherment of all keys"},
        {"RootRevokedByItsOwnList", anchorsAreBelieved},
        {"AvailableListStale", "openssl knows no lists that are looked at where they are there"},
        {"IndirectListWhoseSignerExpired",
         "the program, not the library, goes on after a signer of lists that has expired, and forgets that it did"},
    };
    return all;
}

const std::map<std::string, std::string>& otherReasons() {
    static const std::map<std::string, std::string> all{
        {"ValidNowAndNotYetAtThatMoment", goesOn},
        {"PersonAndAuthorityRevoked", goesOn},
        {"NoListAtAll", goesOn},
        {"ListOfTheRootStale", anchorsAreBelieved},
        {"IndirectListWhoseSignerIsMissing",
         "openssl says that there is no list; there is one, and its signer is missing"},
        {"PoliciesThatDoubleAtEachLevel", "openssl refuses without an error, and says that memory ran out"},
    };
    return all;
}

} // namespace agreement
