#include "Support/DescriptorFailures.h"

#include <cstring>

namespace support {

std::string numberedErrorText(int number) {
  return std::string(std::strerror(number)) + " (" + std::to_string(number) + ")";
}

ExpectedFailure readFailure(int number) {
  return {"zephal-communication", 5, "Read failed with error " + numberedErrorText(number),
          "zephal_communication_read", "DescriptorOperation.cpp"};
}

ExpectedFailure writeFailure(int number) {
  return {"zephal-communication", 5, "Write failed with " + numberedErrorText(number),
          "zephal_communication_write", "DescriptorOperation.cpp"};
}

ExpectedFailure communicationFailure(int code, const char* description, const char* function) {
  return {"zephal-communication", code, description, function, "DescriptorOperation.h"};
}

}  // namespace support
