// Question: how many records of 200 bytes a second does a database take that
// promises as much, one insert a transaction, each on disk when it returns?
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

namespace orb::bench {
namespace {

constexpr int kRecordBytes = 200;
constexpr int kRecords = 500;

void BM_FloorSqlite(benchmark::State& state) {
  std::string dir = std::filesystem::temp_directory_path() / "orb-bench-sqlite-XXXXXX";
  if (mkdtemp(dir.data()) == nullptr) abort();
  sqlite3* db = nullptr;
  sqlite3_stmt* insert = nullptr;
  if (sqlite3_open((dir + "/records").c_str(), &db) != SQLITE_OK ||
      sqlite3_exec(db,
                   "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;"
                   "CREATE TABLE records (data BLOB)",
                   nullptr, nullptr, nullptr) != SQLITE_OK ||
      sqlite3_prepare_v2(db, "INSERT INTO records VALUES (?)", -1, &insert, nullptr) != SQLITE_OK) {
    state.SkipWithError("no database");
  }
  const std::string record(kRecordBytes, 'x');
  for (auto _ : state) {
    for (int i = 0; i < kRecords; ++i) {
      sqlite3_bind_blob(insert, 1, record.data(), kRecordBytes, SQLITE_STATIC);
      if (sqlite3_step(insert) != SQLITE_DONE) state.SkipWithError("refused");
      sqlite3_reset(insert);
    }
  }
  state.SetItemsProcessed(state.iterations() * kRecords);
  sqlite3_finalize(insert);
  sqlite3_close(db);
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
}
BENCHMARK(BM_FloorSqlite)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace orb::bench
