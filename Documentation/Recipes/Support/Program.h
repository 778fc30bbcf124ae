// Runs programs of the cookbook as processes.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <future>
#include <string>
#include <vector>

// The end of a program: its exit status, and everything that it printed.
struct Outcome {
  int status = -1;
  std::string output;
};

// The shell's form of a word.
std::string quoted(const std::string& word);
// What a shell runs for a recipe, with standard error in its output.
std::string commandFor(const std::string& recipe, const std::vector<std::string>& words);
// Everything up to the end.
std::string readAll(std::FILE* stream);
// Runs a shell's command, or a recipe, to its end.
Outcome runCommand(const std::string& command);
Outcome run(const std::string& recipe, const std::vector<std::string>& words);
std::future<Outcome> start(const std::string& recipe, const std::vector<std::string>& words);

std::string contentsOf(const std::filesystem::path& path);
// Asks again and again, for as long as a loaded machine may need.
bool waitFor(const std::function<bool()>& condition);

// A test with a folder of its own.
class ProgramTest : public testing::Test {
 protected:
  ProgramTest();
  ~ProgramTest() override;

  std::string pathOf(const std::string& name) const { return (_folder / name).string(); }
  const std::filesystem::path& folder() const { return _folder; }

 private:
  std::filesystem::path _folder;
};
