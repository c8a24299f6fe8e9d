// Runs a fuzz target over every file of the directories (or files) given on the
// command line, so the saved corpus is replayed without libFuzzer.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

void RunFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  // Copy into an exactly sized heap buffer so ASan sees reads past the end.
  std::vector<uint8_t> exact(bytes.begin(), bytes.end());
  LLVMFuzzerTestOneInput(exact.empty() ? nullptr : exact.data(), exact.size());
}

}  // namespace

int main(int argc, char** argv) {
  size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    std::filesystem::path arg(argv[i]);
    if (std::filesystem::is_directory(arg)) {
      for (const auto& entry : std::filesystem::recursive_directory_iterator(arg)) {
        if (entry.is_regular_file()) {
          RunFile(entry.path());
          ++count;
        }
      }
    } else if (std::filesystem::exists(arg)) {
      RunFile(arg);
      ++count;
    }
  }
  // Also the empty input, which every target must survive.
  LLVMFuzzerTestOneInput(nullptr, 0);
  std::printf("replayed %zu inputs\n", count);
  return 0;
}
