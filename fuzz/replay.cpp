// Runs a fuzz target once over each file named, and over each file in a directory named.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

namespace fs = std::filesystem;

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::vector<fs::path> filesOf(const fs::path& path)
{
    if (!fs::is_directory(path))
        return {path};
    std::vector<fs::path> files;
    for (const fs::directory_entry& entry : fs::directory_iterator(path))
        files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

bool replay(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "cannot be read: %s\n", path.c_str());
        return false;
    }
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    // So that a sanitizer sees every byte read beyond the end.
    const std::unique_ptr<std::uint8_t[]> exact(new std::uint8_t[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), exact.get());
    std::fprintf(stderr, "%s\n", path.c_str()); // the last one told is the one that failed
    LLVMFuzzerTestOneInput(exact.get(), bytes.size());
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    int replayed = 0;
    for (int i = 1; i < argc; ++i) {
        for (const fs::path& file : filesOf(argv[i])) {
            if (!replay(file))
                return 1;
            ++replayed;
        }
    }
    std::fprintf(stderr, "%d inputs\n", replayed);
    return replayed > 0 ? 0 : 1;
}
