// The Python module zephal._zephal: the console and the simulator with bytes in and out. Text,
// keyword arguments and asyncio are in the package around it.
#include <ZephalConsole/Console.h>
#include <ZephalSimulator/SimulatedDevice.h>
#include <pybind11/chrono.h>
#include <pybind11/functional.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace py = pybind11;
using namespace zephal;

namespace {

using Timeout_ = std::optional<double>;

// Set while a thread is in an operation that somebody else may have to end.
thread_local const std::atomic<bool>* operationsCancel = nullptr;

// The interpreter ends daemon threads where they ask for its lock, which a thread that comes out of
// an operation does not survive. So before it ends, operations end.
std::atomic<bool> isEnding{false};
std::atomic<int> operations{0};

class Operation {
 public:
  Operation() {
    if (isEnding) throw std::runtime_error("the interpreter is ending");
    ++operations;
  }
  Operation(const Operation&) = delete;
  ~Operation() { --operations; }
};

// `process` has begun them; a forked one has none of their threads.
void endOperations(pid_t process) {
  constexpr std::chrono::milliseconds kStep(5);
  constexpr int kMostSteps = 400;
  isEnding = true;
  if (process != ::getpid()) return;
  const py::gil_scoped_release release;
  for (int i = 0; i < kMostSteps && operations > 0; ++i) std::this_thread::sleep_for(kStep);
}

std::optional<Seconds> secondsOf(Timeout_ timeout) {
  if (!timeout.has_value()) return std::nullopt;
  return Seconds(*timeout);
}

/// Ends one operation on whichever thread it is.
class Cancel {
 public:
  void set() { _isSet = true; }
  const std::atomic<bool>* flag() const { return &_isSet; }

 private:
  std::atomic<bool> _isSet{false};
};

/// Lets the operations of this thread be ended by one cancel.
class CancelScope {
 public:
  explicit CancelScope(std::shared_ptr<Cancel> cancel)
      : _cancel(std::move(cancel)), _outer(operationsCancel) {}
  void enter() { operationsCancel = _cancel->flag(); }
  void leave() { operationsCancel = _outer; }

 private:
  std::shared_ptr<Cancel> _cancel;
  const std::atomic<bool>* _outer;
};

// Signals are handled on the main thread only; anywhere else this does nothing. An exception of a
// handler, such as KeyboardInterrupt, waits for the end of the operation.
bool isInterrupted() {
  if (isEnding) return true;
  if (operationsCancel != nullptr && operationsCancel->load()) return true;
  const py::gil_scoped_acquire lock;
  return PyErr_CheckSignals() != 0;
}

py::bytes bytesOf(const std::string& text) { return py::bytes(text); }

// A message, which may contain anything that the system or a user has put into it.
py::str shownOf(const std::string& text) {
  return bytesOf(text).attr("decode")("utf-8", "replace");
}

py::object timeOf(std::chrono::system_clock::time_point time) {
  const double seconds = std::chrono::duration<double>(time.time_since_epoch()).count();
  return py::float_(seconds);
}

// (index, before, groups, time, lost)
py::tuple tupleOf(const Hit& hit) {
  py::list groups;
  for (const auto& group : hit.groups) {
    if (group.has_value()) {
      groups.append(bytesOf(*group));
    } else {
      groups.append(py::none());
    }
  }
  return py::make_tuple(hit.index, bytesOf(hit.before), py::tuple(groups), timeOf(hit.time),
                        hit.lost);
}

// Runs an operation without the interpreter's lock. An exception that a signal handler has raised
// meanwhile goes before the operation's own.
template <class Operation>
auto withoutLock(Operation operation) {
  try {
    const py::gil_scoped_release release;
    return operation();
  } catch (const Error&) {
    if (PyErr_Occurred() != nullptr) throw py::error_already_set();
    throw;
  }
}

// Runs an operation that waits for the device.
template <class Function>
auto waiting(Function function) {
  const Operation operation;
  return withoutLock(std::move(function));
}

class BytesConsole {
 public:
  BytesConsole() = default;
  BytesConsole(BytesConsole&&) = default;
  // NOLINTNEXTLINE(bugprone-exception-escape): pybind11's release does not throw here.
  ~BytesConsole() {
    if (_console == nullptr) return;
    const py::gil_scoped_release release;
    _console.reset();
  }

  // Not the constructor's work: without memory to register a new object, pybind11 ends the process
  // after a constructor, frees twice what a factory returns as a pointer, and forgets the
  // destructor of what is returned by value, which is therefore a console that has not been opened.
  void open(const std::string& url, ConsoleOptions options) {
    _console = waiting([&] {
      options.isInterrupted = isInterrupted;
      return std::make_unique<Console>(url, std::move(options));
    });
  }

  py::tuple expect(const std::vector<Pattern>& patterns, Timeout_ timeout) {
    return tupleOf(waiting([&] { return _console->expect(patterns, secondsOf(timeout)); }));
  }
  py::bytes ask(const std::string& command, Timeout_ timeout) {
    return bytesOf(waiting([&] { return _console->ask(command, secondsOf(timeout)); }));
  }
  py::tuple askAndPick(const std::string& command, const Pattern& pick, Timeout_ timeout) {
    return tupleOf(waiting([&] { return _console->ask(command, pick, secondsOf(timeout)); }));
  }
  py::tuple run(const std::string& command, Timeout_ timeout) {
    const RunResult result = waiting([&] { return _console->run(command, secondsOf(timeout)); });
    return py::make_tuple(bytesOf(result.output), result.status);
  }
  // What is null stays as in a LoginDialogue.
  void login(const std::string& user, const std::string& password,
             const std::optional<Pattern>& userPrompt, const std::optional<Pattern>& passwordPrompt,
             const std::optional<Pattern>& refused, Timeout_ timeout) {
    LoginDialogue dialogue;
    dialogue.user = userPrompt.value_or(dialogue.user);
    dialogue.password = passwordPrompt.value_or(dialogue.password);
    dialogue.refused = refused.value_or(dialogue.refused);
    waiting([&] { _console->login(user, password, secondsOf(timeout), dialogue); });
  }
  void send(const std::string& line, Timeout_ timeout) {
    waiting([&] { _console->send(line, secondsOf(timeout)); });
  }
  void sendSecret(const std::string& line, Timeout_ timeout) {
    waiting([&] { _console->sendSecret(line, secondsOf(timeout)); });
  }
  void write(const std::string& bytes, Timeout_ timeout) {
    waiting([&] { _console->write(bytes, secondsOf(timeout)); });
  }
  void sendControl(const std::string& name, Timeout_ timeout) {
    waiting([&] { _console->sendControl(name, secondsOf(timeout)); });
  }
  py::list record(double duration) {
    const auto lines = waiting([&] { return _console->record(Seconds(duration)); });
    py::list result;
    for (const TimedLine& line : lines) {
      result.append(py::make_tuple(timeOf(line.time), bytesOf(line.text)));
    }
    return result;
  }
  void discard() {
    waiting([&] { _console->discard(); });
  }
  void reopen(Timeout_ timeout) {
    waiting([&] { _console->reopen(secondsOf(timeout)); });
  }
  py::bytes reboot(const std::string& command, Timeout_ timeout) {
    return bytesOf(waiting([&] { return _console->reboot(command, secondsOf(timeout)); }));
  }
  // Without the interpreter's lock, which an operation may need before it releases its own.
  void cancel() {
    withoutLock([&] { _console->cancel(); });
  }
  void close() {
    withoutLock([&] { _console->close(); });
  }
  bool isOpen() const {
    return withoutLock([&] { return _console->isOpen(); });
  }
  uint64_t lost() const {
    return withoutLock([&] { return _console->lost(); });
  }

 private:
  std::unique_ptr<Console> _console;
};

// ---- exceptions ----

// The Python classes are in zephal.errors, which does not import this module.
[[maybe_unused]] void raise(const char* name, const Error& error, const py::object& received,
                            const py::object& waitedFor) {
  const py::object type = py::module_::import("zephal.errors").attr(name);
  const py::object exception = type(shownOf(error.what()), error.domain(), error.code(),
                                    shownOf(error.url()), received, waitedFor);
  PyErr_SetObject(type.ptr(), exception.ptr());
}

void raise(const char* name, const WaitError& error) {
  raise(name, error, bytesOf(error.received()), shownOf(error.waitedFor()));
}

void raise(const char* name, const Error& error) { raise(name, error, bytesOf(""), py::str("")); }

// NOLINTNEXTLINE(performance-unnecessary-value-param): pybind11 wants this signature.
void translate(std::exception_ptr thrown) {
  try {
    if (thrown) std::rethrow_exception(thrown);
  } catch (const Timeout& error) {
    raise("Timeout", error);
  } catch (const Disconnected& error) {
    raise("Disconnected", error);
  } catch (const OpenError& error) {
    raise("OpenError", error);
  } catch (const DeviceSwapped& error) {
    raise("DeviceSwapped", error);
  } catch (const Cancelled& error) {
    raise("Cancelled", error);
  } catch (const LoginRefused& error) {
    raise("LoginRefused", error);
  } catch (const NoMatch& error) {
    raise("NoMatch", error, bytesOf(error.answer()), py::str(""));
  } catch (const Error& error) {
    raise("Error", error);
  }
}

// ---- the simulator ----

using Milliseconds = std::chrono::milliseconds;  // a float of seconds in Python

DevicePlace placeOf(const std::string& kind, const std::string& path, int port) {
  if (kind == "pty") return path.empty() ? DeviceKind::kTerminal : DevicePlace::terminalAt(path);
  if (kind == "tcp") return DevicePlace::tcpAt(port);
  if (kind == "unix") return path.empty() ? DeviceKind::kUnix : DevicePlace::unixAt(path);
  throw py::value_error(R"(the kind of a simulator is "pty", "tcp" or "unix")");
}

// Runs on the device's thread. An answer that cannot be had is reported as Python reports what
// nobody can catch, and is a prompt.
DeviceAnswer respondWith(const py::function& respond, const std::string& command) {
  if (isEnding) return {};
  const py::gil_scoped_acquire lock;
  try {
    return respond(bytesOf(command)).cast<DeviceAnswer>();
  } catch (py::error_already_set& error) {
    error.discard_as_unraisable("a simulator's respond");
  } catch (const py::cast_error& error) {
    PyErr_SetString(PyExc_TypeError, error.what());
    PyErr_WriteUnraisable(respond.ptr());
  }
  return {};
}

// The function is released with the interpreter's lock held, whichever thread releases it.
std::function<DeviceAnswer(const std::string&)> respondOf(
    const std::optional<py::function>& given) {
  if (!given.has_value()) return {};
  const std::shared_ptr<py::function> respond(new py::function(*given), [](py::function* function) {
    const py::gil_scoped_acquire lock;
    delete function;
  });
  return [respond](const std::string& command) { return respondWith(*respond, command); };
}

DeviceAnswer makeAnswer(std::string text, const std::string& then, bool isSilent,
                        std::optional<Milliseconds> delay, std::optional<std::string> prompt,
                        Milliseconds away) {
  using Then = DeviceAnswer::Then;
  static const std::map<std::string, Then> kinds = {{"prompt", Then::kPrompt},
                                                    {"nothing", Then::kNothing},
                                                    {"hang_up", Then::kHangUp},
                                                    {"reboot", Then::kReboot}};
  const auto found = kinds.find(then);
  if (found == kinds.end()) {
    throw py::value_error(R"(after an answer comes "prompt", "nothing", "hang_up" or "reboot")");
  }
  DeviceAnswer answer(std::move(text));
  answer.then = found->second;
  answer.isSilent = isSilent;
  answer.delay = delay;
  answer.prompt = std::move(prompt);
  answer.away = away;
  return answer;
}

class Simulator {
 public:
  Simulator(const std::string& kind, const std::string& path, int port, DeviceBehaviour behaviour)
      : _device(
            std::make_unique<SimulatedDevice>(placeOf(kind, path, port), std::move(behaviour))) {}
  Simulator(const std::string& kind, const std::string& path, int port,
            const DeviceRecording& recording)
      : _device(std::make_unique<SimulatedDevice>(placeOf(kind, path, port), recording)) {}
  Simulator(const Simulator&) = delete;
  // NOLINTNEXTLINE(bugprone-exception-escape): pybind11's release does not throw here.
  ~Simulator() { close(); }

  /// Calls the device without the interpreter's lock, which its thread may need.
  template <class Function>
  auto call(Function function) const {
    if (_device == nullptr) throw py::value_error("the simulator is closed");
    const py::gil_scoped_release release;
    return function(*_device);
  }
  void close() {
    const py::gil_scoped_release release;
    _device.reset();
  }

 private:
  std::unique_ptr<SimulatedDevice> _device;
};

// An operation of the device as a function of the simulator.
template <class... Arguments, class Operation>
auto onDevice(Operation operation) {
  return [operation](const Simulator& one, Arguments... arguments) {
    return one.call([&](SimulatedDevice& device) { return (device.*operation)(arguments...); });
  };
}

std::vector<py::bytes> listOf(const std::vector<std::string>& texts) {
  std::vector<py::bytes> result;
  result.reserve(texts.size());
  for (const std::string& text : texts) result.push_back(bytesOf(text));
  return result;
}

ConsoleOptions optionsOf(std::optional<Pattern> prompt, std::string log, std::string rawLog,
                         double timeout, double quiet, std::string lineEnd, bool keepEscapes,
                         size_t limit, std::optional<uint64_t> ecid) {
  ConsoleOptions options;
  options.prompt = std::move(prompt);
  options.log = std::move(log);
  options.rawLog = std::move(rawLog);
  options.timeout = Seconds(timeout);
  options.quiet = Seconds(quiet);
  options.lineEnd = std::move(lineEnd);
  options.keepEscapes = keepEscapes;
  options.limit = limit;
  options.ecid = ecid;
  return options;
}

void addConsole(py::module_& module) {
  // The docstrings are those of _zephal.pyi.
  py::class_<Pattern>(module, "Pattern",
                      "What to look for: a text, or an expression made with ``regex``. Immutable.")
      .def(py::init([](const std::string& text) { return Pattern(text); }))
      .def_property_readonly(
          "source", [](const Pattern& pattern) { return bytesOf(pattern.source()); },
          "The text or the expression, as it was given.")
      .def_property_readonly("is_expression", &Pattern::isExpression,
                             "Whether it was made with ``regex``.")
      .def("__repr__",
           [](const Pattern& pattern) { return "<zephal pattern " + pattern.description() + ">"; });
  // Unlike the constructor, this survives a lack of memory; see BytesConsole.
  module.def("text", [](const std::string& text) { return Pattern(text); });
  module.def("regex", [](const std::string& expression) { return regex(expression); });
  py::class_<Cancel, std::shared_ptr<Cancel>>(module, "Cancel")
      .def(py::init())
      .def("set", &Cancel::set);
  py::class_<CancelScope>(module, "CancelScope")
      .def(py::init<const std::shared_ptr<Cancel>&>())
      .def("__enter__", &CancelScope::enter)
      .def("__exit__", [](CancelScope& scope, const py::args&) { scope.leave(); });
  py::class_<BytesConsole>(module, "BytesConsole")
      .def_static("unopened", [] { return BytesConsole(); })
      .def("open",
           [](BytesConsole& console, const std::string& url, std::optional<Pattern> prompt,
              std::string log, std::string rawLog, double timeout, double quiet,
              std::string lineEnd, bool keepEscapes, size_t limit, std::optional<uint64_t> ecid) {
             console.open(url,
                          optionsOf(std::move(prompt), std::move(log), std::move(rawLog), timeout,
                                    quiet, std::move(lineEnd), keepEscapes, limit, ecid));
           })
      .def("expect", &BytesConsole::expect)
      .def("ask", &BytesConsole::ask)
      .def("ask_and_pick", &BytesConsole::askAndPick)
      .def("run", &BytesConsole::run)
      .def("login", &BytesConsole::login)
      .def("send", &BytesConsole::send)
      .def("send_secret", &BytesConsole::sendSecret)
      .def("write", &BytesConsole::write)
      .def("send_control", &BytesConsole::sendControl)
      .def("record", &BytesConsole::record)
      .def("discard", &BytesConsole::discard)
      .def("reopen", &BytesConsole::reopen)
      .def("reboot", &BytesConsole::reboot)
      .def("cancel", &BytesConsole::cancel)
      .def("close", &BytesConsole::close)
      .def("is_open", &BytesConsole::isOpen)
      .def("lost", &BytesConsole::lost);
}

void addBehaviour(py::module_& module) {
  py::class_<DeviceAnswer>(module, "DeviceAnswer").def(py::init(&makeAnswer));
  py::class_<DeviceLogin>(module, "DeviceLogin")
      .def(py::init([](std::string user, std::string password, std::string userPrompt,
                       std::string passwordPrompt, std::string refusal, std::string welcome,
                       std::string logout) {
        return DeviceLogin{std::move(user),           std::move(password), std::move(userPrompt),
                           std::move(passwordPrompt), std::move(refusal),  std::move(welcome),
                           std::move(logout)};
      }));
  py::class_<DeviceBehaviour>(module, "DeviceBehaviour")
      .def(py::init())
      .def_readwrite("boot_text", &DeviceBehaviour::bootText)
      .def_readwrite("login", &DeviceBehaviour::login)
      .def_readwrite("prompt", &DeviceBehaviour::prompt)
      .def_readwrite("terminator", &DeviceBehaviour::terminator)
      .def_readwrite("echoes", &DeviceBehaviour::echoes)
      .def_readwrite("translates_line_ends", &DeviceBehaviour::translatesLineEnds)
      .def_readwrite("responses", &DeviceBehaviour::responses)
      .def("set_respond",
           [](DeviceBehaviour& behaviour, const py::function& respond) {
             behaviour.respond = respondOf(respond);
           })
      .def_readwrite("delay", &DeviceBehaviour::delay)
      .def_readwrite("pause", &DeviceBehaviour::pause)
      .def_readwrite("trickles", &DeviceBehaviour::trickles)
      .def_readwrite("splits_after", &DeviceBehaviour::splitsAfter)
      .def_readwrite("splits_prompt_after", &DeviceBehaviour::splitsPromptAfter)
      .def_readwrite("hangs_up_after", &DeviceBehaviour::hangsUpAfter)
      .def_readwrite("is_silent", &DeviceBehaviour::isSilent)
      .def_readwrite("floods", &DeviceBehaviour::floods);
  py::class_<DeviceRecording>(module, "DeviceRecording")
      .def(py::init([](const std::string& path, std::string lineEnd, std::string prompt,
                       bool keepsPauses, std::string identifier) {
        return DeviceRecording::fromRawLog(
            path, {std::move(lineEnd), std::move(prompt), keepsPauses, std::move(identifier)});
      }));
}

void addSimulator(py::module_& module) {
  using Device = SimulatedDevice;
  using Bytes = const std::string&;
  const auto bytesOfCommands = [](auto operation) {
    return [operation](const Simulator& one) {
      return listOf(one.call([&](Device& device) { return (device.*operation)(); }));
    };
  };
  py::class_<Simulator>(module, "Simulator")
      .def(py::init<Bytes, Bytes, int, DeviceBehaviour>())
      .def(py::init<Bytes, Bytes, int, const DeviceRecording&>())
      .def("url", onDevice<>(&Device::url))
      .def("set_behaviour", onDevice<const DeviceBehaviour&>(&Device::setBehaviour))
      .def("received",
           [](const Simulator& one) {
             return bytesOf(one.call([](Device& device) { return device.received(); }));
           })
      .def("commands", bytesOfCommands(&Device::commands))
      .def("unknown_commands", bytesOfCommands(&Device::unknownCommands))
      .def("connections", onDevice<>(&Device::connections))
      .def("forget_received", onDevice<>(&Device::forgetReceived))
      .def("wait_for_received", onDevice<Bytes, Milliseconds>(&Device::waitForReceived))
      .def("wait_for_commands", onDevice<size_t, Milliseconds>(&Device::waitForCommands))
      .def("wait_for_connections", onDevice<size_t, Milliseconds>(&Device::waitForConnections))
      .def("wait_until_all_is_sent", onDevice<Milliseconds>(&Device::waitUntilAllIsSent))
      .def("wait_until_on", onDevice<Milliseconds>(&Device::waitUntilOn))
      .def("send", onDevice<Bytes>(&Device::send))
      .def("hang_up", onDevice<>(&Device::hangUp))
      .def("reset_connection", onDevice<>(&Device::resetConnection))
      .def("stop_listening", onDevice<>(&Device::stopListening))
      .def("power_off", onDevice<>(&Device::powerOff))
      .def("power_on", onDevice<>(&Device::powerOn))
      .def("reboot", onDevice<Milliseconds>(&Device::reboot))
      .def("is_on", onDevice<>(&Device::isOn))
      .def("close", &Simulator::close);
}

}  // namespace

PYBIND11_MODULE(_zephal, module) {
  py::register_exception_translator(translate);
  addConsole(module);
  addBehaviour(module);
  addSimulator(module);
  py::module_::import("atexit").attr("register")(
      py::cpp_function([process = ::getpid()] { endOperations(process); }));
}
