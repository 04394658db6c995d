// Which collector a token of the manager, or a region token of the HAL, names.
//
// A look-up pins the collector. Before a collector is destroyed, its owner calls Forget,
// which removes its entries and waits until the last pin is gone. So a callback never
// reaches a destroyed collector, although it holds no lock while it runs.
//
// Thread-safe. The one mutex is a leaf: nothing is called with it held.
// Tested by tests/ipc/hal_client_test.cpp.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "utility/thread_annotations.h"

class RoutedCollector;

class CollectorRoutes {
 public:
  // Move-only. Stays on its thread, must not outlive the routes. Empty when nothing was
  // found.
  class Pin {
   public:
    Pin() = default;
    Pin(Pin&& other) noexcept;
    Pin& operator=(Pin&&) = delete;
    ~Pin();
    RoutedCollector* operator->() const { return collector_; }
    explicit operator bool() const { return collector_ != nullptr; }

   private:
    friend class CollectorRoutes;
    Pin(CollectorRoutes* routes, RoutedCollector* collector);
    static bool HeldByThisThread(const RoutedCollector* collector);
    void Link();
    void Unlink();

    // The pins of this thread.
    static thread_local Pin* first_;
    Pin* before_ = nullptr;
    Pin* after_ = nullptr;
    CollectorRoutes* routes_ = nullptr;
    RoutedCollector* collector_ = nullptr;
  };

  // Replaces an entry of the same token.
  void Add(const std::string& token, RoutedCollector* collector) ORB_EXCLUDES(mapMutex_);
  void Remove(const std::string& token) ORB_EXCLUDES(mapMutex_);

  // Completions of the region go to the collector, registered or not.
  void AddRegion(uint32_t fdToken, RoutedCollector* collector) ORB_EXCLUDES(mapMutex_);
  // A number that no other region gets; 0 for an unknown token.
  uint64_t RegionSerial(uint32_t fdToken) ORB_EXCLUDES(mapMutex_);
  // No effect if the token names another region by now.
  void RemoveRegion(uint32_t fdToken, uint64_t serial) ORB_EXCLUDES(mapMutex_);
  // Forgets one region and returns its token and collector; nullopt when none is left.
  // Allocates nothing, so that the death of the HAL reaches every region's collector.
  std::optional<std::pair<uint32_t, Pin>> TakeRegion() ORB_EXCLUDES(mapMutex_);

  Pin Find(const std::string& token) ORB_EXCLUDES(mapMutex_);
  Pin FindRegion(uint32_t fdToken) ORB_EXCLUDES(mapMutex_);
  // One pin for each token, in the tokens' order.
  std::vector<Pin> FindAll() ORB_EXCLUDES(mapMutex_);
  // Like FindAll, and forgets all tokens. Region tokens stay.
  std::vector<Pin> TakeAll() ORB_EXCLUDES(mapMutex_);

  // Blocks while the collector is pinned. The caller holds no lock that a
  // pinned call might need, and is not inside such a call itself.
  void Forget(RoutedCollector* collector) ORB_EXCLUDES(mapMutex_);

 private:
  struct Region {
    RoutedCollector* collector;
    uint64_t serial;
  };
  std::vector<Pin> PinAllLocked() ORB_REQUIRES(mapMutex_);
  Pin PinLocked(RoutedCollector* collector) ORB_REQUIRES(mapMutex_);
  void Unpin(RoutedCollector* collector) ORB_EXCLUDES(mapMutex_);

  orb::Mutex mapMutex_;
  orb::CondVar unpinned_;
  std::map<std::string, RoutedCollector*> tokens_ ORB_GUARDED_BY(mapMutex_);
  std::map<uint32_t, Region> regions_ ORB_GUARDED_BY(mapMutex_);
  uint64_t last_serial_ ORB_GUARDED_BY(mapMutex_) = 0;
  // One entry for each collector that was ever routed and not forgotten.
  std::map<RoutedCollector*, uint32_t> pins_ ORB_GUARDED_BY(mapMutex_);
};
