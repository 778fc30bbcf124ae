#pragma once

#include <string>

/// Names the calling thread (pthread_setname_np), cut to what the system takes, between two
/// characters.
void ZPINameThisThread(const std::string& name);
