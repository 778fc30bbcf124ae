#pragma once

/// Names the calling thread (pthread_setname_np), cut to what the system takes.
void ZPINameThisThread(const char* name);
