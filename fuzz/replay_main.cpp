// Runs a fuzz target once over given files and over every file of given folders, in name order, so
// that the normal build replays each corpus as a regression test. A fuzzing build links libFuzzer's
// own main instead of this one.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        const fs::path arg(argv[i]);
        const auto first = inputs.size();
        if (fs::is_directory(arg)) {
            for (const auto& entry : fs::directory_iterator(arg)) {
                if (entry.is_regular_file()) {
                    inputs.push_back(entry.path());
                }
            }
        } else if (fs::is_regular_file(arg)) {
            inputs.push_back(arg);
        } else {
            std::cerr << "No such file or folder: " << arg.string() << '\n';
            return 1;
        }
        std::sort(inputs.begin() + first, inputs.end());
    }
    // A corpus that has gone missing would otherwise pass without testing anything.
    if (inputs.empty()) {
        std::cerr << "Usage: " << argv[0] << " FILE_OR_FOLDER...  (no input found)\n";
        return 1;
    }
    for (const auto& path : inputs) {
        std::ifstream in(path, std::ios::binary);
        const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::cout << "Running " << path.filename().string() << " (" << bytes.size() << " bytes)" << std::endl;
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    std::cout << "Replayed " << inputs.size() << " inputs." << std::endl;
    return 0;
}
