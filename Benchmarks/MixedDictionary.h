#pragma once

#include <ZephalIO/ZephalIO.h>

/// 1,000 entries: texts, numbers of three kinds, bytes, and dictionaries of three entries.
ZPKDictionaryPtr mixedDictionary();
