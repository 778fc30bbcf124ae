#include <ZephalIO/ZephalIO.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

// record URL LOG RAW_LOG SECONDS
int main(int, char** arguments) {
  ZPKErrorPtr error;
  auto recorder = ZPKCommLoggerStack::init();
  recorder->setDelimiter("\n", &error);
  recorder->setLogFilePath(arguments[2], arguments[3], &error);
  if (!recorder->createStackWithURL(arguments[1], &error) || !recorder->open(&error)) {
    std::printf("cannot record %s\n", arguments[1]);
    return 1;
  }

  // A thread of the recorder does the work. Only isOpen shows that the device has gone away.
  const auto end =
      std::chrono::steady_clock::now() + std::chrono::duration<double>(std::atof(arguments[4]));
  while (recorder->isOpen() == 1 && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  const bool wasThere = recorder->close(&error);
  std::printf("%s\n", wasThere ? "recorded" : "the device went away");
  return wasThere ? 0 : 1;
}
