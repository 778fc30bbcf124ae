#include "Support/StandardOutputCapture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

namespace support {

StandardOutputCapture::StandardOutputCapture() {
  std::cout.flush();
  std::fflush(stdout);
  _file = ::memfd_create("standard output", MFD_CLOEXEC);
  _original = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
  ::dup2(_file, STDOUT_FILENO);
}

StandardOutputCapture::~StandardOutputCapture() {
  const std::string captured = text();
  ::dup2(_original, STDOUT_FILENO);
  ::close(_original);
  ::close(_file);
  // The test framework's report of a failure was captured too.
  if (testing::Test::HasFailure()) std::fputs(captured.c_str(), stdout);
}

std::string StandardOutputCapture::text() const {
  std::cout.flush();
  std::fflush(stdout);
  std::string text;
  char buffer[4096];
  ssize_t count = 0;
  while ((count = ::pread(_file, buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0) {
    text.append(buffer, static_cast<size_t>(count));
  }
  return text;
}

}  // namespace support
