// Runs a fuzz target over the files of its committed corpus, so that every
// test tree (normal, ASan, TSan) replays what the fuzzer found worth keeping.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  int inputs = 0;
  for (int i = 1; i < argc; ++i) {
    std::vector<std::filesystem::path> files{argv[i]};
    if (std::filesystem::is_directory(files[0]))
      files.assign(std::filesystem::directory_iterator(files[0]), std::filesystem::directory_iterator());
    for (const auto& file : files) {
      std::ifstream in(file, std::ios::binary);
      std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()), ++inputs;
    }
  }
  std::printf("replayed %d inputs\n", inputs);
  return inputs > 0 ? 0 : 1;
}
