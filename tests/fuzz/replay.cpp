// A fuzz target without a fuzzer: gives it every file of the directories named, one after the
// other. A property that does not hold ends the program; the file is the one named last.

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

std::set<fs::path> filesOf(const fs::path& directory) {
  std::set<fs::path> files;
  if (!fs::exists(directory)) return files;  // a target that no input has broken yet
  for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
    files.insert(entry.path());
  }
  return files;
}

void replay(const fs::path& path) {
  (void)std::fprintf(stderr, "%s\n", path.c_str());
  std::ifstream file(path, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  (void)LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
  (void)LLVMFuzzerInitialize(&argc, &argv);
  int count = 0;
  for (int index = 1; index < argc; ++index) {
    for (const fs::path& path : filesOf(argv[index])) {
      replay(path);
      ++count;
    }
  }
  (void)std::printf("figures: fuzz-replay: %d inputs, 0 crashes\n", count);
  return count > 0 ? 0 : 1;
}
