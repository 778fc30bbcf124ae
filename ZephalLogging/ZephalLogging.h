/// @file
/// ZephalLogging: where the log lines of ZephalIO go.
///
/// A log site fetches the anchor and writes one line:
///
///     ZPKLoggingLog(ZPKLogGetAnchor(), 0, "Error opening %@ - %s(%d)", path, text, number);
///
/// By default a line goes to standard error. If standard error no longer accepts it, the line is
/// lost, with no message and no SIGPIPE. A host program that has a logger of its own captures the
/// lines with ZPKLoggingSetSink. Everything here may be called from any thread, and in a child of
/// fork(2), wherever the other threads of the parent were at the fork. The child has the sink of
/// its parent; whether that works there is up to the sink.
#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

#if defined(__GNUC__)
#define ZPK_LOGGING_EXPORT __attribute__((visibility("default")))
#else
#define ZPK_LOGGING_EXPORT
#endif

/// The process's logging anchor: opaque, shared, never null.
class ZPKLogAnchor;
/// A shared anchor.
using ZPKLogAnchorPtr = std::shared_ptr<ZPKLogAnchor>;

/// An object that "%@" can show, by its debugDescription().
template <class T>
concept ZPKLogDescribable = requires(const T& object) {
  { object.debugDescription() } -> std::convertible_to<std::string>;
};

/// One argument of a format, converted implicitly from whatever the call site has at hand. Text
/// passed as a `const char*` or a view is not copied, so an argument must not outlive the call.
class ZPKLogArgument {
 public:
  /// Shows as "(null)".
  ZPKLogArgument(std::nullptr_t) : _value(std::monostate{}) {}
  /// An integer or a bool, shown in decimal.
  template <std::integral T>
  ZPKLogArgument(T value) {
    if constexpr (std::is_signed_v<T>) {
      _value = static_cast<int64_t>(value);
    } else {
      _value = static_cast<uint64_t>(value);
    }
  }
  /// Text; a null pointer shows as "(null)".
  ZPKLogArgument(const char* text) {
    if (text != nullptr) _value = std::string_view(text);
  }
  /// Text, which is not copied.
  ZPKLogArgument(std::string_view text) : _value(text) {}
  /// Text, which is not copied.
  ZPKLogArgument(const std::string& text) : _value(std::string_view(text)) {}
  /// Text that may be null.
  template <class Text>
  requires std::convertible_to<const Text&, std::string_view> ZPKLogArgument(
      const std::optional<Text>& text) {
    if (text.has_value()) _value = std::string_view(*text);
  }
  /// An object, shown by its debugDescription().
  template <ZPKLogDescribable T>
  ZPKLogArgument(const T& object) : _value(object.debugDescription()) {}
  /// An object that may be null.
  template <ZPKLogDescribable T>
  ZPKLogArgument(const std::optional<T>& object) {
    if (object.has_value()) _value = object->debugDescription();
  }
  /// A shared object, which may be null.
  template <ZPKLogDescribable T>
  ZPKLogArgument(const std::shared_ptr<T>& object) {
    if (object != nullptr) _value = object->debugDescription();
  }

  /// Appends this argument's text to `line`; a null object or string shows as "(null)".
  ZPK_LOGGING_EXPORT void appendTo(std::string& line) const;

 private:
  std::variant<std::monostate, int64_t, uint64_t, std::string_view, std::string> _value;
};

/// The process's anchor. Call this anew at every log site.
ZPK_LOGGING_EXPORT ZPKLogAnchorPtr ZPKLogGetAnchor();

/// Formats `format` with the arguments. The directives are "%@" (an object), "%s" (text), "%d" (an
/// integer) and "%%". Each of the first three uses the next argument and shows that argument's own
/// text, so a wrong pairing can neither crash nor print garbage. A directive without an argument,
/// and any other percent sign, is kept as written.
ZPK_LOGGING_EXPORT std::string ZPKLoggingFormatArguments(const char* format,
                                                         std::span<const ZPKLogArgument> arguments);

/// Writes one line; does the work of ZPKLoggingLog. A null anchor writes nothing.
ZPK_LOGGING_EXPORT void ZPKLoggingLogArguments(const ZPKLogAnchorPtr& anchor, int level,
                                               const char* format,
                                               std::span<const ZPKLogArgument> arguments);

/// The text that ZPKLoggingLog would write for the same format and arguments.
template <class... Arguments>
std::string ZPKLoggingFormat(const char* format, const Arguments&... arguments) {
  const std::array<ZPKLogArgument, sizeof...(Arguments)> list{ZPKLogArgument(arguments)...};
  return ZPKLoggingFormatArguments(format, list);
}

/// Writes one line at `level`: 0 for failures, 1 for notices. Never fails, and leaves errno as it
/// was. May be called from any thread, also from several at the same time.
template <class... Arguments>
void ZPKLoggingLog(const ZPKLogAnchorPtr& anchor, int level, const char* format,
                   const Arguments&... arguments) {
  const std::array<ZPKLogArgument, sizeof...(Arguments)> list{ZPKLogArgument(arguments)...};
  ZPKLoggingLogArguments(anchor, level, format, list);
}

/// Sends every later line to `sink` instead of standard error; an empty function restores the
/// default. No line feed is added to the line. The sink is called on the thread that logs, one call
/// at a time. A sink may itself log, and may replace itself. It must not throw, and must not call
/// ZephalIO, which may log while it holds a lock.
///
/// ZPKLoggingSetSink waits until a running call of the old sink has returned, unless the old sink
/// itself replaces it. After that the old sink is not called any more. ZPKLoggingSetSink never
/// waits for standard error: a line that is already on its way there is still written there, as
/// soon as standard error accepts it.
ZPK_LOGGING_EXPORT void ZPKLoggingSetSink(
    std::function<void(int level, std::string_view line)> sink);
