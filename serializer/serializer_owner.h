// What a serializer needs of the collector that it works for.
//
// The owner outlives its serializers. Any thread of a serializer may make these calls while it
// holds the mutexes of the serializer. So an implementation must not take those, nor any that
// is held while a serializer is called.
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

  // These never change. They take no lock.
  virtual const std::string& name() const = 0;
  virtual bool header_override() const = 0;
  virtual bool custom_session_format() const = 0;

  // The tables of the session that the serializer is made for. Takes a leaf lock.
  virtual std::shared_ptr<const LicSnTables> tables() const = 0;

  // The books of what becomes of records. They have a leaf lock of their own.
  virtual DeliveryLedger& ledger() = 0;
  // A serializer reports at its end the most items that its queue held. Takes no lock.
  virtual void NoteQueueDepth(uint64_t depth) = 0;

  // The 66 header bytes of a new file of this LicSN: constants, campaign, client id and the
  // present time. Takes the header's leaf lock.
  virtual std::vector<uint8_t> BuildFileHeader(uint64_t licSN) = 0;
  // Compresses, seals and sends one closed data file, then deletes it. The HAL's
  // status; -1 when nothing was sent. Takes leaves and, for the whole upload, the
  // locks of the way to the HAL.
  virtual int SendData(const std::string& path) = 0;

  // Announces a region of shared memory and borrows its descriptor. `done` is called, with no
  // lock held, for each piece that was consumed. Null when it fails. This and the next two take
  // the leaf lock of the handles, and wait for the HAL without it.
  virtual kiv_fd_handle_s* SetFD(int fd, uint32_t offset, uint32_t length, kiv_fd_done_cb done) = 0;
  // Announces one filled piece of the region, by the token in its handle. Returns the HAL's
  // result, or -1. `done` may be called before it returns. Also takes the leaf locks of header
  // and upload number.
  virtual int FdWrite(const std::atomic<uint32_t>& fdToken, uint64_t unused, uint32_t offset,
                      uint32_t size) = 0;
  // Withdraws the region. Waits for a `done` that runs on another thread. No `done` begins
  // after it returned.
  virtual int UnsetFD(kiv_fd_handle_s* handle, const std::atomic<uint32_t>& fdToken) = 0;

 protected:
  SerializerOwner() = default;
  ~SerializerOwner() = default;  // Protected: a collector is not destroyed through this class.
};
