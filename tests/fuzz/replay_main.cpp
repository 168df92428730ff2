// Runs a fuzz target once over every file in the directories (or the files)
// named on the command line, without libFuzzer: how the tests replay the
// checked-in corpora on every build, the armhf one under qemu-arm included.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

int main(int argc, char **argv)
{
    namespace fs = std::filesystem;
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        if (!fs::is_directory(argv[i]))
            inputs.emplace_back(argv[i]);
        else
            for (const auto &entry : fs::recursive_directory_iterator(argv[i]))
                if (entry.is_regular_file())
                    inputs.push_back(entry.path());
    }
    std::sort(inputs.begin(), inputs.end());
    for (const auto &path : inputs) {
        (void)std::fprintf(stderr, "%s\n", path.c_str()); // an input that crashes names itself
        std::ifstream in(path, std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
        const std::uint8_t none = 0;
        LLVMFuzzerTestOneInput(bytes.empty() ? &none
                                             : reinterpret_cast<const std::uint8_t *>(bytes.data()),
                               bytes.size());
    }
    std::printf("%zu inputs\n", inputs.size());
    return inputs.empty() ? 1 : 0; // a corpus that went missing is a failure
}
