#include "commands/TlsOptions.h"
#include "files/Output.h"
#include "openssl/OpenSsl.h"
#include "openssl/Reasons.h"
#include "show/Description.h"
#include "show/TextAndJson.h"
#include "tls/TrustedFiles.h"

#include <norvcmsg/Escape.h>

#include <memory>

namespace norvcrypt {

namespace NVSSL = Norvane::Crypto::NVSSL;

namespace {

/// The appliance's context reads these.
constexpr const char* keyFile = "/migadmin/etc/cert/server/apps/server.key";
constexpr const char* chainFile = "/migadmin/etc/cert/server/apps/server.crt";
constexpr const char* trustedFile = "/etc/cacert.pem";
constexpr const char* trustedDirectory = "/migadmin/etc/cert/server/ca";
constexpr const char* listDirectory = "/migadmin/etc/cert/server/crl";

/// The server has nobody to ask.
int noPassphrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*data*/) {
    return -1;
}

bool checkKey(SSL_CTX* context, const std::string& path, Problems& problems) {
    if (!checkFile(path, S_IRWXG | S_IRWXO, problems))
        return false;
    if (SSL_CTX_use_PrivateKey_file(context, path.c_str(), SSL_FILETYPE_PEM) == 1)
        return true;
    problems.add(path, "no private key in PEM without a passphrase: " + openSslReasons());
    return false;
}

void checkChain(SSL_CTX* context, const std::string& path, bool keyIsLoaded, Problems& problems) {
    if (!checkFile(path, writeForOthers, problems))
        return;
    if (SSL_CTX_use_certificate_chain_file(context, path.c_str()) != 1) {
        problems.add(path, "no certificate chain in PEM that can be used: " + openSslReasons());
        return;
    }
    if (keyIsLoaded && SSL_CTX_check_private_key(context) != 1) {
        ERR_clear_error();
        problems.add(path, "the private key does not belong to the first certificate");
    }
    X509* below = SSL_CTX_get0_certificate(context);
    checkPeriod(path, below, problems);
    STACK_OF(X509)* chain = nullptr;
    SSL_CTX_get0_chain_certs(context, &chain);
    for (int at = 0; at < sk_X509_num(chain); ++at) {
        X509* const each = sk_X509_value(chain, at);
        checkPeriod(path, each, problems);
        if (X509_check_issued(each, below) != X509_V_OK)
            problems.add(path, "certificate " + std::to_string(at + 2) + " did not issue the one before it");
        below = each;
    }
}

void tell(const Problems& problems, const std::string& root, bool json) {
    TextOutput out;
    if (json) {
        Description facts{{"root", root}, {"problems", Description::array()}};
        for (const Problems::Problem& one : problems.all())
            facts["problems"].push_back({{"file", one.file}, {"reason", one.reason}});
        out.text(asJson(facts));
    } else {
        for (const Problems::Problem& one : problems.all())
            out.line(Norvane::escapeForDisplay(one.file + ": " + one.reason));
        if (problems.all().empty())
            out.line("no problems");
    }
    out.flush();
}

Exit check(const std::string& root, unsigned int days, bool json) {
    Problems problems(days);
    NVSSL::ContextFactory factory;
    factory.init();
    const NVSSL::RefContext context = factory.create(NVSSL::ContextFactory::SSL_V23, false);
    SSL_CTX_set_default_passwd_cb(context, noPassphrase);
    const bool keyIsLoaded = checkKey(context, root + keyFile, problems);
    checkChain(context, root + chainFile, keyIsLoaded, problems);
    std::vector<CertificatePtr> trusted = checkTrustedFile(root + trustedFile, problems);
    checkTrustedDirectory(root + trustedDirectory, problems, trusted);
    checkListDirectory(root + listDirectory, problems, trusted);
    tell(problems, root, json);
    return problems.all().empty() ? Exit::good : Exit::refused;
}

} // namespace

void addTlsCheck(Command& tls, Action& action) {
    struct Options {
        std::string root;
        unsigned int days = 0;
        bool json = false;
    };
    auto options = std::make_shared<Options>();
    Command* command = tls.command(
        "check",
        "Checks the files of the appliance's TLS server: one line for each problem, exit code 1 if there is one");
    command->option("--root", options->root, "Put in front of the fixed paths")->typeName("DIR");
    command->option("--days", options->days, "Report certificates too that expire within so many days")
        ->typeName("N")
        ->range(0U, 36500U);
    command->flag("--json", options->json, "One JSON object (docs/json.md)");
    command->example("norvcrypt tls check --root appliance");
    command->whenChosen(
        [options, &action] { action = [options] { return check(options->root, options->days, options->json); }; });
}

} // namespace norvcrypt
