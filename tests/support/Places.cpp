#include "support/Places.h"

#include <fstream>
#include <iterator>

namespace norvtest {

const char* const sourceDirectory = NORV_SOURCE_DIR;
const char* const programDirectory = NORV_PROGRAM_DIR "/";
const char* const norvcryptProgram = NORV_PROGRAM_DIR "/norvcrypt";

std::filesystem::path samplePath(const std::string& name) {
    return std::filesystem::path(sourceDirectory).parent_path() / "shared" / "samples" / name;
}

std::string storedKeyPem(const std::string& name) {
    std::ifstream file(std::string(sourceDirectory) + "/tests/data/keys/" + name + ".pem");
    return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace norvtest
