// Floods every layer with what a hostile device may send, at 1, 2 and 4 times the length, and
// prints for each what the heap grew by: layer, flood, length and bytes, separated by tabs.
//
//     HostileFloods [LAYER [TIMES]]
//
// Only the layers with LAYER in their names, and all floods TIMES as long.
//
// Tests/Hostile/check-floods runs it in callgrind, which counts the instructions.
#include <ZephalLogging/ZephalLogging.h>

#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <string_view>

#include "Hostile/Meter.h"
#include "Hostile/Work.h"

namespace {

Works allWorks() {
  Works all;
  for (const auto& works :
       {channelWorks(), transformerWorks(), functionWorks(), consoleWorks(), simulatorWorks()}) {
    all.insert(all.end(), works.begin(), works.end());
  }
  return all;
}

void measure(const Work& work, size_t times) {
  // What a layer makes once in a process is not a part of the flood.
  static std::set<std::string> used;
  if (used.insert(work.layer).second) work.run(work.bytes);
  const size_t shortest = times * work.shortest;
  for (const size_t size : {shortest, 2 * shortest, 4 * shortest}) {
    const std::string name = work.layer + "\t" + work.flood + "\t" + std::to_string(size);
    const std::string text = flood(work.bytes, size);
    const size_t bytes = Meter::heapPeakOf(name, [&] { work.run(text); });
    std::printf("%s\t%zu\n", name.c_str(), bytes);
  }
}

}  // namespace

int main(int count, char** arguments) {
  ZPKLoggingSetSink([](int, std::string_view) {});
  const std::string wanted = count > 1 ? arguments[1] : "";
  const size_t times = count > 2 ? std::strtoul(arguments[2], nullptr, 10) : 1;
  for (const Work& work : allWorks()) {
    if (work.layer.find(wanted) != std::string::npos) measure(work, times);
  }
}
