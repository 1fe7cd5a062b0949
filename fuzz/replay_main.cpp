// Runs a fuzz target's entry point once on every file of the directories and
// files it is given, in name order, without a fuzzing engine: the committed
// corpora replayed as ordinary tests. A failed check aborts, as under the
// fuzzer; a clean run prints how many inputs it ran.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

void collect(const std::string& path, std::vector<std::string>& files) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return;
    if (!S_ISDIR(status.st_mode)) {
        files.push_back(path);
        return;
    }
    DIR* dir = opendir(path.c_str());
    while (dirent* entry = dir != nullptr ? readdir(dir) : nullptr)
        if (entry->d_name[0] != '.') collect(path + "/" + entry->d_name, files);
    if (dir != nullptr) closedir(dir);
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) collect(argv[i], files);
    std::sort(files.begin(), files.end());
    for (const std::string& file : files) {
        FILE* f = std::fopen(file.c_str(), "rb");
        std::vector<uint8_t> input;
        for (int c; f != nullptr && (c = std::fgetc(f)) != EOF;) input.push_back(uint8_t(c));
        if (f != nullptr) std::fclose(f);
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    std::printf("%zu inputs replayed\n", files.size());
    return files.empty() ? 1 : 0;
}
