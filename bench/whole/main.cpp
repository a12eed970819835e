// The whole library beside the bare primitives and other libraries and programs: see Contest.h, and scripts/bench.
#include "Contestants.h"

#include <norvcrypto/Crypto.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <set>
#include <string>
#include <string_view>

namespace {

constexpr std::size_t kilobyte = 1U << 10U;
constexpr std::size_t megabyte = 1U << 20U;

} // namespace

int main(int argc, char** argv) try {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s FOLDER [--quick] [--counts|--messages] [--who=WHO]... [--at=X] [FILTER]\n",
                     argv[0]);
        return 2;
    }
    bool quick = false;
    bool counts = false;
    bool messages = false;
    const char* filter = "";
    std::set<std::string> who;
    std::size_t at = 0;
    for (int i = 2; i != argc; ++i) {
        const std::string_view word = argv[i];
        quick = quick || word == "--quick";
        counts = counts || word == "--counts";
        messages = messages || word == "--messages";
        if (word.starts_with("--who=")) {
            who.emplace(word.substr(6));
        } else if (word.starts_with("--at=")) {
            at = std::strtoull(argv[i] + 5, nullptr, 10);
        } else if (!word.starts_with("--")) {
            filter = argv[i];
        } else if (word != "--quick" && word != "--counts" && word != "--messages") {
            std::fprintf(stderr, "unknown argument: %s\n", argv[i]);
            return 2;
        }
    }
    Norvane::Crypto::initialize();
    bench::Contest contest;
    const bench::Material material(argv[1]);
    if (counts) {
        const std::vector<std::size_t> points =
            quick ? std::vector<std::size_t>{1, 10} : std::vector<std::size_t>{1, 3, 10, 30, 100, 300};
        for (const char* task : {"envelope for recipients", "open as last of recipients", "sign with certificates",
                                 "sign by signers", "verify among certificates", "verify signers"}) {
            contest.over(task, points);
        }
        contest.over("read list of entries", quick ? std::vector<std::size_t>{10, 1000}
                                                   : std::vector<std::size_t>{10, 100, 1000, 10000, 100000});
    } else if (messages) {
        const std::vector<std::size_t> sizes = quick ? std::vector<std::size_t>{4 * kilobyte, megabyte}
                                                     : std::vector<std::size_t>{4 * kilobyte, megabyte, 64 * megabyte};
        for (const char* task :
             {"sign a message", "sign a message opaquely", "encrypt a message", "sign and encrypt a message",
              "verify a message", "verify an opaque message", "decrypt a message", "decrypt and verify a message"}) {
            contest.over(task, sizes);
        }
    } else {
        const std::vector<std::size_t> sizes =
            quick ? std::vector<std::size_t>{kilobyte, megabyte}
                  : std::vector<std::size_t>{kilobyte, 64 * kilobyte, megabyte, 64 * megabyte};
        for (const char* task : {"digest", "encrypt", "decrypt", "sign", "verify", "envelope", "envelope authenticated",
                                 "open", "open BER", "open authenticated", "sign attached", "verify attached"}) {
            contest.over(task, sizes);
        }
    }
    bench::addPrimitives(contest, material);
    bench::addOurs(contest, material);
    bench::addStreams(contest, material);
    bench::addMessages(contest, material);
    bench::addOpensslStructures(contest, material);
#ifdef NORV_BENCH_BOTAN
    bench::addBotan(contest, material);
#endif
#ifdef NORV_BENCH_NSS
    bench::addNss(contest, material);
#endif
#ifdef NORV_BENCH_QCA
    bench::addQca(contest, material);
#endif
    bench::addGpgsm(contest, material);
    contest.only(who, at);
    // One point is for profiles: as many rounds as fit.
    if (!contest.run(filter, at != 0 ? 1000000 : quick ? 3 : 11, quick ? 2.0 : 12.0)) {
        std::fprintf(stderr, "nothing was measured: no task is called so, or nobody does it there\n");
        return 2;
    }
    return 0;
} catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
}
