// Runs a fuzz target on files, without a fuzzer: each argument is a file or a folder of files.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size);

namespace {

size_t runFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  return file.is_open() ? 1 : 0;
}

size_t run(const std::filesystem::path& path) {
  if (!std::filesystem::is_directory(path)) return runFile(path);
  size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(path)) count += runFile(entry);
  return count;
}

}  // namespace

int main(int argc, char** argv) {
  size_t count = 0;
  for (int i = 1; i < argc; ++i) count += run(argv[i]);
  std::printf("%zu inputs run\n", count);
  return count > 0 ? 0 : 1;
}
