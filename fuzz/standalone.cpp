// Replays inputs through a fuzz target without libFuzzer, with any compiler:
// each file given, and each file in a folder given, in a child process of its
// own (a failing input does not hide the others), from a heap copy of exactly
// its size so that a read past the end is seen under AddressSanitizer.
// The last line is "replay-TARGET: N passed, M failed".
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fs = std::filesystem;

static int replay(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!in.eof() && in.fail())
        return 2;
    const std::unique_ptr<uint8_t[]> copy(new uint8_t[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), copy.get());
    LLVMFuzzerTestOneInput(copy.get(), bytes.size());
    return 0;
}

int main(int argc, char** argv)
{
    std::vector<std::string> inputs;
    for (int i = 1; i < argc; ++i) {
        std::error_code ec;
        if (fs::is_directory(argv[i], ec)) {
            for (const fs::directory_entry& e : fs::directory_iterator(argv[i]))
                if (e.is_regular_file())
                    inputs.push_back(e.path().string());
        } else {
            inputs.push_back(argv[i]);
        }
    }
    std::sort(inputs.begin(), inputs.end());
    int passed = 0, failed = 0;
    for (const std::string& path : inputs) {
        std::fflush(stdout);
        const pid_t child = fork();
        if (child == 0)
            _exit(replay(path));
        int status = 0;
        if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            ++failed;
            std::printf("FAILED %s (%s %d)\n", path.c_str(), WIFSIGNALED(status) ? "signal" : "status",
                        WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
        } else {
            ++passed;
        }
    }
    std::printf("replay-%s: %d passed, %d failed\n", FUZZ_TARGET, passed, failed);
    return failed == 0 && passed > 0 ? 0 : 1;
}
