// The queue, the writer thread, and start and end of the serializer. The files are in
// kpi_file_serializer_files.cpp.
// Tested by tests/serializer/kpi_file_serializer_test.cpp.
#include "serializer/kpi_file_serializer.h"

#include <algorithm>
#include <new>
#include <utility>

#include "proto/kpi_data.pb.h"
#include "serializer/serializer_owner.h"
#include "serializer/telemetry_header.h"
#include "utility/checked.h"
#include "utility/contained.h"
#include "utility/error_text.h"
#include "utility/log.h"

namespace {

constexpr uint32_t kFlushKpiId = 0xFFFFFFFF;
constexpr uint32_t kRawKpiId = 0;
// Spare items for the next records: enough for a thousand windows that close together.
constexpr size_t kSparesMax = 1024;
constexpr size_t kSpareBytesMax = 256;
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
                                  unsigned int timeThreshold, SerializerOwner* collector) {
  {
    orb::MutexLock lock(fileMutex);
    this->cacheDir = cacheDir != nullptr ? cacheDir : "";
    this->sizeThreshold = sizeThreshold;
    this->timeThreshold = timeThreshold;
    this->collector = collector;
    tables = collector->tables();
    fileMap.clear();
    versionRecord = collector->header_override() ? std::string() : VersionRecord();
    emptyFileSize = orb::CheckedAdd<uint32_t>(TelemetryHeader::kBytes, versionRecord.size());
  }
  // The thread comes first: when it cannot be started, no file must have been made.
  {
    orb::MutexLock lock(queueMutex);
    stopWriter = false;
  }
  const int error = writerThread.Start(kThreadName, [this] { writer_func(); });
  if (error != 0) {
    LOGE("%s: no writer thread: %s", "Initialize", orb::ErrorText(error).c_str());
    return -1;
  }
  orb::MutexLock lock(fileMutex);
  return handleTmpFile() < 0 ? -1 : 0;
}

int KPIFileSerializer::Write(orbtr::KPIData& data, unsigned int kpiId) {
  {
    orb::MutexLock lock(queueMutex);
    std::shared_ptr<kpiDataStruct> item = TakeItem();
    // Does what SerializeToString does, but without a stream and without growing the string.
    item->data.resize(data.ByteSizeLong());
    data.SerializeWithCachedSizesToArray(reinterpret_cast<uint8_t*>(item->data.data()));
    item->kpiId = kpiId;
    item->samples = SamplesOf(data);
    Push(std::move(item));
  }
  queueCv.NotifyOne();
  return 0;
}

int KPIFileSerializer::WriteBuf(const unsigned char* buf, unsigned int len) {
  {
    orb::MutexLock lock(queueMutex);
    std::shared_ptr<kpiDataStruct> item = TakeItem();
    if (len != 0) item->data.assign(reinterpret_cast<const char*>(buf), len);
    item->kpiId = kRawKpiId;
    Push(std::move(item));
  }
  queueCv.NotifyOne();
  return 0;
}

int KPIFileSerializer::WriteBlobSegsOptimized(unsigned int kpiId, uint64_t, uint64_t, unsigned int,
                                              const kiv_blob_segment_t*, unsigned int) {
  LOGE("%s not supported in KPIFileSerializer", "WriteBlobSegsOptimized");
  if (collector != nullptr) {
    for (const uint64_t owner : tables->OwnersOf(kpiId)) {
      collector->ledger().Lost(owner, orb::LossCause::kEncode, {1, 1, 0});
    }
  }
  return -1;
}

int KPIFileSerializer::Flush() {
  addFlushToQueue();
  return 0;
}

int KPIFileSerializer::Finalize() {
  // When there is no memory for the flush, the files stay and the next Initialize sends them.
  orb::Contained("Finalize", [this] { addFlushToQueue(); });
  stopWriterThread();
  // This must come last: with a threshold of 0 each queued record would be sent on its own.
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
  writerThread.Join();
  collector->NoteQueueDepth(KPIFileSerializer::backlog().depth_max);
  LeaveFiles();
}

bool KPIFileSerializer::AdoptInChild() {
  new (&writerThread) orb::Thread;
  queueCv.ForgetWaiters();
  return queueMutex.IsFree() && fileMutex.IsFree();
}

void KPIFileSerializer::LeaveFiles() {
  orb::MutexLock lock(fileMutex);
  orb::Contained("LeaveFiles", [this]() ORB_NO_THREAD_SAFETY_ANALYSIS {
    for (const auto& [licSN, file] : fileMap) {
      if (file != nullptr) collector->ledger().Close(licSN, TmpPath(licSN));
    }
  });
}

void KPIFileSerializer::addFlushToQueue() {
  {
    orb::MutexLock lock(queueMutex);
    Push(std::make_shared<kpiDataStruct>(kpiDataStruct{kFlush, kFlushKpiId}));
  }
  queueCv.NotifyOne();
}

void KPIFileSerializer::Push(std::shared_ptr<kpiDataStruct> item) {
  const uint64_t samples = item->samples;
  queue.push_back(std::move(item));  // May throw, so it comes before the item is counted.
  backlog_.depth = orb::CheckedAdd<uint64_t>(backlog_.depth, 1);
  backlog_.depth_max = std::max(backlog_.depth_max, backlog_.depth);
  backlog_.samples = orb::CheckedAdd<uint64_t>(backlog_.samples, samples);
}

std::shared_ptr<kpiDataStruct> KPIFileSerializer::TakeItem() {
  if (spares.empty()) return std::make_shared<kpiDataStruct>();
  std::shared_ptr<kpiDataStruct> item = std::move(spares.back());
  spares.pop_back();
  return item;
}

void KPIFileSerializer::ItemDone(std::shared_ptr<kpiDataStruct>* item) {
  kpiDataStruct* const done = item->get();
  if (done == nullptr) return;
  backlog_.depth = orb::CheckedSub<uint64_t>(backlog_.depth, 1);
  backlog_.samples = orb::CheckedSub<uint64_t>(backlog_.samples, done->samples);
  if (spares.size() >= kSparesMax || done->data.capacity() > kSpareBytesMax) return;
  done->data.clear();
  done->samples = 0;
  orb::Contained("ItemDone",
                 [&]() ORB_NO_THREAD_SAFETY_ANALYSIS { spares.push_back(std::move(*item)); });
}

std::shared_ptr<kpiDataStruct> KPIFileSerializer::NextItem(std::shared_ptr<kpiDataStruct> done) {
  size_t length;
  std::shared_ptr<kpiDataStruct> item;
  {
    orb::MutexLock lock(queueMutex);
    ItemDone(&done);
    while (queue.empty() && !stopWriter) queueCv.Wait(queueMutex);
    if (stopWriter) return nullptr;
    length = queue.size();
    item = std::move(queue.front());
    queue.pop_front();
  }
  LOGD("%s: q size: %d", "writer_func", static_cast<int>(length));
  return item;
}

KPISerializer::Backlog KPIFileSerializer::backlog() {
  orb::MutexLock lock(queueMutex);
  return backlog_;
}

void KPIFileSerializer::WriteItem(const kpiDataStruct& item) {
  orb::Contained("prepare_file", [&] { prepare_file(item); });
}

void KPIFileSerializer::writer_func() {
  std::shared_ptr<kpiDataStruct> item;
  while ((item = NextItem(std::move(item))) != nullptr) WriteItem(*item);
  // Writes what was queued before the stop, without holding the mutex during a write.
  for (;;) {
    {
      orb::MutexLock lock(queueMutex);
      if (queue.empty()) break;
      item = std::move(queue.front());
      queue.pop_front();
    }
    WriteItem(*item);
  }
  orb::MutexLock lock(queueMutex);
  backlog_.depth = 0;
  backlog_.samples = 0;
}
