// Death recipients. A recipient owns its links; proxies hold weak references to them.
// Tested by tests/platform_ndk/death_test.cpp.
#include <atomic>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

#include "platform/linux/ndk/internal.h"

using android::IBinder;
using android::sp;
using android::status_t;
using android::wp;
using orb_platform::Prune;

namespace {

class Link;

// The links of one recipient, which owns the set.
class LinkSet {
 public:
  void Add(const sp<Link>& link) ORB_EXCLUDES(mutex_);
  // The newest armed link of these, no longer in the set; or null.
  sp<Link> Take(const IBinder* binder, const void* cookie) ORB_EXCLUDES(mutex_);
  std::vector<sp<Link>> TakeAll() ORB_EXCLUDES(mutex_);
  void Remove(const Link* link) ORB_EXCLUDES(mutex_);
  // Removes links whose proxies are destroyed, because nothing else removes them.
  void DropUseless() ORB_EXCLUDES(mutex_);

 private:
  orb::Mutex mutex_;
  std::vector<sp<Link>> links_ ORB_GUARDED_BY(mutex_);
};

// The link that one linkToDeath makes: armed, then died or unlinked, then destroyed. Its
// destructor runs onUnlinked, so no lock is held there.
class Link : public IBinder::DeathRecipient {
 public:
  Link(const std::shared_ptr<LinkSet>& set, const sp<IBinder>& binder, void* cookie,
       AIBinder_DeathRecipient_onBinderDied on_died,
       AIBinder_DeathRecipient_onBinderUnlinked on_unlinked)
      : set_(set), binder_(binder), cookie_(cookie), on_died_(on_died), on_unlinked_(on_unlinked) {}

  // on_died_ may delete the recipient that owns this link.
  void binderDied(const wp<IBinder>& who) override {
    if (Disarm()) on_died_(cookie_);
    const std::shared_ptr<LinkSet> set = set_.lock();
    if (set == nullptr) return;
    set->Remove(this);
    // As on Android, one notice also disarms a second link with the same cookie.
    const sp<Link> twin = set->Take(who.unsafe_get(), cookie_);
    if (twin != nullptr) static_cast<void>(twin->Disarm());
  }

  // True once.
  bool Disarm() { return armed_.exchange(false); }
  bool Is(const IBinder* binder, const void* cookie) const {
    return armed_.load() && binder_ == binder && cookie_ == cookie;
  }
  bool ProxyIsGone() const { return binder_.promote() == nullptr; }
  // NAME_NOT_FOUND when the proxy is gone.
  status_t Unlink() {
    const sp<IBinder> binder = binder_.promote();
    if (binder == nullptr) return android::NAME_NOT_FOUND;
    return binder->unlinkToDeath(wp<IBinder::DeathRecipient>(this), cookie_, 0);
  }

 protected:
  ~Link() override {
    if (on_unlinked_ != nullptr) on_unlinked_(cookie_);
  }

 private:
  const std::weak_ptr<LinkSet> set_;
  const wp<IBinder> binder_;
  void* const cookie_;
  const AIBinder_DeathRecipient_onBinderDied on_died_;
  const AIBinder_DeathRecipient_onBinderUnlinked on_unlinked_;
  std::atomic<bool> armed_{true};
};

void LinkSet::Add(const sp<Link>& link) {
  orb::MutexLock lock(mutex_);
  links_.push_back(link);
}

sp<Link> LinkSet::Take(const IBinder* binder, const void* cookie) {
  orb::MutexLock lock(mutex_);
  for (auto it = links_.rbegin(); it != links_.rend(); ++it) {
    if (!(*it)->Is(binder, cookie)) continue;
    const sp<Link> link = *it;
    links_.erase(std::next(it).base());
    return link;
  }
  return nullptr;
}

std::vector<sp<Link>> LinkSet::TakeAll() {
  orb::MutexLock lock(mutex_);
  return std::exchange(links_, {});
}

void LinkSet::Remove(const Link* link) {
  orb::MutexLock lock(mutex_);
  // The caller holds a reference, so this destroys no link under the lock.
  std::erase_if(links_, [link](const sp<Link>& each) { return each.get() == link; });
}

void LinkSet::DropUseless() {
  std::vector<sp<Link>> useless;  // Outlives the lock.
  orb::MutexLock lock(mutex_);
  std::vector<sp<Link>> kept;
  for (const sp<Link>& link : links_) (link->ProxyIsGone() ? useless : kept).push_back(link);
  links_.swap(kept);
}

}  // namespace

struct AIBinder_DeathRecipient {
 public:
  explicit AIBinder_DeathRecipient(AIBinder_DeathRecipient_onBinderDied on_died)
      : on_died_(on_died) {}
  // A callback that another thread has begun may still run after this.
  ~AIBinder_DeathRecipient() {
    for (const sp<Link>& link : links_->TakeAll()) {
      if (link->Disarm()) link->Unlink();
    }
  }

  void SetOnUnlinked(AIBinder_DeathRecipient_onBinderUnlinked on_unlinked) {
    on_unlinked_ = on_unlinked;
  }

  binder_status_t LinkTo(const sp<IBinder>& binder, void* cookie) {
    links_->DropUseless();
    const sp<Link> link(new Link(links_, binder, cookie, on_died_, on_unlinked_.load()));
    // Added first, so that a death which is reported at once can remove it.
    links_->Add(link);
    const status_t status = binder->linkToDeath(link, cookie, 0);
    if (status != android::OK) links_->Remove(link.get());
    return Prune(status);
  }

  binder_status_t UnlinkFrom(const IBinder* binder, const void* cookie) {
    const sp<Link> link = links_->Take(binder, cookie);
    if (link == nullptr || !link->Disarm()) return STATUS_NAME_NOT_FOUND;
    return Prune(link->Unlink());
  }

 private:
  const AIBinder_DeathRecipient_onBinderDied on_died_;
  std::atomic<AIBinder_DeathRecipient_onBinderUnlinked> on_unlinked_{nullptr};
  const std::shared_ptr<LinkSet> links_ = std::make_shared<LinkSet>();
};

AIBinder_DeathRecipient* AIBinder_DeathRecipient_new(AIBinder_DeathRecipient_onBinderDied on_died) {
  return on_died == nullptr ? nullptr : new AIBinder_DeathRecipient(on_died);
}

void AIBinder_DeathRecipient_setOnUnlinked(AIBinder_DeathRecipient* recipient,
                                           AIBinder_DeathRecipient_onBinderUnlinked on_unlinked) {
  if (recipient != nullptr) recipient->SetOnUnlinked(on_unlinked);
}

void AIBinder_DeathRecipient_delete(AIBinder_DeathRecipient* recipient) { delete recipient; }

binder_status_t AIBinder_linkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                     void* cookie) {
  if (binder == nullptr || recipient == nullptr) return STATUS_UNEXPECTED_NULL;
  return recipient->LinkTo(binder->Binder(), cookie);
}

binder_status_t AIBinder_unlinkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                       void* cookie) {
  if (binder == nullptr || recipient == nullptr) return STATUS_UNEXPECTED_NULL;
  return recipient->UnlinkFrom(binder->Binder().get(), cookie);
}
