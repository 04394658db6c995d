// Puts a damaged header right by what stands behind it, then opens what opens.
// Tested by tests/reader/upload_reader_test.cpp.
#include <string_view>

#include "reader/gunzip.h"
#include "reader/upload_layout.h"
#include "serializer/header_layout.h"

namespace orb::reader {
namespace {

using Bytes = std::vector<uint8_t>;

// A footer starts with the ephemeral key: field 1, 178 bytes of PEM.
constexpr std::string_view kFooterStart = "\x0A\xB2\x01-----BEGIN PUBLIC KEY-----";

void Note(size_t at, uint64_t bytes, std::string reason, Upload* upload) {
  upload->skipped.push_back({Skipped::Of::kFile, at, bytes, std::move(reason)});
}

template <typename T>
void Put(const header::Field<T>& field, T value, const char* reason, Bytes* file, Upload* upload) {
  if (field.Load(file->data()) == value) return;
  field.Store(file->data(), value);
  Note(field.offset, sizeof value, reason, upload);
}

// Offset of the last thing that looks like a footer; 0 for none.
uint32_t FindFooter(const Bytes& file) {
  const std::string_view text(reinterpret_cast<const char*>(file.data()), file.size());
  const size_t at = text.rfind(kFooterStart);
  return at == std::string_view::npos || at <= header::kBytes ? 0 : static_cast<uint32_t>(at);
}

// Bytes behind the announced end go when a footer is in front of it. Others stay:
// the length may be what is wrong.
void MendLength(uint32_t footer_at, Bytes* file, Upload* upload) {
  const uint64_t announced_end = uint64_t{header::kBytes} + header::kLength.Load(file->data());
  if (announced_end < file->size() && footer_at != 0 && announced_end > footer_at) {
    Note(announced_end, file->size() - announced_end, "bytes follow the announced end", upload);
    file->resize(announced_end);
  }
  if (announced_end > file->size()) {
    Note(file->size(), 0,
         "cut short, or the header's length is wrong: it announces " +
             std::to_string(announced_end - file->size()) + " bytes more",
         upload);
  } else if (announced_end < file->size()) {
    Note(header::kLength.offset, 4,
         "the header's length ends the upload " + std::to_string(file->size() - announced_end) +
             " bytes early",
         upload);
  }
  header::kLength.Store(file->data(), static_cast<uint32_t>(file->size() - header::kBytes));
}

void MendSeal(uint32_t footer_at, Bytes* file, Upload* upload) {
  const uint32_t told_at = header::kFooterOffset.Load(file->data());
  const uint8_t flag = header::kEncrypted.Load(file->data());
  const bool sealed = footer_at != 0 && (flag != 0 || told_at != 0);
  if (flag > 1 || (sealed && flag == 0)) {
    Put<uint8_t>(header::kEncrypted, sealed ? 1 : 0, "the encryption flag is wrong", file, upload);
  }
  if (sealed || flag == 0) {
    Put(header::kFooterOffset, sealed ? footer_at : 0, "the footer's offset is wrong", file,
        upload);
  }
}

void MendHeader(Bytes* file, Upload* upload) {
  if (file->size() < header::kBytes) return;
  Put(header::kFormat, header::kFormatWord, "the first word is not 9", file, upload);
  Put(header::kSize, header::kBytes, "the header size is not 66", file, upload);
  Put(header::kConstant, header::kConstantByte, "the constant byte is not 1", file, upload);
  if (header::kCompressed.Load(file->data()) > 1) {
    Put<uint8_t>(header::kCompressed, 1, "the flag is neither 0 nor 1", file, upload);
  }
  const uint32_t footer_at = FindFooter(*file);
  MendLength(footer_at, file, upload);
  MendSeal(footer_at, file, upload);
}

}  // namespace

Upload SalvageUpload(std::span<const uint8_t> file, std::span<const PrivateKey> keys) {
  Upload upload = OpenUpload(file, keys);
  if (upload.status == UploadStatus::kOpened) return upload;
  Bytes mended(file.begin(), file.end());
  Upload notes;
  MendHeader(&mended, &notes);
  upload = OpenUpload(mended, keys, Effort::kParts);
  upload.skipped.insert(upload.skipped.begin(), notes.skipped.begin(), notes.skipped.end());
  if (upload.status == UploadStatus::kSealed && !keys.empty()) {
    upload.reason += ", or it is damaged where no part of it can be trusted";
  }
  if (upload.status != UploadStatus::kOpened) {
    upload.skipped = {{Skipped::Of::kFile, 0, file.size(), upload.reason}};
  }
  return upload;
}

}  // namespace orb::reader
