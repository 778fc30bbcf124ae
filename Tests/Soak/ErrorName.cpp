#include "Soak/ErrorName.h"

namespace soak {

std::string errorName(std::string_view place, const ZPKErrorPtr& error) {
  const std::string name = std::string(place) + ": ";
  if (error == nullptr) return name + "no error";
  // Without "zephalbench.", which all domains of the library begin with.
  const std::string& domain = error->domain();
  const size_t point = domain.find('.');
  const size_t begin = point == std::string::npos ? 0 : point + 1;
  return name + domain.substr(begin) + " " + std::to_string(error->code());
}

std::string openErrorName(std::string_view place, const ZPKErrorPtr& error, int number) {
  const std::string name = errorName(place, error);
  return error != nullptr ? name : name + ", errno " + std::to_string(number);
}

}  // namespace soak
