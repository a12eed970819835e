#include "Differences.h"

namespace agreement {

namespace {

constexpr const char* pathBuilding =
    "openssl takes the first issuer whose name and key identifier fit and never another one";
constexpr const char* goesOn = "openssl verify ends at its first error of most kinds; every reason is told here";
constexpr const char* pathToTheSigner =
    "openssl says, too, that the path to the signer of the list does not hold; here it is said why";
constexpr const char* anchorsAreBelieved =
    "openssl wants a list that is up to date for anchors, too; RFC 5280, 6.1, takes them "
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
        {"Utf8MailboxExcludedInAnotherSpelling",
         "RFC 9598, 3: domains are A-labels; openssl knows RFC 8398, which has U-labels, and compares spellings"},
        {"AvailableListStale", "openssl knows no lists that are looked at where they are there"},
        {"OlderListBesideAStaleOneThatRevokes",
         "openssl takes the older list, and a message could hide with one what was revoked since"},
        {"TwoDeltaListsTheNewerOneLast", "openssl takes the first delta list that goes with the complete one, which "
                                         "says nothing of what was revoked since"},
        {"TwoListsOfOneSecondTheLaterOneLast", "openssl takes the first of them, whatever their numbers"},
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
        {"PersonAndAuthoritySignedWithSha1", goesOn},
        {"AuthoritySignedWithMd5OfAMissingRoot", goesOn},
        {"IndirectListWhoseSignerHasRsa1024", pathToTheSigner},
        {"IndirectListWhoseSignerWasSignedWithSha1", pathToTheSigner},
        {"ListOfTheRootStale", anchorsAreBelieved},
        {"AuthorityMayNotSignCertificates",
         "openssl says, too, that this authority is none; its basic constraints say that it is one"},
        {"IndirectListThatTheCertificateDoesNotName",
         "openssl says that the list is for others; lists of whom the certificate does not name are not looked at"},
        {"PoliciesThatDoubleAtEachLevel", "openssl refuses without an error, and says that memory ran out"},
    };
    return all;
}

const std::map<std::string, std::vector<Finding>>& fromMessages() {
    const std::vector<Finding> missing{{Code::listMissing, 0}};
    static const std::map<std::string, std::vector<Finding>> all{
        // Signed by somebody of the message, who is nobody's issuer.
        {"ListsSignedWithAnotherKeyOfTheAuthority", missing},
        {"ListSignedWithTheNewKeyOfTheAuthority", missing},
        {"IndirectList", missing},
        {"IndirectListRevokes", missing},
        {"IndirectListRevokesANamesakeOfAnotherIssuer", missing},
        {"IndirectListRevokesANamesakeOfItsOwn", missing},
        {"IndirectListRevokesInTheRowOfAnIssuer", missing},
        {"IndirectListWhoseSignerExpired", missing},
        {"IndirectListWhoseSignerIsMissing", missing},
        {"IndirectListWhoseSignerHasRsa1024", missing},
        {"IndirectListWhoseSignerWasSignedWithSha1", missing},
        // Forged.
        {"ListForged", missing},
        {"ListForgedThatRevokes", missing},
        {"DeltaListForged", {}},
    };
    return all;
}

} // namespace agreement
