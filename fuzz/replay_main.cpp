// Runs a fuzz target's entry point once on every input it is given: files,
// and the regular files in directories (a corpus), in name order. Linked
// with each target's own source, so every build replays the seeds and the
// failing inputs we keep as a test, not only the builds that can fuzz.
//
//   NAME_fuzz_replay PATH...
//
// A target that finds a fault stops the process, as under the fuzzer.
// Exits 1 when a path cannot be read or nothing was replayed.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

bool replay(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) return false;
    const std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (in.bad()) return false;
    // An empty vector's data() may be null; the fuzzer never passes null.
    static const std::uint8_t none = 0;
    LLVMFuzzerTestOneInput(bytes.empty() ? &none : bytes.data(), bytes.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    std::size_t replayed = 0;
    for (int i = 1; i < argc; ++i) {
        std::error_code error;
        std::vector<fs::path> files;
        if (fs::is_directory(argv[i], error)) {
            for (const auto& entry : fs::directory_iterator(argv[i], error)) {
                if (entry.is_regular_file()) files.push_back(entry.path());
            }
            std::sort(files.begin(), files.end());
        } else {
            files.push_back(argv[i]);
        }
        if (error) {
            std::fprintf(stderr, "%s: %s\n", argv[i], error.message().c_str());
            return 1;
        }
        for (const fs::path& file : files) {
            if (!replay(file)) {
                std::fprintf(stderr, "cannot read %s\n", file.c_str());
                return 1;
            }
            ++replayed;
        }
    }
    std::printf("replayed %zu inputs\n", replayed);
    return replayed == 0 ? 1 : 0;
}
