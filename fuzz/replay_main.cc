// Runs a fuzz target over the files of its corpus directories once, as the
// test suite does on every build: what fuzzing once found stays fixed.

#include <dirent.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <fstream>
#include <sstream>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  int inputs = 0;
  for (int i = 1; i < argc; ++i) {
    DIR* dir = opendir(argv[i]);
    if (dir == nullptr) return fprintf(stderr, "no corpus %s\n", argv[i]), 1;
    while (const dirent* e = readdir(dir)) {
      if (e->d_name[0] == '.') continue;
      std::ostringstream bytes;
      bytes << std::ifstream(std::string(argv[i]) + "/" + e->d_name, std::ios::binary).rdbuf();
      const std::string input = bytes.str();
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
      ++inputs;
    }
    closedir(dir);
  }
  printf("%d inputs replayed\n", inputs);
  return inputs > 0 ? 0 : 1;
}
