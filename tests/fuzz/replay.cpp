/*
 * In the place of libFuzzer: gives each file of the directories to the target
 * once. Says how many there were, and fails when there were none.
 */
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int count, char *directories[]) {
    int files = 0;
    for (int i = 1; i < count; i++) {
        for (const auto &entry :
             std::filesystem::directory_iterator(directories[i])) {
            std::ifstream file(entry.path(), std::ios::binary);
            std::string bytes(std::istreambuf_iterator<char>(file), {});
            fprintf(stderr, "%s\n", entry.path().c_str());
            LLVMFuzzerTestOneInput(static_cast<const uint8_t *>(
                                       static_cast<const void *>(bytes.data())),
                                   bytes.size());
            files++;
        }
    }
    printf("%d inputs\n", files);
    return files > 0 ? 0 : 1;
}
