// The hot path: one lock, one look-up, one virtual call; nothing is
// allocated or logged here. Tested by tests/collector/session_test.cpp.
#include "collector/session.h"
#include "kpi/blob.h"
#include "kpi/kpi.h"
#include "kpi/state_machine.h"
#include "serializer/kpi_serializer.h"

int Session::Log(uint32_t kpi, uint32_t value) {
  orb::HotMutexLock lock(stateMutex_);
  KPI* const found = kpiIndex_.Find(kpi);
  if (found == nullptr || found->GetType() != KPI_NUMERIC) return -1;
  found->AddSample(value);
  return 0;
}

int Session::LogEvent(uint32_t kpi, uint32_t /*arg*/) {
  orb::HotMutexLock lock(stateMutex_);
  KPI* const found = kpiIndex_.Find(kpi);
  return found == nullptr || found->GetType() != KPI_EVENT ? -1 : 0;
}

int Session::LogState(uint32_t kpi, uint32_t a, uint32_t b) {
  orb::HotMutexLock lock(stateMutex_);
  KPI* const found = kpiIndex_.Find(kpi);
  if (found == nullptr) return -1;
  if (found->GetType() != KPI_STATE) return -2;
  return static_cast<StateMachine*>(found)->AddStateTransistion(a, b);
}

int Session::Log(uint32_t kpi, const uint8_t* buf, uint32_t len) {
  orb::HotMutexLock lock(stateMutex_);
  KPI* const found = kpiIndex_.Find(kpi);
  if (found == nullptr) return -1;
  if (found->GetType() != KPI_BLOB) return -2;
  found->setKPIId(kpi);
  return static_cast<Blob*>(found)->LogBuf(buf, len);
}

int Session::Log(uint32_t kpi, const kiv_blob_segment_t* segs, uint32_t count) {
  orb::HotMutexLock lock(stateMutex_);
  KPI* const found = kpiIndex_.Find(kpi);
  if (found == nullptr) return -1;
  if (found->GetType() != KPI_BLOB) return -2;
  return static_cast<Blob*>(found)->LogBufSegs(segs, count);
}

int Session::LogBuf(const uint8_t* buf, uint32_t len) {
  orb::HotMutexLock lock(stateMutex_);
  return current_ == nullptr ? -1 : current_->WriteBuf(buf, len);
}

int Session::IsKPIEnabled(uint32_t kpi) {
  orb::HotMutexLock lock(stateMutex_);
  return kpiIndex_.Find(kpi) == nullptr ? 0 : 1;
}

void Session::SetConfigParams(kiv_param_type_t type, uint32_t value) {
  if (const auto serializer = Serializer()) serializer->UpdateConfig(type, value);
}

void Session::Flush() {
  if (!sessionActive_) return;
  if (const auto serializer = Serializer()) serializer->Flush();
}

size_t Session::Pending() const {
  const auto serializer = Serializer();
  return serializer == nullptr || cfg_.hbt ? 0 : serializer->backlog().depth;
}
