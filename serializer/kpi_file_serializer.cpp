// The queue, the writer thread and the serializer's life; its files are in
// kpi_file_serializer_files.cpp.
// Tested by tests/serializer/kpi_file_serializer_test.cpp.
#include "serializer/kpi_file_serializer.h"

#include <pthread.h>

#include <utility>

#include "collector/kiv_collector.h"
#include "proto/kpi_data.pb.h"
#include "utility/checked.h"
#include "utility/log.h"

namespace {

constexpr uint32_t kFlushKpiId = 0xFFFFFFFF;
constexpr uint32_t kRawKpiId = 0;
constexpr char kThreadName[] = "orb_writer";  // At most 15 characters.

// The first record of a file.
std::string VersionRecord() {
  orbtr::KPIData data;
  data.set_version(orbtr::V1);
  return data.SerializeAsString();
}

}  // namespace

KPIFileSerializer::~KPIFileSerializer() { stopWriterThread(); }

int KPIFileSerializer::Initialize(const char* cacheDir, unsigned int sizeThreshold,
                                  unsigned int timeThreshold, kiv_collector* collector) {
  {
    orb::MutexLock lock(fileMutex);
    this->cacheDir = cacheDir != nullptr ? cacheDir : "";
    this->sizeThreshold = sizeThreshold;
    this->timeThreshold = timeThreshold;
    this->collector = collector;
    fileMap.clear();
    versionRecord = collector->header_override() ? std::string() : VersionRecord();
    emptyFileSize = orb::CheckedAdd<uint32_t>(TelemetryHeader::kBytes, versionRecord.size());
    if (handleTmpFile() < 0) return -1;
  }
  {
    orb::MutexLock lock(queueMutex);
    stopWriter = false;
  }
  writerThread = std::thread([this] { writer_func(); });
  return 0;
}

int KPIFileSerializer::Write(orbtr::KPIData& data, unsigned int kpiId) {
  auto item = std::make_shared<kpiDataStruct>();
  data.SerializeToString(&item->data);
  item->kpiId = kpiId;
  Push(std::move(item));
  return 0;
}

int KPIFileSerializer::WriteBuf(const unsigned char* buf, unsigned int len) {
  auto item = std::make_shared<kpiDataStruct>();
  if (len != 0) item->data.assign(reinterpret_cast<const char*>(buf), len);
  item->kpiId = kRawKpiId;
  Push(std::move(item));
  return 0;
}

size_t KPIFileSerializer::Pending() {
  orb::MutexLock lock(queueMutex);
  return queue.size() + (writing ? 1 : 0);
}

int KPIFileSerializer::WriteBlobSegsOptimized(unsigned int, uint64_t, uint64_t, unsigned int,
                                              const kiv_blob_segment_t*, unsigned int) {
  LOGE("%s not supported in KPIFileSerializer", "WriteBlobSegsOptimized");
  return -1;
}

int KPIFileSerializer::Flush() {
  addFlushToQueue();
  return 0;
}

int KPIFileSerializer::Finalize() {
  addFlushToQueue();
  stopWriterThread();
  // Only now: with a threshold of 0 every queued record would be an upload of its own.
  sizeThreshold = 0;
  return 0;
}

void KPIFileSerializer::stopWriterThread() {
  if (!writerThread.joinable()) return;
  {
    orb::MutexLock lock(queueMutex);
    stopWriter = true;
  }
  queueCv.NotifyOne();
  writerThread.join();
}

void KPIFileSerializer::addFlushToQueue() {
  Push(std::make_shared<kpiDataStruct>(kpiDataStruct{kFlush, kFlushKpiId}));
}

void KPIFileSerializer::Push(std::shared_ptr<kpiDataStruct> item) {
  {
    orb::MutexLock lock(queueMutex);
    queue.push_back(std::move(item));
  }
  queueCv.NotifyOne();
}

std::shared_ptr<kpiDataStruct> KPIFileSerializer::NextItem() {
  size_t queued;
  std::shared_ptr<kpiDataStruct> item;
  {
    orb::MutexLock lock(queueMutex);
    writing = false;
    while (queue.empty() && !stopWriter) queueCv.Wait(queueMutex);
    if (stopWriter) return nullptr;
    queued = queue.size();
    item = std::move(queue.front());
    queue.pop_front();
    writing = true;
  }
  LOGD("%s: q size: %d", "writer_func", static_cast<int>(queued));
  return item;
}

void KPIFileSerializer::writer_func() {
  pthread_setname_np(pthread_self(), kThreadName);
  while (const auto item = NextItem()) prepare_file(*item);
  // What was queued before the stop; callers need not wait while it is written.
  std::deque<std::shared_ptr<kpiDataStruct>> rest;
  {
    orb::MutexLock lock(queueMutex);
    rest.swap(queue);
  }
  for (const auto& item : rest) prepare_file(*item);
}
