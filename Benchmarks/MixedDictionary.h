#pragma once

#include <ZephalIO/ZephalIO.h>

/// 1,000 entries: strings, numbers of three kinds, bytes, and dictionaries of three entries.
ZPKDictionaryPtr mixedDictionary();
