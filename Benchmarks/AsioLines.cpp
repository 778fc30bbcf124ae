#include "AsioLines.h"

#ifndef ZEPHALIO_BENCH_HAS_ASIO

bool AsioLines::isInstalled() { return false; }

std::shared_ptr<AsioLines> AsioLines::onUnixSocket(int /*fd*/, size_t /*room*/) { return nullptr; }

#else

#include <asio.hpp>
#include <string>

namespace {

class AsioUnixLines final : public AsioLines {
 public:
  AsioUnixLines(int fd, size_t room) : _socket(_context, asio::local::stream_protocol(), fd) {
    _buffer.prepare(room);
  }

  void write(std::string_view command) override {
    asio::write(_socket, asio::buffer(command.data(), command.size()));
  }

  size_t readLine() override {
    const size_t length = asio::read_until(_socket, _buffer, '\n');
    const std::string line(static_cast<const char*>(_buffer.data().data()), length);
    asm volatile("" : : "r"(line.data()) : "memory");
    _buffer.consume(length);
    return line.size();
  }

 private:
  asio::io_context _context;
  asio::local::stream_protocol::socket _socket;
  asio::streambuf _buffer;
};

}  // namespace

bool AsioLines::isInstalled() { return true; }

std::shared_ptr<AsioLines> AsioLines::onUnixSocket(int fd, size_t room) {
  return std::make_shared<AsioUnixLines>(fd, room);
}

#endif
