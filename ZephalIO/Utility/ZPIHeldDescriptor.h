#pragma once

#include <atomic>
#include <cstdint>

/// The file descriptor that a channel holds, and the number of threads in a system call on it.
///
/// One thread may give up a descriptor while another uses it. If the number became free at that
/// moment, the next file that the process opens would get it, and would receive the rest of a
/// running write. So uses are counted, and the thread that ends the last one closes the descriptor.
///
/// There is no lock. Memory is allocated only to hold a new descriptor while the previous one,
/// although given up, is still in use. Any thread may call anything at any time.
class ZPIHeldDescriptor {
  struct Place;

 public:
  /// One thread's use of one descriptor, from use() until leave(), which must be called exactly one
  /// time.
  class Use {
   public:
    /// False if no descriptor was held. Nothing else may then be called.
    explicit operator bool() const { return _place != nullptr; }
    int32_t descriptor() const { return _descriptor; }
    /// Whether the descriptor is still held; ask before each system call on it.
    bool isHeld() const;
    /// Whether there are other uses.
    bool isShared() const;
    /// Gives up the descriptor. False if it had been given up before.
    bool giveUp();
    /// Ends this use. True if the descriptor was given up and this was its last use: the caller
    /// must then close it.
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
  /// Closes nothing. There must be no uses left.
  ~ZPIHeldDescriptor();

  /// Whether a descriptor is held. A thread that sees that it was given up also sees everything
  /// that was done before that.
  bool isHeld() const;
  /// Holds `descriptor` from now on; nothing if it is negative. The previous one must have been
  /// given up.
  void hold(int32_t descriptor);
  /// A use of the descriptor that is held.
  Use use();

 private:
  // The place of one descriptor at a time. It is reused once its descriptor is given up and has no
  // uses left. It lives as long as the object, so a thread may look at it at any time.
  struct Place {
    std::atomic<uint32_t> state{0};  // the number of uses, plus kHeld
    int32_t descriptor = -1;         // changed only while `state` is kTaken
    Place* older = nullptr;
  };

  static constexpr uint32_t kHeld = 1U << 31U;
  static constexpr uint32_t kTaken = 1;

  Place* takeFreePlace();

  Place _first;
  std::atomic<Place*> _newest{&_first};
  std::atomic<Place*> _current{&_first};
};
