// What the command-line tool shows of a stranger's octets: as elements, and as the objects that are in them.
#include "Driver.h"

#include "base/Failure.h"
#include "recognise/DerAndPem.h"
#include "show/Asn1Tree.h"
#include "show/Description.h"
#include "show/ShellQuoting.h"
#include "show/TextAndJson.h"

#include <norvcmsg/Escape.h>

#include <nlohmann/json.hpp>

#include <algorithm>

using namespace Norvane;
using namespace norvcrypt;

namespace {

void showObjects(const Buffer& input) {
    for (const FoundObject& object : objectsIn(input)) {
        Description described;
        try {
            described = describe(object, EntryRange());
        } catch (const Failure& failure) {
            fuzz::require(*failure.what() != '\0');
            continue;
        } catch (const Exception& failure) {
            static_cast<void>(failure.asString());
            continue;
        }
        const fuzz::Uncounted aside; // of what is shown, what is looked at is not what it costs
        const std::string text = asText("object", described);
        fuzz::require(std::all_of(text.begin(), text.end(), [](char byte) {
            return byte == '\n' || (static_cast<unsigned char>(byte) >= 0x20 && byte != 0x7F);
        }));
        const std::string json = asJson(described);
        fuzz::require(std::all_of(json.begin(), json.end(),
                                  [](char byte) { return byte == '\n' || (byte >= 0x20 && byte < 0x7F); }));
        fuzz::require(nlohmann::ordered_json::accept(json));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto show = [](const Buffer& input) {
        std::size_t lines = 0;
        showTree(input, [&lines](const std::string& line) {
            const fuzz::Uncounted aside; // a line at the bottom of a deep tree is mostly indentation
            ++lines;
            fuzz::require(isDisplayable(line));
        });
        fuzz::require(lines <= 20'100);
        const std::string argument = quoted(fuzz::text(input).substr(0, 1000));
        fuzz::require(!argument.empty() && isDisplayable(argument));
        showObjects(input);
    };
    // Objects of four octets are tried as each kind of object.
    return fuzz::run(data, size, show,
                     {.constant = fuzz::longNumbers, .perOctet = 100'000, .comparisonsPerOctet = 6'000});
}
