#include "ZephalConsole/Errors.h"

#include "ZephalConsole/Internal/Readable.h"

namespace zephal {

Error::Error(const std::string& message, std::string domain, int code, std::string url)
    : std::runtime_error(url + ": " + message),
      _domain(std::move(domain)),
      _code(code),
      _url(std::move(url)) {}

WaitError::WaitError(const std::string& reason, ErrorCode code, std::string url,
                     std::string waitedFor, std::string received)
    : Error(reason + " while waiting for " + waitedFor +
                "; received: " + internal::readableEnd(received),
            std::string(kConsoleDomain), static_cast<int>(code), std::move(url)),
      _waitedFor(std::move(waitedFor)),
      _received(std::move(received)) {}

NoMatch::NoMatch(const std::string& message, std::string url, std::string answer)
    : Error(message + "; the answer: " + internal::readableEnd(answer), std::string(kConsoleDomain),
            static_cast<int>(ErrorCode::kNoMatch), std::move(url)),
      _answer(std::move(answer)) {}

// Out of line, so that each type has one address for every library that throws or catches it.
Error::~Error() = default;
OpenError::~OpenError() = default;
WaitError::~WaitError() = default;
Timeout::~Timeout() = default;
Disconnected::~Disconnected() = default;
DeviceSwapped::~DeviceSwapped() = default;
Cancelled::~Cancelled() = default;
LoginRefused::~LoginRefused() = default;
NoMatch::~NoMatch() = default;

}  // namespace zephal
