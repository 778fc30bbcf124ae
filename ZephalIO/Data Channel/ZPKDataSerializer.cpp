#include "Data Channel/ZPKDataSerializer.h"

ZPKDataSerializer::~ZPKDataSerializer() = default;
