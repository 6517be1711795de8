// The replay driver of the normal builds: feeds every file under the directories (or the files)
// named on the command line to the harness, so that the seed corpus and every input kept from
// a fixed crash run as an ordinary test without the fuzzing compiler. A missing directory is
// skipped (a harness may have no regressions yet); finding no input at all is an error.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "Fuzz.h"

namespace fs = std::filesystem;

int main(int argc, char** argv) {
  std::vector<fs::path> inputs;
  for (int i = 1; i < argc; ++i) {
    fs::path p(argv[i]);
    if (fs::is_directory(p)) {
      for (auto const& e : fs::recursive_directory_iterator(p)) {
        if (e.is_regular_file() && e.path().filename().string().front() != '.') {
          inputs.push_back(e.path());
        }
      }
    } else if (fs::is_regular_file(p)) {
      inputs.push_back(p);
    }
  }
  std::sort(inputs.begin(), inputs.end());
  if (inputs.empty()) {
    std::fprintf(stderr, "no input found\n");
    return 1;
  }
  for (auto const& p : inputs) {
    std::ifstream in(p, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::fprintf(stderr, "replaying %s (%zu bytes)\n", p.c_str(), bytes.size());
    LLVMFuzzerTestOneInput(reinterpret_cast<std::uint8_t const*>(bytes.data()), bytes.size());
  }
  std::printf("%zu inputs replayed\n", inputs.size());
  return 0;
}
