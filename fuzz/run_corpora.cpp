// The fuzz targets without libFuzzer, all of them in one program: run_corpora FOLDER runs each over the files of the folder in
// FOLDER that is named after it. A finding aborts, and the file that led to it is the last that was named.
#include "Targets.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

namespace {

std::vector<std::filesystem::path> filesIn(const std::filesystem::path& folder) {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "run_corpora FOLDER\n";
        return 2;
    }
    for (const fuzz::Target& target : fuzz::targets()) {
        const std::filesystem::path folder = std::filesystem::path(argv[1]) / target.name;
        if (!std::filesystem::is_directory(folder)) {
            std::cerr << "there is no corpus of " << target.name << '\n';
            return EXIT_FAILURE;
        }
        std::size_t count = 0;
        for (const std::filesystem::path& path : filesIn(folder)) {
            std::cout << path.filename().string() << '\r' << std::flush;
            std::ifstream file(path, std::ios::binary);
            const std::vector<char> content(std::istreambuf_iterator<char>(file), {});
            // A copy of just that length: what is read behind it is seen.
            const std::vector<std::uint8_t> octets(content.begin(), content.end());
            target.run(octets.data(), octets.size());
            ++count;
        }
        std::cout << target.name << ": " << count << " inputs\n";
        if (count == 0) {
            return EXIT_FAILURE;
        }
    }
    return EXIT_SUCCESS;
}
