// What a serializer needs of the collector that it works for.
//
// The owner outlives its serializers. Every call may come from any thread of a
// serializer, also while that holds its own mutexes, so an implementation takes none
// of those, and none that is held while a serializer is called.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ledger/delivery_ledger.h"
#include "orb_sdk.h"
#include "serializer/licsn_tables.h"

class SerializerOwner {
 public:
  SerializerOwner(const SerializerOwner&) = delete;
  SerializerOwner& operator=(const SerializerOwner&) = delete;

  // Constant for the owner's life. No lock.
  virtual const std::string& name() const = 0;
  virtual bool header_override() const = 0;
  virtual bool custom_session_format() const = 0;

  // The tables of the session that the serializer is made for. Takes a leaf.
  virtual std::shared_ptr<const LicSnTables> tables() const = 0;

  // The books of what becomes of records; they have a leaf of their own.
  virtual DeliveryLedger& ledger() = 0;
  // The most items that a queue held. At the end of a serializer. No lock.
  virtual void NoteQueueDepth(uint64_t depth) = 0;

  // The 66 header bytes of a new file of this LicSN: constants, campaign, client id,
  // timestamps of now. Takes the header's leaf.
  virtual std::vector<uint8_t> BuildFileHeader(uint64_t licSN) = 0;
  // Compresses, seals and sends one closed data file, then deletes it. The HAL's
  // status; -1 when nothing was sent. Takes leaves and, for the whole upload, the
  // locks of the way to the HAL.
  virtual int SendData(const std::string& path) = 0;

  // Announces a region of shared memory whose descriptor is borrowed; `done` is called
  // with no lock held for each piece that was consumed. Null when that fails. Takes the
  // handles' leaf, and waits for the HAL without it; so do the next two.
  virtual kiv_fd_handle_s* SetFD(int fd, uint32_t offset, uint32_t length, kiv_fd_done_cb done) = 0;
  // Announces one filled piece of it, under the token in its handle. The HAL's result,
  // or -1. Also takes the leaves of header and number; `done` may come before it returns.
  virtual int FdWrite(const std::atomic<uint32_t>& fdToken, uint64_t unused, uint32_t offset,
                      uint32_t size) = 0;
  // Withdraws it. Waits for a `done` that runs on another thread; none begins later.
  virtual int UnsetFD(kiv_fd_handle_s* handle, const std::atomic<uint32_t>& fdToken) = 0;

 protected:
  SerializerOwner() = default;
  ~SerializerOwner() = default;  // Nobody destroys a collector through this.
};
