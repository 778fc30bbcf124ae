// What an episode finds out ends the program: the state at that moment is worth more than a second
// finding.
#pragma once

#include <cstdint>
#include <string>

#include "Utility/ZPKError.h"

namespace support {

/// Names the episode that begins now, for the texts of findings.
void beginEpisode(const char* name, uint64_t seed);

/// "episode Name, seed 5".
std::string currentEpisode();

/// Prints a line on the program's standard output, which the library's own lines do not reach.
void report(const std::string& line);

/// Ends the program with this finding unless `holds`.
void require(bool holds, const std::string& what, const ZPKErrorPtr& error = nullptr);

/// Names the episode also if an exception ends the program.
void nameEpisodeOfExceptions();

/// Sends what the library prints on standard output to /dev/null, and keeps the former for report.
void keepStandardOutput();

}  // namespace support
