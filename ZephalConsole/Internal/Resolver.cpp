#include "ZephalConsole/Internal/Resolver.h"

#include <cerrno>
#include <chrono>
#include <future>
#include <system_error>
#include <thread>
#include <utility>

#include "ZephalConsole/Errors.h"

namespace zephal::internal {
namespace {

struct Lookup {
  int failure = 0;
  int number = 0;  // errno, for EAI_SYSTEM
  Addresses addresses;
};

Lookup lookUp(const std::string& host, int port, int flags) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV | flags;
  addrinfo* list = nullptr;
  Lookup lookup;
  lookup.failure = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list);
  lookup.number = errno;
  if (lookup.failure == 0) lookup.addresses.reset(list);
  return lookup;
}

[[noreturn]] void refuse(const std::string& host, int number, const std::string& url) {
  throw OpenError("cannot look up " + host + ": " + std::generic_category().message(number),
                  "POSIX", number, url);
}

Lookup lookUpName(const std::string& host, int port, const Stop& stop, const std::string& url) {
  std::packaged_task<Lookup()> task([host, port] { return lookUp(host, port, AI_ADDRCONFIG); });
  std::future<Lookup> result = task.get_future();
  try {
    std::thread(std::move(task)).detach();
  } catch (const std::system_error& error) {
    refuse(host, error.code().value(), url);
  }
  constexpr std::chrono::milliseconds kSlice(20);
  while (result.wait_for(kSlice) != std::future_status::ready) {
    if (stop.isOver()) refuse(host, ECANCELED, url);
    if (stop.deadline().hasPassed()) refuse(host, ETIMEDOUT, url);
  }
  return result.get();
}

}  // namespace

Addresses resolve(const std::string& host, int port, const Stop& stop, const std::string& url) {
  Lookup lookup = lookUp(host, port, AI_NUMERICHOST);
  if (lookup.failure != 0) lookup = lookUpName(host, port, stop, url);
  if (lookup.failure == EAI_SYSTEM) refuse(host, lookup.number, url);
  if (lookup.failure != 0) {
    throw OpenError("cannot look up " + host + ": " + ::gai_strerror(lookup.failure), "getaddrinfo",
                    lookup.failure, url);
  }
  return std::move(lookup.addresses);
}

}  // namespace zephal::internal
