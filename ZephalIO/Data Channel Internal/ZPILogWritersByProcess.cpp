#include "Data Channel Internal/ZPILogWritersByProcess.h"

#include <memory>
#include <utility>

#include "Utility/ZPIProcessID.h"

ZPILogWritersByProcess::ZPILogWritersByProcess(std::string filePath)
    : _latest(new ZPILogWriter(std::move(filePath))) {}

ZPILogWritersByProcess::~ZPILogWritersByProcess() {
  ZPILogWriter* writer = _latest.load();
  if (writer->process() == ZPIProcessID()) delete std::exchange(writer, writer->parents());
  for (; writer != nullptr; writer = writer->parents()) writer->abandon();
}

// If two threads create the writer of a child at the same time, one writer is kept.
ZPILogWriter& ZPILogWritersByProcess::ofThisProcess() const {
  ZPILogWriter* writer = _latest.load(std::memory_order_acquire);
  if (writer->process() == ZPIProcessID()) return *writer;
  auto own = std::make_unique<ZPILogWriter>(writer);
  if (_latest.compare_exchange_strong(writer, own.get())) return *own.release();
  return *writer;
}
