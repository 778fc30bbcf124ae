// Operations on a whole tree of objects, all without recursion: nesting has no limit, but a
// thread's stack does.
#pragma once

#include <string>

#include "Utility/ZPIObjectKind.h"
#include "Utility/ZPKArray.h"
#include "Utility/ZPKDictionary.h"

/// Gets what ZPIWalkObjectTree finds, in the order in which it would be written down. A visitor
/// that returns false ends the walk.
class ZPIObjectVisitor {
 public:
  virtual bool beginDictionary(const ZPKDictionary& dictionary) = 0;
  /// The key of the next value.
  virtual bool key(const std::string& key) = 0;
  virtual void endDictionary() = 0;
  virtual bool beginArray(const ZPKArray& array) = 0;
  virtual void endArray() = 0;
  /// An object of any other kind, null included.
  virtual bool leaf(ZPIObjectKind kind, const ZPKObject* object) = 0;

 protected:
  ~ZPIObjectVisitor() = default;
};

/// Passes every object of a tree to `visitor`. False if the visitor ended the walk.
bool ZPIWalkObjectTree(const ZPKObject* root, ZPIObjectVisitor* visitor);

/// isEqual for trees. A part that is the same object on both sides counts as equal unread.
bool ZPIObjectTreesAreEqual(const ZPKObject& left, const ZPKObject& right);

/// The tree on one line, similar to the diagnostic notation of CBOR (RFC 8949, section 8).
std::string ZPIObjectTreeDescription(const ZPKObject& root);

/// Releases the parts of a dictionary or array that is being destroyed. A part that this destroys
/// passes its own parts to the outermost such call on this thread, which returns after it has
/// released all of them.
void ZPIReleaseWithoutRecursion(ZPKDictionary::Entries entries);
void ZPIReleaseWithoutRecursion(ZPKArray::Elements elements);
