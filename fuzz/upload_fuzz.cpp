// A spooled upload, opened with the one key that the seeds are sealed with.
#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_key.h"
#include "tools/orbctl/record_splitter.h"
#include "tools/orbctl/upload_reader.h"

using namespace orb::orbctl;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::vector<PrivateKey> keys = {{"key", orb::fuzz::kPrivatePem}};
  for (const std::vector<PrivateKey>& some : {keys, std::vector<PrivateKey>()}) {
    const Upload upload = OpenUpload({data, size}, some);
    FUZZ_CHECK(upload.reason.empty() == (upload.status == UploadStatus::kOpened));
    FUZZ_CHECK(upload.offset_bytes <= size);
    RecordSplitter splitter(
        {reinterpret_cast<const char*>(upload.records.data()), upload.records.size()});
    PayloadRecord record;
    while (splitter.Next(&record)) {
    }
  }
  return 0;
}
