#include "Support/Program.h"

#include <ZephalSimulator/SimulatedDevice.h>
#include <sys/wait.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <thread>

std::string quoted(const std::string& word) { return "'" + word + "'"; }

std::string commandFor(const std::string& recipe, const std::vector<std::string>& words) {
  std::string command = quoted(std::string(RECIPES_FOLDER) + "/" + recipe);
  for (const std::string& word : words) command += " " + quoted(word);
  return command + " 2>&1";
}

std::string readAll(std::FILE* stream) {
  std::string text;
  std::array<char, 4096> chunk{};
  while (const size_t count = std::fread(chunk.data(), 1, chunk.size(), stream)) {
    text.append(chunk.data(), count);
  }
  return text;
}

Outcome runCommand(const std::string& command) {
  std::FILE* const stream = ::popen(command.c_str(), "r");
  if (stream == nullptr) return {};
  Outcome outcome;
  outcome.output = readAll(stream);
  const int status = ::pclose(stream);
  if (WIFEXITED(status)) outcome.status = WEXITSTATUS(status);
  return outcome;
}

Outcome run(const std::string& recipe, const std::vector<std::string>& words) {
  return runCommand(commandFor(recipe, words));
}

std::future<Outcome> start(const std::string& recipe, const std::vector<std::string>& words) {
  return std::async(std::launch::async, run, recipe, words);
}

std::string contentsOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

bool waitFor(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + zephal::SimulatedDevice::kPatience;
  while (std::chrono::steady_clock::now() < end) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

ProgramTest::ProgramTest() : _folder(std::filesystem::temp_directory_path() / "recipes-XXXXXX") {
  std::string name = _folder.string();
  _folder = ::mkdtemp(name.data());
}

ProgramTest::~ProgramTest() { std::filesystem::remove_all(_folder); }
