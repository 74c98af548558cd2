// Runs a fuzz target over files and directories of inputs, without libFuzzer:
// the tests replay each seed corpus this way in every build flavour.
//   replay_<name> PATH...
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize);
// Defined by the targets that need a one-time set-up.
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* aArgc, char*** aArgv);

namespace {

// The files under aPath, in name order so that a failing run repeats.
void CollectFiles(const std::string& aPath, std::vector<std::string>& aFiles) {
    struct stat st {};
    if (::stat(aPath.c_str(), &st) != 0) {
        std::fprintf(stderr, "replay: cannot read %s\n", aPath.c_str());
        return;
    }
    if (!S_ISDIR(st.st_mode)) {
        aFiles.push_back(aPath);
        return;
    }
    std::vector<std::string> names;
    if (DIR* dir = ::opendir(aPath.c_str())) {
        while (dirent* e = ::readdir(dir)) {
            if (e->d_name[0] != '.') {
                names.push_back(aPath + "/" + e->d_name);
            }
        }
        ::closedir(dir);
    }
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        CollectFiles(name, aFiles);
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) {
        CollectFiles(argv[i], files);
    }
    if (files.empty()) {
        std::fprintf(stderr, "replay: no inputs\n");
        return 1;
    }
    // Read before the set-up, which may change the working directory.
    std::vector<std::vector<uint8_t>> inputs;
    for (const std::string& file : files) {
        std::ifstream in(file, std::ios::binary);
        inputs.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    if (LLVMFuzzerInitialize) {
        LLVMFuzzerInitialize(&argc, &argv);
    }
    for (const std::vector<uint8_t>& data : inputs) {
        LLVMFuzzerTestOneInput(data.data(), data.size());
    }
    std::printf("replayed %zu input(s)\n", inputs.size());
    return 0;
}
