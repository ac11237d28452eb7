// replay.cpp: the main of a harness where there is no libFuzzer: each input of a folder, and variations of it.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
  constexpr int kVariations = 400;
  LLVMFuzzerInitialize(&argc, &argv);
  int inputs = 0;
  for (const auto &entry : std::filesystem::directory_iterator(argv[1])) {
    std::ifstream file(entry.path(), std::ios::binary);
    const std::string seed(std::istreambuf_iterator<char>(file), {});
    std::mt19937 random(static_cast<unsigned>(seed.size()));
    std::puts(entry.path().c_str());  // the last one is that which fails
    std::fflush(stdout);
    for (int i = 0; i < kVariations; ++i, ++inputs) {
      std::string input = seed;
      for (int changes = i % 4; changes > 0; --changes) {  // a few bytes become others, go, or come twice
        const size_t at = random() % (input.size() + 1);
        const std::string piece = input.substr(at, random() % 4), byte(random() % 2, static_cast<char>(random()));
        input.replace(at, piece.size(), random() % 2 ? byte : piece + piece);
      }
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.data()), input.size());
    }
  }
  return inputs == 0;
}
