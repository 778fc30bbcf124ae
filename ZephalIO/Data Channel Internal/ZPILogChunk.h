// The text of a log file, which is a row of chunks with nothing between them:
//
//     \n2024-05-01 12:00:00.250 <pre--write>[4711]: version
//     \n2024-05-01 12:00:00.310 <pre---read>[4711]: 2.33
//     \n2024-05-01 12:00:00.310 <pre---read>[4711]: =>
//
// A chunk is what one read or write moved. Every line of it begins with the same prefix, a line
// feed first, so that a chunk which ends in a line break ends in a prefix with nothing after it.
#pragma once

#include <unistd.h>

#include <string>
#include <string_view>

#include "Utility/ZPKTypes.h"

/// The prefix of a chunk that is made now: local time with milliseconds, the identifier, the
/// process.
std::string ZPILogPrefix(std::string_view identifier, pid_t process = ::getpid());

/// The chunk of `data` as UTF-8: the prefix, then the readable text of the bytes (ZPKDataToString)
/// with the prefix in place of every CR LF, CR and LF.
std::string ZPILogChunk(std::string_view prefix, const ZPKDataPtr& data);
