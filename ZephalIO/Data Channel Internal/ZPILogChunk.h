// The text of a log file, which is a sequence of chunks with nothing between them:
//
//     \n2024-05-01 12:00:00.250 <pre--write>[4711]: version
//     \n2024-05-01 12:00:00.310 <pre---read>[4711]: 2.33
//     \n2024-05-01 12:00:00.310 <pre---read>[4711]: =>
//
// A chunk contains the bytes of one read or write. Each of its lines begins with a line feed and
// the same prefix, so a chunk that ends with a line break ends with an otherwise empty prefix.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "Utility/ZPIHeapVector.h"

/// What each line of a chunk begins with, in three parts, so that each is made as seldom as it
/// changes.
struct ZPILogPrefix {
  std::string_view time;             // see ZPILogTime
  std::string_view identifier = {};  // of the channel, with the direction
  std::string_view process = {};     // see ZPILogProcess

  size_t length() const { return time.size() + identifier.size() + process.size(); }
};

/// The last part of a process's prefixes.
std::string ZPILogProcess(pid_t process);

/// Appends the chunk of `text` to `log`: the prefix, then the text with the prefix in place of
/// every CR LF, CR and LF. `text` is readable text (ZPKDataToString), and no part of `log`. If
/// memory runs out, it throws std::bad_alloc and leaves a part of the chunk in `log`.
void ZPIAppendLogChunk(const ZPILogPrefix& prefix, std::string_view text, ZPIHeapVector<char>& log);
