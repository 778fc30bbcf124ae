// The text of a log file, which is a sequence of chunks with nothing between them:
//
//     \n2024-05-01 12:00:00.250 <pre--write>[4711]: version
//     \n2024-05-01 12:00:00.310 <pre---read>[4711]: 2.33
//     \n2024-05-01 12:00:00.310 <pre---read>[4711]: =>
//
// A chunk contains the bytes of one read or write. Each of its lines begins with a line feed and
// the same prefix, so a chunk that ends with a line break ends with an otherwise empty prefix.
#pragma once

#include <unistd.h>

#include <string>
#include <string_view>

#include "Utility/ZPKTypes.h"

/// The prefix of a chunk of this moment: a line feed, the local time with milliseconds, the
/// identifier and the process.
std::string ZPILogPrefix(std::string_view identifier, pid_t process = ::getpid());

/// The chunk of `data` as UTF-8: the prefix, then the readable text of the bytes (ZPKDataToString)
/// with the prefix in place of every CR LF, CR and LF.
std::string ZPILogChunk(std::string_view prefix, const ZPKDataPtr& data);
