// Runs the fuzz target over saved inputs without libFuzzer, so that any
// compiler can build it and the saved inputs run as an ordinary test. Each
// argument is an input file or a folder of them; hidden files are skipped.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

namespace fs = std::filesystem;

bool hidden(const fs::path& path) { return path.filename().string().rfind('.', 0) == 0; }

void collect(const fs::path& path, std::vector<fs::path>& inputs) {
    if (!fs::is_directory(path)) {
        inputs.push_back(path);
        return;
    }
    for (const auto& entry : fs::recursive_directory_iterator(path)) {
        if (entry.is_regular_file() && !hidden(entry.path())) inputs.push_back(entry.path());
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        if (!fs::exists(argv[i])) {
            std::fprintf(stderr, "no such input: %s\n", argv[i]);
            return 2;
        }
        collect(argv[i], inputs);
    }
    for (const fs::path& path : inputs) {
        std::ifstream in(path, std::ios::binary);
        const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                      std::istreambuf_iterator<char>());
        std::printf("replaying %s (%zu bytes)\n", path.c_str(), bytes.size());
        std::fflush(stdout);
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("%zu inputs replayed\n", inputs.size());
    return 0;
}
