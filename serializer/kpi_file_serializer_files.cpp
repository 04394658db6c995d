// file := header:66 [version-record] record*      see docs/formats/data_file.md
// Tested by tests/serializer/kpi_file_serializer_test.cpp.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <vector>

#include "serializer/kpi_file_serializer.h"
#include "serializer/serializer_owner.h"
#include "utility/contained.h"
#include "utility/error_text.h"
#include "utility/files.h"
#include "utility/log.h"

using orb::LossCause;

namespace {

constexpr char kTmpSuffix[] = ".tmp";
constexpr size_t kSkippedPathChars = 17;

unsigned long long Printable(uint64_t licSN) { return licSN; }

// Returns the path without its first characters, which are the same on every device, or an
// empty string when no character is left.
const char* Shortened(const std::string& path) {
  return path.size() > kSkippedPathChars ? path.c_str() + kSkippedPathChars : "";
}

// Writes the bytes and synchronises the file. False when not all bytes reached storage;
// *written is the number of bytes that a reader of the file finds.
bool WriteThrough(FILE* file, const void* bytes, size_t count, size_t* written = nullptr) {
  const size_t taken = count == 0 ? 0 : orb::Files::Write(bytes, count, file);
  const bool flushed = fflush(file) == 0;
  const bool synced = orb::Files::Sync(fileno(file)) == 0;
  if (written != nullptr) *written = taken;
  return taken == count && flushed && synced;
}

Tally TallyOf(const kpiDataStruct& item) { return {1, item.samples, item.data.size()}; }

void LogWriteError(const char* operation) { LOGE("%s: error writing to file", operation); }

// Lists the names in the directory that begin with `prefix` and contain ".tmp". All are listed
// before the first is treated, because uploads change the directory.
bool ListTmpFiles(const std::string& directory, const std::string& prefix,
                  std::vector<std::string>* names) {
  const auto close = [](DIR* opened) { closedir(opened); };
  const std::unique_ptr<DIR, decltype(close)> dir(opendir(directory.c_str()), close);
  if (dir == nullptr) return false;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread uses this stream.
  while (const dirent* entry = readdir(dir.get())) {
    const std::string name = entry->d_name;
    if (name.compare(0, prefix.size(), prefix) == 0 && name.find(kTmpSuffix) != std::string::npos) {
      names->push_back(name);
    }
  }
  std::sort(names->begin(), names->end());
  return true;
}

}  // namespace

int KPIFileSerializer::handleTmpFile() {
  std::vector<std::string> names;
  if (!ListTmpFiles(cacheDir, collector->name(), &names)) {
    LOGE("%s: Failed to open cache dir %s - err: %s", "handleTmpFile", cacheDir.c_str(),
         orb::ErrorText(errno).c_str());
    return -1;
  }
  for (const std::string& name : names) RecoverFile(cacheDir + "/" + name);

  const auto& keys = tables->keys;
  LOGI("%s: Creating %d new tmp files - %s", "handleTmpFile", static_cast<int>(keys.size()),
       collector->name().c_str());
  for (const auto& [licSN, key] : keys) createFout(licSN);
  return 0;
}

void KPIFileSerializer::RecoverFile(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    LOGE("%s: error in stat() call on tmpfile %s - err: %s", "handleTmpFile", path.c_str(),
         orb::ErrorText(errno).c_str());
    return;
  }
  if (status.st_size <= static_cast<off_t>(emptyFileSize)) {
    LOGI("%s: Deleting old tmp file with no data - %s", "handleTmpFile", path.c_str());
    unlink(path.c_str());
    collector->ledger().Settle(path, LossCause::kUnreadable);
    return;
  }
  LOGI("%s: Sending old tmp file with data - %s", "handleTmpFile", path.c_str());
  collector->SendData(path);
}

void KPIFileSerializer::prepare_file(const kpiDataStruct& item) {
  orb::MutexLock lock(fileMutex);
  if (item.data == kFlush) {
    LOGD("%s: Flush received in thread", "prepare_file");
    for (const auto& entry : fileMap) fileFlush(entry.first, true);
    return;
  }
  if (collector->custom_session_format()) return AddToEveryFile(item);
  const auto owners = tables->kpis.Find(item.kpiId);
  if (owners.empty()) return AddToEveryFile(item);
  for (const auto& [kpi, licSN] : owners) {
    if (fileMap.count(licSN) != 0) {
      add_to_file(licSN, item);
    } else {
      LOGE("%s: fout not found for lic SN: %llu", "prepare_file", Printable(licSN));
      BookWithoutFile(licSN, item);
    }
  }
}

// A flush during the loop changes values of the map, never its keys.
void KPIFileSerializer::AddToEveryFile(const kpiDataStruct& item) {
  for (const auto& entry : fileMap) add_to_file(entry.first, item);
  const auto& owners = tables->keys;
  for (const auto& [licSN, key] : owners) {
    if (fileMap.count(licSN) == 0) BookWithoutFile(licSN, item);
  }
  if (owners.empty()) collector->ledger().Lost(0, LossCause::kNoOwner, TallyOf(item));
}

void KPIFileSerializer::add_to_file(uint64_t licSN, const kpiDataStruct& item) {
  LOGD("%s: licsn - %llu", "add_to_file", Printable(licSN));
  FILE* file = fileMap[licSN].get();
  if (file == nullptr) {
    LOGE("%s: error: fout is NULL for licSN %llu - skipping data", "add_to_file", Printable(licSN));
    BookWithoutFile(licSN, item);
    return;
  }
  // After half a header every record would be misread, and so would the LicSN, which decides
  // whether the upload is encrypted. So no record is written before the header is whole.
  if (ftell(file) < static_cast<long>(emptyFileSize) && !WriteStart(licSN, file)) {
    collector->ledger().Lost(licSN, LossCause::kShortWrite, TallyOf(item));
    return LogWriteError("add_to_file");
  }
  size_t written = 0;
  if (!WriteThrough(file, item.data.data(), item.data.size(), &written)) {
    LogWriteError("add_to_file");
  }
  Book(licSN, item, written);
  const long position = ftell(file);
  if (position >= 1 && static_cast<uint64_t>(position) > sizeThreshold) fileFlush(licSN, true);
}

void KPIFileSerializer::Book(uint64_t licSN, const kpiDataStruct& item, size_t written) {
  if (item.data.empty()) return;
  DeliveryLedger& ledger = collector->ledger();
  if (written < item.data.size()) {
    if (written != 0) tornFiles.insert(licSN);
    ledger.Lost(licSN, LossCause::kShortWrite, TallyOf(item));
  } else if (tornFiles.count(licSN) != 0) {
    ledger.Lost(licSN, LossCause::kTorn, TallyOf(item));
  } else {
    ledger.Written(licSN, TallyOf(item));
  }
}

void KPIFileSerializer::BookWithoutFile(uint64_t licSN, const kpiDataStruct& item) {
  const LossCause cause = stopped.count(licSN) != 0 ? LossCause::kStopped : LossCause::kNoFile;
  collector->ledger().Lost(licSN, cause, TallyOf(item));
}

int KPIFileSerializer::createFout(uint64_t licSN) {
  const std::string path = TmpPath(licSN);
  File file(orb::Files::Open(path.c_str(), "w+be"));
  if (file == nullptr) {
    LOGE("%s: file creation failed - %s - err: %s", "createFout", Shortened(path),
         orb::ErrorText(errno).c_str());
    return -1;
  }
  LOGI("%s: tmpfile created %s", "createFout", Shortened(path));
  tornFiles.erase(licSN);
  // This replaced a file of that name that could not be opened to be sent.
  collector->ledger().Settle(path, LossCause::kUnreadable);
  // Every write is synchronised at once anyway, and without a buffer a write that fails is
  // seen where it happens.
  static_cast<void>(setvbuf(file.get(), nullptr, _IONBF, 0));
  if (!WriteStart(licSN, file.get())) LogWriteError("createFout");
  fileMap[licSN] = std::move(file);
  return 0;
}

bool KPIFileSerializer::WriteStart(uint64_t licSN, FILE* file) {
  const std::vector<uint8_t> header = collector->BuildFileHeader(licSN);
  std::string start(header.begin(), header.end());
  start += versionRecord;
  rewind(file);
  return ftruncate(fileno(file), 0) == 0 && WriteThrough(file, start.data(), start.size());
}

int KPIFileSerializer::fileFlush(uint64_t licSN, bool reopen) {
  const std::string path = TmpPath(licSN);  // May throw, so it comes before any change.
  File file = std::move(fileMap[licSN]);
  if (file == nullptr) {
    LOGE("%s: error: fout is NULL for licSN %llu - not flushing", "fileFlush", Printable(licSN));
    return -1;
  }
  const long size = ftell(file.get());
  WriteThrough(file.get(), nullptr, 0);
  file.reset();
  collector->ledger().Close(licSN, path);
  const int result =
      size > static_cast<long>(emptyFileSize) ? collector->SendData(path) : unlink(path.c_str());
  if (!reopen) return result;
  int created = -1;
  orb::Contained("createFout",
                 [&]() ORB_NO_THREAD_SAFETY_ANALYSIS { created = createFout(licSN); });
  return result != 0 && created != 0 ? 1 : 0;
}

void KPIFileSerializer::EnableLicSN(uint64_t licSN) {
  orb::MutexLock lock(fileMutex);
  fileFlushforLicSN(licSN);
  removeLicSNfromMap(licSN);
  stopped.erase(licSN);
  createFout(licSN);
}

void KPIFileSerializer::DisableLicSN(uint64_t licSN) {
  orb::MutexLock lock(fileMutex);
  fileFlushforLicSN(licSN);
  removeLicSNfromMap(licSN);
  stopped.insert(licSN);
}

int KPIFileSerializer::fileFlushforLicSN(uint64_t licSN) {
  return fileMap.count(licSN) != 0 ? fileFlush(licSN, false) : -1;
}

int KPIFileSerializer::removeLicSNfromMap(uint64_t licSN) {
  if (fileMap.erase(licSN) != 0) {
    LOGD("%s: Removed Lic SN - %llu from map", "removeLicSNfromMap", Printable(licSN));
  } else {
    LOGE("%s: could not find Lic Sn - %llu in map", "removeLicSNfromMap", Printable(licSN));
  }
  return 0;
}

std::string KPIFileSerializer::TmpPath(uint64_t licSN) const {
  return cacheDir + "/" + collector->name() + "-" + std::to_string(licSN) + kTmpSuffix;
}
