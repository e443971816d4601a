// Runs a fuzz target over the files of its corpus directories once, as the
// test suite does on every build: what fuzzing once found stays fixed.

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  int inputs = 0;
  for (int i = 1; i < argc; ++i) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(argv[i], error)) {
      std::ifstream in(entry.path(), std::ios::binary);
      const std::string input{std::istreambuf_iterator<char>(in), {}};
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
      ++inputs;
    }
    if (error) return fprintf(stderr, "no corpus %s\n", argv[i]), 1;
  }
  printf("%d inputs replayed\n", inputs);
  return inputs > 0 ? 0 : 1;
}
