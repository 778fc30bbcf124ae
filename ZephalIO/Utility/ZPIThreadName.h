#pragma once

#include <string_view>

/// Names the calling thread (pthread_setname_np(3)). A name that is too long for the system is
/// truncated between two characters.
void ZPINameThisThread(std::string_view name);
