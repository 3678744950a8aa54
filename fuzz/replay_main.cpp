// The plain build's stand-in for libFuzzer: runs a fuzz target once on each
// input it is given, so that regression inputs and the seed corpus are
// tests of the release and sanitizer builds.
//
//   vt-replay-<target> PATH...   each file named, and every file in each
//                                folder named (sorted by name)
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool replay(const std::filesystem::path& file)
{
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", file.c_str());
        return false;
    }
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // A crash from here on names the input that caused it.
    std::fprintf(stderr, "replaying %s (%zu bytes)\n", file.c_str(), bytes.size());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    size_t replayed = 0;
    bool sound = true;
    for (int i = 1; i < argc; ++i) {
        std::filesystem::path path = argv[i];
        std::error_code error;
        if (std::filesystem::is_directory(path, error)) {
            std::vector<std::filesystem::path> files;
            for (const auto& entry : std::filesystem::directory_iterator(path))
                if (entry.is_regular_file())
                    files.push_back(entry.path());
            std::sort(files.begin(), files.end());
            for (const auto& file : files)
                replayed += replay(file) ? 1 : (sound = false, 0);
        } else {
            replayed += replay(path) ? 1 : (sound = false, 0);
        }
    }
    std::printf("replayed %zu inputs\n", replayed);
    // No input at all means a folder went missing, not a pass.
    return sound && replayed > 0 ? 0 : 1;
}
