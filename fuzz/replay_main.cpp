// Replays fuzz inputs through a target's LLVMFuzzerTestOneInput without
// libFuzzer, so that the ordinary (and sanitizer) builds run the committed
// corpus as a test. Arguments: directories (every file in them, in name
// order) or files. Fails when there is nothing to replay.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv)
{
    namespace fs = std::filesystem;
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        std::error_code ec;
        if (fs::is_directory(argv[i], ec)) {
            for (const auto& entry : fs::directory_iterator(argv[i]))
                if (entry.is_regular_file())
                    inputs.push_back(entry.path());
        } else if (fs::is_regular_file(argv[i], ec)) {
            inputs.push_back(argv[i]);
        }
    }
    std::sort(inputs.begin(), inputs.end());
    for (const fs::path& path : inputs) {
        std::ifstream file(path, std::ios::binary);
        const std::string data{std::istreambuf_iterator<char>(file), {}};
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(data.data()), data.size());
    }
    printf("replayed %zu inputs\n", inputs.size());
    return inputs.empty() ? 1 : 0;
}
