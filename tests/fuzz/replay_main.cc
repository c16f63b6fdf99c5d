// Runs a fuzz target over its committed corpus, so that every test tree replays what the fuzzer kept.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  int inputs = 0;
  for (int i = 1; i < argc; ++i)  // each argument a corpus folder
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      std::ifstream in(entry.path(), std::ios::binary);
      std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()), ++inputs;
    }
  std::printf("replayed %d inputs\n", inputs);
  return inputs > 0 ? 0 : 1;
}
