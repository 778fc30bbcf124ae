#include <ZephalIO/ZephalIO.h>

#include <cstdio>
#include <future>
#include <string>
#include <vector>

// One stack and one thread for each device.
std::string versionOf(const std::string& url) {
  ZPKErrorPtr error;
  auto stack = ZPKCommStack::init();
  stack->setDelimiter("=> ", &error);
  if (!stack->createStackWithURL(url, &error) || !stack->openWithTimeout(std::nullopt, &error)) {
    return "cannot open";
  }
  const std::optional<std::string> version = stack->sendCommandString("version", 10.0, &error);
  stack->close(&error);
  return version.value_or(error == nullptr ? "no answer" : error->description());
}

// several URL...
int main(int count, char** arguments) {
  const std::vector<std::string> urls(arguments + 1, arguments + count);
  std::vector<std::future<std::string>> versions;
  versions.reserve(urls.size());
  for (const std::string& url : urls) {
    versions.push_back(std::async(std::launch::async, versionOf, url));
  }
  for (size_t index = 0; index < urls.size(); ++index) {
    std::printf("device %zu: %s\n", index + 1, versions[index].get().c_str());
  }
}
