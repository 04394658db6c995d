// A collector's side of its registration: the client that it goes through, and
// what the manager assigned. Thread-safe; its mutex is a leaf.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "utility/thread_annotations.h"

class kivAIDLClient;

class ManagerLink {
 public:
  // Null before the first registration and after the connection was lost.
  std::shared_ptr<kivAIDLClient> client() const ORB_EXCLUDES(mutex_);
  // Takes the process-wide client, or the one set for tests.
  std::shared_ptr<kivAIDLClient> ObtainClient() ORB_EXCLUDES(mutex_);
  // True when there was one.
  bool ResetClient() ORB_EXCLUDES(mutex_);
  void SetClientForTest(std::shared_ptr<kivAIDLClient> client) ORB_EXCLUDES(mutex_);

  void SetIdentity(const std::string& token, int32_t client_id) ORB_EXCLUDES(mutex_);
  std::string token() const ORB_EXCLUDES(mutex_);
  int32_t client_id() const ORB_EXCLUDES(mutex_);

  // Call in the child of a fork(). False when a thread of the parent was inside.
  bool AdoptInChild() ORB_EXCLUDES(mutex_) { return mutex_.IsFree(); }

 private:
  mutable orb::Mutex mutex_;
  std::shared_ptr<kivAIDLClient> client_ ORB_GUARDED_BY(mutex_);
  std::shared_ptr<kivAIDLClient> client_for_test_ ORB_GUARDED_BY(mutex_);
  std::string token_ ORB_GUARDED_BY(mutex_);
  int32_t client_id_ ORB_GUARDED_BY(mutex_) = 0;
};
