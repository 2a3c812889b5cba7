// Runs a fuzz target's entry point once over each input it is given: files,
// and every regular file of the directories (not recursive). Used by ctest
// with the target's corpus, so every input that ever crashed a target keeps
// being replayed by the normal build, whatever the compiler.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) __attribute__((weak));

namespace {

bool replayFile(const std::filesystem::path& path)
{
    std::ifstream stream(path, std::ios::binary);
    if (!stream) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return false;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    // A copy of exactly the input's size, so that a read past its end shows
    // under a sanitizer as it would in the fuzzer.
    std::vector<uint8_t> input(bytes.begin(), bytes.end());
    const uint8_t* data = input.empty() ? nullptr : input.data();
    LLVMFuzzerTestOneInput(data, input.size());
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    if (LLVMFuzzerInitialize)
        LLVMFuzzerInitialize(&argc, &argv);
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s corpus-directory-or-file...\n", argv[0]);
        return 2;
    }
    int inputs = 0;
    bool ok = true;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path path(argv[i]);
        std::error_code error;
        if (std::filesystem::is_directory(path, error)) {
            std::vector<std::filesystem::path> files;
            for (const auto& entry : std::filesystem::directory_iterator(path))
                if (entry.is_regular_file())
                    files.push_back(entry.path());
            std::sort(files.begin(), files.end());
            for (const auto& file : files) {
                ok = replayFile(file) && ok;
                ++inputs;
            }
        } else {
            ok = replayFile(path) && ok;
            ++inputs;
        }
    }
    std::printf("%d inputs replayed\n", inputs);
    if (inputs == 0) {
        std::fprintf(stderr, "no inputs: the corpus is missing or empty\n");
        return 1;
    }
    return ok ? 0 : 1;
}
