// Writes records to one data file per LicSN. A file that exceeds the size threshold, and
// every file on a flush, is closed and given to the collector to be sent.
//
// Callers only queue records. One writer thread does all work with files and sleeps while
// the queue is empty. It synchronises every record to storage before it takes the next one,
// so a crash loses at most the record that is being written.
//
// Life: constructed -> Initialize() -> records and flushes -> Finalize() ->
// destroyed. Files that are open at destruction are closed and stay where they are; the next
// Initialize() sends or deletes them. docs/formats/data_file.md explains format and recovery.
//
// No thread holds both locks at once: fileMutex is held during uploads, queueMutex is a leaf.
#pragma once

#include <cstdint>
#include <cstdio>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "ledger/delivery_ledger.h"
#include "serializer/kpi_serializer.h"
#include "utility/thread.h"
#include "utility/thread_annotations.h"

// One queued record, or a control word.
struct kpiDataStruct {
  std::string data;    // A serialized KPIData, or "Flush".
  uint32_t kpiId = 0;  // Finds the owners; 0 for raw buffers, all ones for a flush.
  uint64_t samples = 0;
};

class KPIFileSerializer : public KPISerializer {
 public:
  KPIFileSerializer() : KPISerializer("KPIFileSerializer") {}
  ~KPIFileSerializer() override;

  // Starts the writer thread, sends or deletes files that were left over, and makes a file
  // for each LicSN of the collector's key table. Returns 0, or -1 when cacheDir cannot be read
  // or no thread can be started. Borrows the collector.
  int Initialize(const char* cacheDir, unsigned int sizeThreshold, unsigned int timeThreshold,
                 SerializerOwner* collector) ORB_EXCLUDES(fileMutex);

  // These queue and return 0; they never wait for storage.
  int Write(orbtr::KPIData& data, unsigned int kpiId) override ORB_EXCLUDES(queueMutex);
  int WriteBuf(const unsigned char* buf, unsigned int len) override ORB_EXCLUDES(queueMutex);
  int Flush() override ORB_EXCLUDES(queueMutex);

  // Not supported: logs and answers -1.
  int WriteBlobSegsOptimized(unsigned int kpiId, uint64_t tsStart, uint64_t tsEnd,
                             unsigned int numSamples, const kiv_blob_segment_t* segs,
                             unsigned int count) override;

  Backlog backlog() override ORB_EXCLUDES(queueMutex);

  // Writes and sends all that is queued, and ends the writer thread. Always 0.
  int Finalize() override ORB_EXCLUDES(queueMutex, fileMutex);
  // Ends the writer thread when the queue is empty. Only the owner calls this and Finalize,
  // one at a time.
  void stopWriterThread() ORB_EXCLUDES(queueMutex, fileMutex);
  void Abandon() override ORB_EXCLUDES(queueMutex, fileMutex) { stopWriterThread(); }
  bool AdoptInChild() override ORB_EXCLUDES(queueMutex, fileMutex);

  // Sends the file of the LicSN. Then EnableLicSN starts a new one, and DisableLicSN does not.
  // Neither waits for records that are still queued.
  void EnableLicSN(uint64_t licSN) ORB_EXCLUDES(fileMutex);
  void DisableLicSN(uint64_t licSN) ORB_EXCLUDES(fileMutex);
  // Sends the file of the LicSN and starts no new one; -1 when there is none.
  int fileFlushforLicSN(uint64_t licSN) ORB_REQUIRES(fileMutex);

 private:
  static constexpr char kFlush[] = "Flush";  // The control word.

  struct CloseFile {
    void operator()(FILE* file) const { (void)fclose(file); }
  };
  using File = std::unique_ptr<FILE, CloseFile>;

  // Queue and writer thread (kpi_file_serializer.cpp).
  void addFlushToQueue() ORB_EXCLUDES(queueMutex);
  // The caller must notify the writer after it released the mutex.
  void Push(std::shared_ptr<kpiDataStruct> item) ORB_REQUIRES(queueMutex);
  // Reuses an item if one is spare: memory freed on the writer's thread is slow to allocate
  // again here.
  std::shared_ptr<kpiDataStruct> TakeItem() ORB_REQUIRES(queueMutex);
  // Waits for the next item; null when the writer must stop. `done` is the previous item, or
  // null.
  std::shared_ptr<kpiDataStruct> NextItem(std::shared_ptr<kpiDataStruct> done)
      ORB_EXCLUDES(queueMutex);
  // Keeps the item for TakeItem, or leaves it to the caller: a large item must be freed after
  // the mutex is released.
  void ItemDone(std::shared_ptr<kpiDataStruct>* item) ORB_REQUIRES(queueMutex);
  // When memory is short the record may be lost, and the books may not show it.
  void WriteItem(const kpiDataStruct& item) ORB_EXCLUDES(fileMutex);
  void writer_func() ORB_EXCLUDES(queueMutex, fileMutex);

  // Files (kpi_file_serializer_files.cpp).
  int handleTmpFile() ORB_REQUIRES(fileMutex);
  void RecoverFile(const std::string& path) ORB_REQUIRES(fileMutex);
  void prepare_file(const kpiDataStruct& item) ORB_EXCLUDES(fileMutex);
  void AddToEveryFile(const kpiDataStruct& item) ORB_REQUIRES(fileMutex);
  void add_to_file(uint64_t licSN, const kpiDataStruct& item) ORB_REQUIRES(fileMutex);
  // Tells the ledger how much of the item got into the open file.
  void Book(uint64_t licSN, const kpiDataStruct& item, size_t written) ORB_REQUIRES(fileMutex);
  void BookWithoutFile(uint64_t licSN, const kpiDataStruct& item) ORB_REQUIRES(fileMutex);
  // Leaves files with records where they are, for the next Initialize to send.
  void LeaveFiles() ORB_EXCLUDES(fileMutex);
  int createFout(uint64_t licSN) ORB_REQUIRES(fileMutex);
  // Replaces the content of the file by header and version record. False when only a part
  // was written because the disk is full.
  bool WriteStart(uint64_t licSN, FILE* file) ORB_REQUIRES(fileMutex);
  // Closes the file of the LicSN, and sends it, or deletes it when it has no record. -1 when no
  // file is open. Without `reopen` returns the result of sending or deleting. With it also
  // creates the next file, and returns 1 when both failed, else 0.
  int fileFlush(uint64_t licSN, bool reopen) ORB_REQUIRES(fileMutex);
  int removeLicSNfromMap(uint64_t licSN) ORB_REQUIRES(fileMutex);
  std::string TmpPath(uint64_t licSN) const ORB_REQUIRES(fileMutex);

  // Has no bound, because callers must not wait for storage and no record is dropped. It
  // grows only while storage is slower than the client.
  std::deque<std::shared_ptr<kpiDataStruct>> queue ORB_GUARDED_BY(queueMutex);
  orb::Mutex queueMutex;
  bool stopWriter ORB_GUARDED_BY(queueMutex) = false;
  std::vector<std::shared_ptr<kpiDataStruct>> spares ORB_GUARDED_BY(queueMutex);
  Backlog backlog_ ORB_GUARDED_BY(queueMutex);  // Includes the item being written.
  orb::CondVar queueCv;
  orb::Thread writerThread;
  std::string cacheDir ORB_GUARDED_BY(fileMutex);
  std::map<uint64_t, File> fileMap ORB_GUARDED_BY(fileMutex);  // By LicSN; null: not open.
  std::set<uint64_t> tornFiles ORB_GUARDED_BY(fileMutex);  // LicSNs whose file holds half a record.
  std::set<uint64_t> stopped ORB_GUARDED_BY(fileMutex);    // LicSNs that DisableLicSN named.
  orb::Mutex fileMutex;
  uint32_t emptyFileSize ORB_GUARDED_BY(fileMutex) = 0;  // Bytes of a file without a record.
  std::string versionRecord ORB_GUARDED_BY(fileMutex);   // Empty with an overridden header.
};
