#pragma once

#if defined(__GNUC__)
#define ZEPHAL_CONSOLE_EXPORT __attribute__((visibility("default")))
#define ZEPHAL_CONSOLE_HIDDEN __attribute__((visibility("hidden")))
#else
#define ZEPHAL_CONSOLE_EXPORT
#define ZEPHAL_CONSOLE_HIDDEN
#endif
