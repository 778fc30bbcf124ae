#pragma once

#include <ZephalIO/ZephalIO.h>

#include <string>

/// An open stack on a device, or the end of the program.
ZPKCommStackPtr openStack(const std::string& url, const std::string& delimiter);
