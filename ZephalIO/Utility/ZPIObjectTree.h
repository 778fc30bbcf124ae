// What is done with a whole tree of objects, each without recursion: nesting has no limit, a
// thread's stack has.
#pragma once

#include <string>

#include "Utility/ZPIObjectKind.h"
#include "Utility/ZPKArray.h"
#include "Utility/ZPKDictionary.h"

/// What ZPIWalkObjectTree meets, in the order in which it would be written down. A visitor that
/// returns false ends the walk.
class ZPIObjectVisitor {
 public:
  virtual bool beginDictionary(const ZPKDictionary& dictionary) = 0;
  /// The key of the value that comes next.
  virtual bool key(const std::string& key) = 0;
  virtual void endDictionary() = 0;
  virtual bool beginArray(const ZPKArray& array) = 0;
  virtual void endArray() = 0;
  /// An object of any other kind, null included.
  virtual bool leaf(ZPIObjectKind kind, const ZPKObject* object) = 0;

 protected:
  ~ZPIObjectVisitor() = default;
};

/// Shows every object of a tree to `visitor`. False if the visitor ended the walk.
bool ZPIWalkObjectTree(const ZPKObject* root, ZPIObjectVisitor* visitor);

/// isEqual for trees. Parts that are one and the same object are not looked into.
bool ZPIObjectTreesAreEqual(const ZPKObject& left, const ZPKObject& right);

/// The tree on one line, after the diagnostic notation of CBOR (RFC 8949, section 8).
std::string ZPIObjectTreeDescription(const ZPKObject& root);

/// Lets go of the parts of a dictionary or array that is being destroyed. Parts that are thereby
/// destroyed hand their own parts to the outermost such call on this thread, which has released all
/// of them when it returns.
void ZPIReleaseWithoutRecursion(ZPKDictionary::Entries entries);
void ZPIReleaseWithoutRecursion(ZPKArray::Elements elements);
