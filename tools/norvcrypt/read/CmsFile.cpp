#include "read/CmsFile.h"
#include "base/Failure.h"
#include "recognise/CmsInText.h"
#include "recognise/DerAndPem.h"

#include <algorithm>
#include <cctype>

namespace norvcrypt {

namespace {

/// What is told about one of several structures would pass for a word on all of them.
void refuseMore(const Norvane::Buffer& rest, const std::string& path) {
    const unsigned char* const start = rest.data();
    const auto isPadding = [](unsigned char byte) { return byte == 0 || std::isspace(byte) != 0; };
    if (!std::all_of(start, start + rest.length(), isPadding))
        throw Failure("bytes follow the CMS structure in " + inputName(path));
}

} // namespace

void readStructure(Inputs& inputs, const std::string& path, const std::string& what,
                   const std::function<void(Norvane::MediaIn&)>& decode, Progress* progress) {
    try {
        Norvane::MediaIn source = inputs.open(path, progress);
        Norvane::Buffer start;
        Norvane::MediaIn in = Inputs::lookAhead(source, longestStart, start);
        if (beginsStructure(start)) {
            decode(in);
            refuseMore(Inputs::readAll(in, path), path);
        } else {
            Norvane::MemoryMediaIn der(structureInText(Inputs::readAll(in, path), inputName(path)));
            decode(der);
        }
    } catch (const Norvane::Exception& failure) {
        throw Failure("cannot read " + what + " in " + inputName(path), failure);
    }
}

} // namespace norvcrypt
