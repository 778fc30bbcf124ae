#pragma once

#include <functional>

/// Does the work in a process of its own and waits for it; ends the program if it fails.
void runApart(const std::function<void()>& work);
