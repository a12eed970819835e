// norvcrypt p12: takes a private key and its certificate out of a PKCS#12 file.
#include "commands/Command.h"
#include "commands/Force.h"
#include "files/Input.h"
#include "files/Output.h"
#include "read/Pkcs12File.h"
#include "show/Description.h"
#include "show/TextAndJson.h"
#include "write/PrivateKeyFile.h"

#include <norvcmsg/Escape.h>
#include <norvcmsg/Media.h>

#include <filesystem>
#include <memory>
#include <string>

namespace norvcrypt {

namespace {

struct Pkcs12Options {
    std::string file;
    std::string passphraseFile;
    std::string directory;
    bool force = false;
    bool json = false;
};

/// A folder that is made when it is missing, and goes again when nothing came to lie in it.
class TargetFolder {
public:
    explicit TargetFolder(const std::string& path) : m_path(path) {
        std::error_code error;
        m_made = std::filesystem::create_directory(m_path, error);
        if (error)
            throw Failure("cannot make the directory " + m_path, error.value());
    }
    ~TargetFolder() {
        std::error_code ignored;
        if (m_made)
            std::filesystem::remove(m_path, ignored); // refused for a folder with something in it
    }
    TargetFolder(const TargetFolder&) = delete;
    TargetFolder& operator=(const TargetFolder&) = delete;

    [[nodiscard]] std::string path(const std::string& name) const {
        return (std::filesystem::path(m_path) / name).string();
    }

private:
    std::string m_path;
    bool m_made = false;
};

/// Both files are complete before the first gets its name.
void writeFiles(const Pkcs12Content& content, const std::string& keyPath, const std::string& certificatePath,
                Inputs& inputs, OutputFile::Existing existing) {
    OutputFile key(keyPath, inputs, OutputFile::Access::owner, existing);
    writePrivateKey(content.key, std::nullopt, key);
    if (!content.certificate.isNull()) {
        OutputFile certificate(certificatePath, inputs, OutputFile::Access::everyone, existing);
        OutputStream stream(certificate);
        content.certificate->writePEM(stream);
        certificate.settle();
        key.settle();
        certificate.commit();
    }
    key.commit();
}

Exit importPkcs12(const Pkcs12Options& options) {
    Inputs inputs;
    const Passphrase passphrase(inputs, options.passphraseFile);
    const auto content = readPkcs12(inputs, options.file, passphrase);
    const std::string name = inputName(options.file);
    if (!content) {
        reportError("wrong passphrase for " + name + passphrase.oddity());
        return Exit::refused;
    }
    if (content->key.isNull()) {
        reportError("no private key in " + name + ", and so no certificate that belongs to one: nothing is written");
        return Exit::refused;
    }
    const TargetFolder folder(options.directory);
    const std::string keyPath = folder.path("key.pem");
    const std::string certificatePath = folder.path("cert.pem");
    writeFiles(*content, keyPath, certificatePath, inputs, existingOf(options.force));
    const bool hasCertificate = !content->certificate.isNull();
    TextOutput out;
    const auto tell = [&out](const std::string& text) { out.line(Norvane::escapeForDisplay(text)); };
    if (options.json) {
        Description facts{{"file", options.file}, {"key", keyPath}};
        if (hasCertificate)
            facts["certificate"] = certificatePath;
        out.text(asJson(facts));
    } else {
        tell("key: " + keyPath);
        tell(hasCertificate
                 ? "certificate: " + certificatePath
                 : "no certificate in " + name + " belongs to the key: " + certificatePath + " is not written");
    }
    out.flush();
    return Exit::good;
}

} // namespace

void addPkcs12(Command& commands, Action& action) {
    auto options = std::make_shared<Pkcs12Options>();
    Command* command =
        commands.command("p12", "Takes a private key and its certificate out of a PKCS#12 file: DIR/key.pem, in "
                                "clear and readable by its owner alone, and DIR/cert.pem");
    command->note("Further certificates in the file, such as a chain to its authority, are not written. "
                  "Exit code 1: the passphrase is wrong, or the file holds no private key.");
    command->option("FILE", options->file, "The PKCS#12 file (.p12, .pfx); \"-\" is standard input")->required();
    command->option("--passphrase-file", options->passphraseFile, "Its passphrase is this file's first line")
        ->typeName("FILE")
        ->required();
    command->option("--out-dir", options->directory, "Where to write; made when it is missing")
        ->typeName("DIR")
        ->required();
    addForce(*command, options->force);
    command->flag("--json", options->json, "Tell what was written in JSON (docs/json.md)");
    command->example("norvcrypt p12 carol.p12 --passphrase-file secret --out-dir from-carol");
    command->whenChosen([options, &action] { action = [options] { return importPkcs12(*options); }; });
}

} // namespace norvcrypt
