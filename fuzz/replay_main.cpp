// Runs a target once over every file of the directory named on the command line, for a compiler
// without a fuzzer of its own.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
    std::set<std::string> inputs;
    for (const auto& entry : std::filesystem::directory_iterator(argc > 1 ? argv[1] : "."))
        inputs.insert(entry.path());
    if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
    for (const std::string& input : inputs) {
        std::fprintf(stderr, "%s\n", input.c_str());
        std::ifstream file(input, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(file)), {});
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("%zu inputs held\n", inputs.size());
    return inputs.empty() ? 1 : 0;
}
