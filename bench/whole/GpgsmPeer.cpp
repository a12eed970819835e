// gpgsm, a process for each piece of work. Its agent, which holds the key, outlives it: the private operation is not in its
// time.
#include "Contestants.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <memory>

extern char** environ;

namespace bench {

namespace {

constexpr const char* who = "gpgsm process";

void write(const std::string& path, const Bytes& bytes, std::size_t size) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(size));
}

/// Runs it with nothing to read; what it says goes nowhere.
void gpgsm(const Material& material, std::initializer_list<std::string> more) {
    std::vector<std::string> words{"gpgsm", "--homedir", material.folder + "/gnupg", "--batch", "--yes", "--no-tty"};
    words.insert(words.end(), more);
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (const int descriptor : {0, 1, 2}) {
        posix_spawn_file_actions_addopen(&actions, descriptor, "/dev/null", O_RDWR, 0);
    }
    pid_t child = 0;
    const int failed = posix_spawnp(&child, "gpgsm", &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    require(failed == 0, "not started");
    int status = 0;
    waitpid(child, &status, 0);
    require(WIFEXITED(status) && WEXITSTATUS(status) == 0, "it failed");
}

} // namespace

void addGpgsm(Contest& contest, const Material& material) {
    const std::string in = material.folder + "/gpgsm.in";
    const std::string message = material.folder + "/gpgsm.message";
    contest.add("sign", who, [&material, in](std::size_t size) -> Run {
        write(in, body(size), size);
        return [&material, in] {
            gpgsm(material,
                  {"--local-user", "bench@example.org", "--output", "/dev/null", "--sign", "--detach-sign", in});
        };
    });
    contest.add("verify", who, [&material, in, message](std::size_t size) -> Run {
        write(in, body(size), size);
        const Bytes signature = material.signedMessage(size, true);
        write(message, signature, signature.size());
        return [&material, in, message] { gpgsm(material, {"--verify", message, in}); };
    });
    contest.add("envelope", who, [&material, in](std::size_t size) -> Run {
        write(in, body(size), size);
        return [&material, in] {
            gpgsm(material, {"--cipher-algo", "AES256", "--recipient", "bench@example.org", "--output", "/dev/null",
                             "--encrypt", in});
        };
    });
    contest.add("open", who, [&material, message](std::size_t size) -> Run {
        const Bytes secret = material.envelopedMessage(size);
        write(message, secret, secret.size());
        return [&material, message] { gpgsm(material, {"--output", "/dev/null", "--decrypt", message}); };
    });
}

} // namespace bench
