#include "Soak/PythonStation.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>

namespace soak {

PythonStation::PythonStation(const Options& options, const std::string& folder, int firstDevice,
                             const std::vector<std::string>& urls)
    : _report(folder + "/python.json") {
  std::vector<std::string> words = {"/usr/bin/python3",
                                    options.script,
                                    _report,
                                    folder,
                                    std::to_string(options.seconds),
                                    std::to_string(options.seed),
                                    std::to_string(firstDevice)};
  words.insert(words.end(), urls.begin(), urls.end());
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  ::setenv("PYTHONPATH", options.python.c_str(), 1);
  if (::posix_spawn(&_process, arguments[0], nullptr, nullptr, arguments.data(), environ) != 0) {
    _process = -1;
  }
}

std::string PythonStation::finish() {
  int status = -1;
  if (_process > 0) ::waitpid(_process, &status, 0);
  _isGood = status == 0;
  std::ifstream stream(_report);
  return {std::istreambuf_iterator<char>(stream), {}};
}

}  // namespace soak
