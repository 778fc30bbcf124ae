#pragma once

#include <atomic>
#include <cstdint>

/// The descriptor that a channel holds, and how many threads are in a system call on it.
///
/// One thread may give a descriptor up while another uses it. If its number were free at that
/// moment, the next file that the process opens would get it, and the rest of a write with it. So
/// uses are counted, and the last one out, whoever that is, closes the descriptor.
///
/// No lock, and no allocation but for holding a new descriptor while the last one, given up long
/// ago, is still used. Any thread may call anything at any time.
class ZPIHeldDescriptor {
  struct Place;

 public:
  /// One use of one descriptor, from use() until leave(), which must be called exactly once. One
  /// thread's own.
  class Use {
   public:
    /// False: nothing was held. Nothing else may then be asked.
    explicit operator bool() const { return _place != nullptr; }
    int32_t descriptor() const { return _descriptor; }
    /// Whether the descriptor is still held; to be asked ahead of each call on it.
    bool isHeld() const;
    /// Whether there are other uses.
    bool isShared() const;
    /// Ends the holding of the descriptor. False if that had ended before.
    bool giveUp();
    /// Ends this use. True if the descriptor was given up and this was the last: the caller is to
    /// close it.
    bool leave();

    Use() = default;

   private:
    friend class ZPIHeldDescriptor;
    explicit Use(Place* place) : _place(place), _descriptor(place->descriptor) {}

    Place* _place = nullptr;
    int32_t _descriptor = -1;
  };

  /// Holds `descriptor`; nothing if it is negative.
  explicit ZPIHeldDescriptor(int32_t descriptor);
  ZPIHeldDescriptor(const ZPIHeldDescriptor&) = delete;
  ZPIHeldDescriptor& operator=(const ZPIHeldDescriptor&) = delete;
  /// Closes nothing. No use may be left.
  ~ZPIHeldDescriptor();

  /// Whether a descriptor is held. Who sees that it was given up sees all that was done before.
  bool isHeld() const;
  /// Holds `descriptor` from here on; nothing if it is negative. What was held must have been given
  /// up.
  void hold(int32_t descriptor);
  /// A use of what is held.
  Use use();

 private:
  // Of one descriptor at a time. A place is taken again once its descriptor is given up and nobody
  // uses it; it lives as long as the object, so that whoever still looks at it may.
  struct Place {
    std::atomic<uint32_t> state{0};  // the number of uses, and kHeld
    int32_t descriptor = -1;         // changed while `state` is kTaken alone
    Place* older = nullptr;
  };

  static constexpr uint32_t kHeld = 1U << 31U;
  static constexpr uint32_t kTaken = 1;

  Place* takeFreePlace();

  Place _first;
  std::atomic<Place*> _newest{&_first};
  std::atomic<Place*> _current{&_first};
};
