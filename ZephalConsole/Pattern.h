/// @file
/// What to look for in a device's output.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "ZephalConsole/Export.h"

namespace zephal {

/// What to look for in a device's output: a text, or a regular expression made with `regex`.
/// Immutable; safe on any thread, and cheap to copy.
class ZEPHAL_CONSOLE_EXPORT Pattern {
 public:
  /// Exactly these bytes; at least one (std::invalid_argument).
  Pattern(const char* text) : Pattern(std::string_view(text)) {}
  /// The same.
  Pattern(const std::string& text) : Pattern(std::string_view(text)) {}
  /// The same.
  Pattern(std::string_view text);
  /// Shares the text or the expression.
  Pattern(const Pattern&);
  /// Leaves the other one without a use except to be assigned to.
  Pattern(Pattern&&) noexcept;
  /// Shares the text or the expression.
  Pattern& operator=(const Pattern&);
  /// Leaves the other one without a use except to be assigned to.
  Pattern& operator=(Pattern&&) noexcept;
  ~Pattern();

  /// The text or the expression, as it was given.
  const std::string& source() const;
  /// Whether it was made with `regex`.
  bool isExpression() const;
  /// For messages: "login: " for a text, /login: ?/ for an expression. Control characters and bytes
  /// outside ASCII are escaped.
  std::string description() const;

  /// @cond
  // For the library: a compiled expression; null for a text.
  class ZEPHAL_CONSOLE_HIDDEN Expression;
  const Expression* expression() const { return _expression.get(); }
  /// @endcond

 private:
  friend ZEPHAL_CONSOLE_EXPORT Pattern regex(std::string_view expression);
  explicit Pattern(std::shared_ptr<const Expression> expression);

  std::shared_ptr<const std::string> _text;
  std::shared_ptr<const Expression> _expression;  // null for a text
};

/// A regular expression (pcre2pattern(3)) over bytes. "." matches any byte except a line feed, "^"
/// the beginning of what is unread, and "$" and "\Z" the end of what has arrived: not in front of a
/// final line feed, which may turn out not to be final. Options begin the expression: (?i) ignores
/// case, (?m) lets "^" and "$" match at every line, (?s) lets "." match line feeds.
///
/// Throws std::invalid_argument, with the position, for an expression that PCRE2 does not accept;
/// and for "\G", "\C", "(*COMMIT)", "(*UTF)" and other settings that begin an expression, since
/// with these a match would depend on how the bytes were cut on their way.
ZEPHAL_CONSOLE_EXPORT Pattern regex(std::string_view expression);

}  // namespace zephal
