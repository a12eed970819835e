#include "commands/Command.h"
#include "files/Input.h"
#include "files/Output.h"
#include "openssl/OpenSsl.h"
#include "recognise/CipherNames.h"

#include <norvcrypto/Encryption.h>

#include <openssl/crypto.h>

#include <memory>
#include <string>

namespace norvcrypt {

using Norvane::Buffer;
using Norvane::Crypto::DecrypterMediaOut;
using Norvane::Crypto::EncrypterMediaOut;

namespace {

struct CipherOptions {
    std::string direction;
    std::string cipher;
    std::string keyHex;
    std::string ivHex;
    std::string in = "-";
    std::string out = "-";
};

/// The bytes that hexadecimal digits spell, as many as the cipher takes. Messages do not repeat what may be a secret.
Buffer bytesOf(const std::string& hex, const char* option, unsigned int needed, const NamedCipher& cipher) {
    Buffer bytes(static_cast<int>(needed), 0);
    bytes.protect();
    std::size_t count = 0;
    const QuietQuestion quiet;
    if (OPENSSL_hexstr2buf_ex(bytes.data(), needed, &count, hex.c_str(), '\0') != 1 || count != needed)
        throw Failure(std::string(option) + " takes " + std::to_string(2 * std::size_t{needed}) +
                      " hexadecimal digits for " + cipher.name);
    bytes.length(needed);
    return bytes;
}

/// The input through a stream that writes into the output.
template <class Stream>
void transform(Stream stream, OutputFile& out, const std::string& path, Inputs& inputs, const char* what) {
    Progress progress(what);
    Norvane::MediaIn in = inputs.open(path, &progress);
    stream.attach(OutputStream(out));
    in.write(stream);
    stream.end();
}

Exit cipher(const CipherOptions& options) {
    const NamedCipher& cipher = cipherNamed(options.cipher);
    const Buffer key = bytesOf(options.keyHex, "--key-hex", cipher.keyLength, cipher);
    const Buffer iv = bytesOf(options.ivHex, "--iv-hex", cipher.ivLength, cipher);
    Inputs inputs;
    const bool encrypts = options.direction == "encrypt";
    OutputFile out(options.out, inputs, encrypts ? OutputFile::Access::everyone : OutputFile::Access::owner);
    if (encrypts) {
        transform(EncrypterMediaOut(cipher.cipher, key, iv), out, options.in, inputs, "encrypting");
    } else {
        DecrypterMediaOut decrypter(cipher.cipher, key, iv);
        try {
            transform(decrypter, out, options.in, inputs, "decrypting");
        } catch (const Norvane::Exception& failure) {
            if (failure.where().find("initialize") != std::string::npos)
                throw; // the cipher is not there
            reportError("cannot decrypt " + inputName(options.in) + ": the key is wrong or the bytes are damaged" +
                        (tellsAll() ? ": " + failure.asString() : ""));
            return Exit::refused;
        }
    }
    out.commit();
    return Exit::good;
}

} // namespace

void addCipher(Command& commands, Action& action) {
    auto options = std::make_shared<CipherOptions>();
    Command* command = commands.command("cipher", "Encrypts or decrypts bytes under a key, without any structure");
    command->option("DIRECTION", options->direction, "encrypt or decrypt")->required()->among({"encrypt", "decrypt"});
    command->option("--cipher", options->cipher, "The cipher: " + cipherNames())->typeName("NAME")->required();
    command->option("--key-hex", options->keyHex, "The key; other users of the machine can see it while this runs")
        ->typeName("HEX")
        ->required();
    command->option("--iv-hex", options->ivHex, "The initialisation vector")->typeName("HEX")->required();
    command->option("--in", options->in, "What to encrypt or decrypt; \"-\" is standard input")
        ->typeName("FILE")
        ->showDefault();
    command
        ->option("--out", options->out,
                 "The result, in clear readable by its owner alone; \"-\" is standard output, which gets clear text "
                 "before its end was checked")
        ->typeName("FILE")
        ->showDefault();
    command->example("norvcrypt cipher encrypt --cipher aes-128-cbc --key-hex 000102030405060708090a0b0c0d0e0f "
                     "--iv-hex 0f0e0d0c0b0a09080706050403020100 --in letter.eml --out letter.aes");
    command->whenChosen([options, &action] { action = [options] { return cipher(*options); }; });
}

} // namespace norvcrypt
