#include "target.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

// Stands in for libFuzzer where only known inputs are tried: each file of the directory that is the only argument.
// The exit code is 0 if there was at least one and none was a finding.

int main(int argc, char *argv[])
{
    if (argc != 2)
        return 2;
    int count = 0;
    for (const auto &entry : std::filesystem::directory_iterator(argv[1])) {
        std::ifstream file(entry.path(), std::ios::binary);
        std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
        bytes.shrink_to_fit(); // so that the sanitizer sees a look behind their end
        std::fprintf(stderr, "%s\n", entry.path().filename().c_str());
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(bytes.data()), bytes.size());
        ++count;
    }
    std::printf("%d inputs\n", count);
    return count > 0 ? 0 : 1;
}
