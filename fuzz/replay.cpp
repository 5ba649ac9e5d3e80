/* Runs a fuzz target over the files of a corpus, without a fuzzing compiler: what once broke it is
 * tried in every run of the tests. */
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
    unsigned replayed = 0;
    for (int i = 1; i < argc; i++) {
        for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
            std::ifstream file(entry.path(), std::ios::binary);
            const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
            replayed++;
        }
    }
    printf("%u inputs replayed\n", replayed);
    return replayed == 0 ? 1 : 0;
}
