#include "ZephalConsole/Pattern.h"

#include <stdexcept>

#include "ZephalConsole/Internal/Expression.h"
#include "ZephalConsole/Internal/Readable.h"

namespace zephal {

Pattern::Pattern(std::string_view text) : _text(std::make_shared<const std::string>(text)) {
  if (text.empty()) throw std::invalid_argument("a pattern cannot be empty");
}

Pattern::Pattern(std::shared_ptr<const Expression> expression)
    : _expression(std::move(expression)) {}

Pattern::Pattern(const Pattern&) = default;
Pattern::Pattern(Pattern&&) noexcept = default;
Pattern& Pattern::operator=(const Pattern&) = default;
Pattern& Pattern::operator=(Pattern&&) noexcept = default;
Pattern::~Pattern() = default;

const std::string& Pattern::source() const {
  return _expression != nullptr ? _expression->source() : *_text;
}

bool Pattern::isExpression() const { return _expression != nullptr; }

std::string Pattern::description() const {
  const std::string shown = internal::readablePattern(source());
  return isExpression() ? "/" + shown + "/" : "\"" + shown + "\"";
}

Pattern regex(std::string_view expression) {
  return Pattern(std::make_shared<const Pattern::Expression>(expression));
}

}  // namespace zephal
