#include <ZephalConsole/Console.h>

#include <cstdio>
#include <future>
#include <string>
#include <vector>

std::string versionOf(const std::string& url) {
  zephal::Console dut(url, {.prompt = "=> "});
  return dut.ask("version");
}

// several URL...
int main(int count, char** arguments) {
  std::vector<std::future<std::string>> versions;
  for (int index = 1; index < count; ++index) {
    versions.push_back(std::async(std::launch::async, versionOf, arguments[index]));
  }
  for (auto& version : versions) std::printf("%s", version.get().c_str());
}
