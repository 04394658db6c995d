// A spooled upload, opened with the one key that the seeds are sealed with.
#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_key.h"
#include "reader/record_splitter.h"
#include "reader/upload_reader.h"

using namespace orb::reader;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::vector<PrivateKey> keys = {{"key", orb::fuzz::kPrivatePem}};
  for (const std::vector<PrivateKey>& some : {keys, std::vector<PrivateKey>()}) {
    const Upload upload = OpenUpload({data, size}, some);
    FUZZ_CHECK(upload.reason.empty() == (upload.status == UploadStatus::kOpened));
    FUZZ_CHECK(upload.offset_bytes <= size);
    const Upload salvaged = SalvageUpload({data, size}, some);
    uint64_t skipped_bytes = 0;
    for (const Skipped& part : salvaged.skipped) skipped_bytes += part.bytes;
    FUZZ_CHECK(salvaged.skipped.empty() == (upload.status == UploadStatus::kOpened));
    FUZZ_CHECK(salvaged.status == UploadStatus::kOpened || skipped_bytes == size);
    RecordSplitter splitter(upload.data());
    PayloadRecord record;
    while (splitter.Next(&record)) {
    }
  }
  return 0;
}
