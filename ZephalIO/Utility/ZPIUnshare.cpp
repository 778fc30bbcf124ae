#include "Utility/ZPIUnshare.h"

void ZPIReplaceByMutableCopy(ZPKDataPtr* data) { *data = (*data)->mutableCopy(); }
