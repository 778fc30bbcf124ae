#pragma once

#include <atomic>

#include "Utility/ZPKMutableData.h"

/// Makes everything that former holders did with the data visible to this thread, which is now the
/// only holder.
inline void ZPIOrderAfterFormerHolders([[maybe_unused]] const ZPKDataPtr& data) {
#ifdef __SANITIZE_THREAD__
  const ZPKDataPtr reference = data;  // ThreadSanitizer does not know fences
#else
  std::atomic_thread_fence(std::memory_order_acquire);
#endif
}

/// Puts a mutable copy in the place of `*data`, which must not be null.
void ZPIReplaceByMutableCopy(ZPKDataPtr* data);

/// Makes `*data`, which must not be null, data that the caller may edit, and returns it. If it is
/// mutable and nobody else holds it, it stays; otherwise a mutable copy takes its place.
inline ZPKMutableData* ZPIUnshare(ZPKDataPtr* data) {
  bool isOwn = data->use_count() == 1;
  if (isOwn) {
    // The last other holder may just have released the data on a different thread.
    ZPIOrderAfterFormerHolders(*data);
    isOwn = (*data)->isMutable();
  }
  if (!isOwn) ZPIReplaceByMutableCopy(data);
  return static_cast<ZPKMutableData*>(const_cast<ZPKData*>(data->get()));
}
