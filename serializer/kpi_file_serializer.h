// Records go to one data file per LicSN; a file beyond the size threshold, or
// any file on a flush, is closed and handed to the collector's upload.
//
// Callers only queue. One writer thread, asleep while the queue is empty, does
// all file work: every record is synchronised to storage before the next one
// is taken, so that a crash loses at most the record being written.
//
// Life: constructed -> Initialize() -> records and flushes -> Finalize() ->
// destroyed. Files still open at destruction are closed and stay where they
// are; the next Initialize() sends or deletes them. File format and recovery:
// docs/formats/data_file.md.
//
// Locks: fileMutex, held across uploads; queueMutex, a leaf. Never both.
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
  uint32_t kpiId = 0;  // Routes the record; 0 for raw buffers, all ones for a flush.
  uint64_t samples = 0;
};

class KPIFileSerializer : public KPISerializer {
 public:
  KPIFileSerializer() : KPISerializer("KPIFileSerializer") {}
  ~KPIFileSerializer() override;

  // Deals with left-over files, makes a file for each LicSN of the collector's
  // key table and starts the writer thread. 0, or -1 when cacheDir cannot be
  // read or there is no thread. The collector is borrowed.
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

  // Writes out and sends what is queued, and ends the writer thread. 0.
  int Finalize() override ORB_EXCLUDES(queueMutex, fileMutex);
  // Ends the writer thread once the queue is drained. This and Finalize are
  // the owner's calls, one at a time.
  void stopWriterThread() ORB_EXCLUDES(queueMutex, fileMutex);
  void Abandon() override ORB_EXCLUDES(queueMutex, fileMutex) { stopWriterThread(); }
  bool AdoptInChild() override ORB_EXCLUDES(queueMutex, fileMutex);

  // Sends the LicSN's file, then starts a fresh one, or none. Records that are
  // still queued are not waited for.
  void EnableLicSN(uint64_t licSN) ORB_EXCLUDES(fileMutex);
  void DisableLicSN(uint64_t licSN) ORB_EXCLUDES(fileMutex);
  // Sends the LicSN's file without a new one; -1 when there is none.
  int fileFlushforLicSN(uint64_t licSN) ORB_REQUIRES(fileMutex);

 private:
  static constexpr char kFlush[] = "Flush";  // The control word.

  struct CloseFile {
    void operator()(FILE* file) const { (void)fclose(file); }
  };
  using File = std::unique_ptr<FILE, CloseFile>;

  // Queue and writer thread (kpi_file_serializer.cpp).
  void addFlushToQueue() ORB_EXCLUDES(queueMutex);
  // The caller notifies the writer when it has let go of the mutex.
  void Push(std::shared_ptr<kpiDataStruct> item) ORB_REQUIRES(queueMutex);
  // An empty item, used before where there is one: memory that the writer frees
  // on its own thread is slow to get back on another.
  std::shared_ptr<kpiDataStruct> TakeItem() ORB_REQUIRES(queueMutex);
  // Waits for the next item; null once the writer is to stop. `done` is the one
  // before it, or null.
  std::shared_ptr<kpiDataStruct> NextItem(std::shared_ptr<kpiDataStruct> done)
      ORB_EXCLUDES(queueMutex);
  // Keeps the item for TakeItem, or leaves it: a large one is freed without the mutex.
  void ItemDone(std::shared_ptr<kpiDataStruct>* item) ORB_REQUIRES(queueMutex);
  // Without memory for what it takes the record may be lost and not in the books.
  void WriteItem(const kpiDataStruct& item) ORB_EXCLUDES(fileMutex);
  void writer_func() ORB_EXCLUDES(queueMutex, fileMutex);

  // Files (kpi_file_serializer_files.cpp).
  int handleTmpFile() ORB_REQUIRES(fileMutex);
  void RecoverFile(const std::string& path) ORB_REQUIRES(fileMutex);
  void prepare_file(const kpiDataStruct& item) ORB_EXCLUDES(fileMutex);
  void AddToEveryFile(const kpiDataStruct& item) ORB_REQUIRES(fileMutex);
  void add_to_file(uint64_t licSN, const kpiDataStruct& item) ORB_REQUIRES(fileMutex);
  // Books what of the item got into the open file.
  void Book(uint64_t licSN, const kpiDataStruct& item, size_t written) ORB_REQUIRES(fileMutex);
  void BookWithoutFile(uint64_t licSN, const kpiDataStruct& item) ORB_REQUIRES(fileMutex);
  // Files with records stay where they are; the next Initialize sends them.
  void LeaveFiles() ORB_EXCLUDES(fileMutex);
  int createFout(uint64_t licSN) ORB_REQUIRES(fileMutex);
  // Makes header and version record the whole content. False, with a part of
  // them written, when the disk is full.
  bool WriteStart(uint64_t licSN, FILE* file) ORB_REQUIRES(fileMutex);
  // Closes the LicSN's file and sends it, or deletes it when it has no record.
  // The result of that; with reopen, 1 when both this and the creation of the
  // next file failed, else 0. -1 when no file is open.
  int fileFlush(uint64_t licSN, bool reopen) ORB_REQUIRES(fileMutex);
  int removeLicSNfromMap(uint64_t licSN) ORB_REQUIRES(fileMutex);
  std::string TmpPath(uint64_t licSN) const ORB_REQUIRES(fileMutex);

  // Unbounded: callers must not wait for storage, and a record is never
  // dropped. It grows only while storage is slower than the client.
  std::deque<std::shared_ptr<kpiDataStruct>> queue ORB_GUARDED_BY(queueMutex);
  orb::Mutex queueMutex;
  bool stopWriter ORB_GUARDED_BY(queueMutex) = false;
  std::vector<std::shared_ptr<kpiDataStruct>> spares ORB_GUARDED_BY(queueMutex);
  Backlog queued ORB_GUARDED_BY(queueMutex);  // With the item that is being written.
  orb::CondVar queueCv;
  orb::Thread writerThread;
  std::string cacheDir ORB_GUARDED_BY(fileMutex);
  std::map<uint64_t, File> fileMap ORB_GUARDED_BY(fileMutex);  // By LicSN; null: no file now.
  std::set<uint64_t> tornFiles ORB_GUARDED_BY(fileMutex);  // LicSNs whose file holds half a record.
  std::set<uint64_t> stopped ORB_GUARDED_BY(fileMutex);    // LicSNs that DisableLicSN named.
  orb::Mutex fileMutex;
  uint32_t emptyFileSize ORB_GUARDED_BY(fileMutex) = 0;  // Bytes of a file without a record.
  std::string versionRecord ORB_GUARDED_BY(fileMutex);   // Empty with an overridden header.
};
