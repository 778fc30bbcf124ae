// Files of a test: their contents and permissions.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace support {

/// All bytes of a file; "" if there is none.
std::string contentsOfFile(const std::string& path);

/// Creates a file with these contents, or replaces the contents of an existing one.
void writeFile(const std::string& path, std::string_view contents);

/// The permissions of a file, such as 0644. Fails the test if there is none.
mode_t permissionsOfFile(const std::string& path);

}  // namespace support
