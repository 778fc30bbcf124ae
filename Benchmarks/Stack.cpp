#include "Stack.h"

#include <cstdio>
#include <cstdlib>

ZPKCommStackPtr openStack(const std::string& url, const std::string& delimiter,
                          const std::function<void(ZPKCommStack&)>& configure) {
  auto stack = ZPKCommStack::init();
  stack->setDelimiter(delimiter);
  if (configure) configure(*stack);
  if (stack->createStackWithURL(url) && stack->openWithTimeout(std::nullopt)) return stack;
  std::fprintf(stderr, "cannot open %s\n", url.c_str());
  std::exit(1);
}
