// Tested by tests/ipc/hal_client_test.cpp.
#include "ipc/collector_routes.h"

#include <utility>

#include "utility/check.h"
#include "utility/checked.h"

thread_local CollectorRoutes::Pin* CollectorRoutes::Pin::first_ = nullptr;

CollectorRoutes::Pin::Pin(CollectorRoutes* routes, RoutedCollector* collector)
    : routes_(routes), collector_(collector) {
  Link();
}

CollectorRoutes::Pin::Pin(Pin&& other) noexcept {
  if (other.routes_ == nullptr) return;
  other.Unlink();
  routes_ = std::exchange(other.routes_, nullptr);
  collector_ = std::exchange(other.collector_, nullptr);
  Link();
}

CollectorRoutes::Pin::~Pin() {
  if (routes_ == nullptr) return;
  Unlink();
  routes_->Unpin(collector_);
}

void CollectorRoutes::Pin::Link() {
  after_ = std::exchange(first_, this);
  if (after_ != nullptr) after_->before_ = this;
}

void CollectorRoutes::Pin::Unlink() {
  ORB_CHECK(before_ != nullptr || first_ == this);  // Else it is another thread's.
  (before_ != nullptr ? before_->after_ : first_) = after_;
  if (after_ != nullptr) after_->before_ = before_;
}

bool CollectorRoutes::Pin::HeldByThisThread(const RoutedCollector* collector) {
  const Pin* pin = first_;
  while (pin != nullptr && pin->collector_ != collector) pin = pin->after_;
  return pin != nullptr;
}

void CollectorRoutes::Add(const std::string& token, RoutedCollector* collector) {
  orb::MutexLock lock(mapMutex_);
  pins_.try_emplace(collector, 0);
  tokens_[token] = collector;
}

void CollectorRoutes::Remove(const std::string& token) {
  orb::MutexLock lock(mapMutex_);
  tokens_.erase(token);
}

void CollectorRoutes::AddRegion(uint32_t fdToken, RoutedCollector* collector) {
  orb::MutexLock lock(mapMutex_);
  pins_.try_emplace(collector, 0);
  last_serial_ = orb::CheckedAdd<uint64_t>(last_serial_, 1);
  regions_[fdToken] = {collector, last_serial_};
}

uint64_t CollectorRoutes::RegionSerial(uint32_t fdToken) {
  orb::MutexLock lock(mapMutex_);
  const auto found = regions_.find(fdToken);
  return found == regions_.end() ? 0 : found->second.serial;
}

void CollectorRoutes::RemoveRegion(uint32_t fdToken, uint64_t serial) {
  orb::MutexLock lock(mapMutex_);
  const auto found = regions_.find(fdToken);
  if (found != regions_.end() && found->second.serial == serial) regions_.erase(found);
}

std::optional<std::pair<uint32_t, CollectorRoutes::Pin>> CollectorRoutes::TakeRegion() {
  orb::MutexLock lock(mapMutex_);
  const auto first = regions_.begin();
  if (first == regions_.end()) return std::nullopt;
  const auto [fdToken, region] = *first;
  regions_.erase(first);
  return std::make_pair(fdToken, PinLocked(region.collector));
}

CollectorRoutes::Pin CollectorRoutes::Find(const std::string& token) {
  orb::MutexLock lock(mapMutex_);
  const auto found = tokens_.find(token);
  return PinLocked(found == tokens_.end() ? nullptr : found->second);
}

CollectorRoutes::Pin CollectorRoutes::FindRegion(uint32_t fdToken) {
  orb::MutexLock lock(mapMutex_);
  const auto found = regions_.find(fdToken);
  return PinLocked(found == regions_.end() ? nullptr : found->second.collector);
}

std::vector<CollectorRoutes::Pin> CollectorRoutes::FindAll() {
  orb::MutexLock lock(mapMutex_);
  return PinAllLocked();
}

std::vector<CollectorRoutes::Pin> CollectorRoutes::TakeAll() {
  orb::MutexLock lock(mapMutex_);
  std::vector<Pin> all = PinAllLocked();
  tokens_.clear();
  return all;
}

void CollectorRoutes::Forget(RoutedCollector* collector) {
  ORB_CHECK(!Pin::HeldByThisThread(collector));
  orb::MutexLock lock(mapMutex_);
  std::erase_if(tokens_, [=](const auto& entry) { return entry.second == collector; });
  std::erase_if(regions_, [=](const auto& entry) { return entry.second.collector == collector; });
  for (;;) {
    const auto pin = pins_.find(collector);
    if (pin == pins_.end()) return;
    if (pin->second == 0) {
      pins_.erase(pin);
      return;
    }
    unpinned_.Wait(mapMutex_);
  }
}

std::vector<CollectorRoutes::Pin> CollectorRoutes::PinAllLocked() {
  std::vector<Pin> all;
  all.reserve(tokens_.size());
  for (const auto& entry : tokens_) all.push_back(PinLocked(entry.second));
  return all;
}

CollectorRoutes::Pin CollectorRoutes::PinLocked(RoutedCollector* collector) {
  if (collector == nullptr) return Pin();
  const auto pin = pins_.find(collector);
  ORB_CHECK(pin != pins_.end());  // Add() makes the entry.
  pin->second = orb::CheckedAdd<uint32_t>(pin->second, 1);
  return Pin(this, collector);
}

void CollectorRoutes::Unpin(RoutedCollector* collector) {
  orb::MutexLock lock(mapMutex_);
  const auto pin = pins_.find(collector);
  ORB_CHECK(pin != pins_.end() && pin->second > 0);
  if (--pin->second == 0) unpinned_.NotifyAll();
}
