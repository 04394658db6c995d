// The dump of a client: one "key: value" a line, where value is a word, a quoted text,
// or some "name=word".
// Tested by tests/collector/dump_test.cpp.
#include <algorithm>
#include <string>
#include <utility>

#include "collector/kiv_collector.h"
#include "utility/checked.h"

namespace {

class Text {
 public:
  Text& Key(const std::string& key) {
    if (!out_.empty()) out_ += '\n';
    out_ += key + ':';
    return *this;
  }
  Text& Word(const std::string& word) {
    out_ += ' ' + word;
    return *this;
  }
  Text& Quoted(std::string text) {
    std::replace_if(
        text.begin(), text.end(),
        [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F || c == '"'; }, '?');
    return Word('"' + text + '"');
  }
  Text& Item(const char* name, const std::string& word) { return Word(name + ('=' + word)); }
  Text& Item(const char* name, uint64_t value) { return Item(name, std::to_string(value)); }
  std::string Take() { return std::move(out_) + "\n"; }

 private:
  std::string out_;
};

void Describe(const Tally& tally, Text* text) {
  text->Item("records", tally.records).Item("samples", tally.samples).Item("bytes", tally.bytes);
}

void Describe(const EventTally& tally, Text* text) {
  text->Item("events", tally.events);
  Describe(tally.tally, text);
}

void Describe(const std::string& key, const OwnerBook& book, Text* text) {
  Describe(book.open, &text->Key(key + ".open"));
  Describe(book.under_way, &text->Key(key + ".under_way"));
  Describe(book.sent, &text->Key(key + ".sent"));
  Describe(book.Lost(), &text->Key(key + ".lost"));
  book.lost.ForEach([&](orb::LossCause cause, const EventTally& lost) {
    if (lost.events != 0) Describe(lost, &text->Key(key + ".lost." + NameOf(cause)));
  });
}

}  // namespace

void kiv_collector::NoteQueueDepth(uint64_t depth) {
  // Only the session's end calls this.
  queueDepthMax_ = std::max(queueDepthMax_.load(), depth);
}

std::string kiv_collector::Dump() {
  Session::State state = session_.Describe();
  const KPISerializer::Backlog& backlog = state.backlog;
  Books& books = state.books;
  if (backlog.open_records != 0) {
    books.owners[backlog.open_owner].open.Add(
        {backlog.open_records, backlog.open_samples, backlog.open_bytes});
  }
  const int64_t seqno = uploader_.last_seqno();

  Text text;
  text.Key("client.name").Quoted(cfg_.name);
  text.Key("client.id").Word(std::to_string(link_.client_id()));
  text.Key("client.api_version").Word(std::to_string(KIV_API_VERSION));
  text.Key("client.mode").Word(cfg_.hbt ? "slots" : "files");
  text.Key("client.last_seqno").Word(seqno < 0 ? "none" : std::to_string(seqno));
  text.Key("session.state").Word(state.busy ? "busy" : state.active ? "running" : "idle");
  text.Key("session.campaign").Word(std::to_string(GetCampaignId()));
  text.Key("session.format").Word(cfg_.custom_session_format ? "custom" : "campaign");
  text.Key("queue").Item("depth", backlog.depth).Item("samples", backlog.samples);
  text.Item("depth_max", std::max(backlog.depth_max, queueDepthMax_.load()));
  text.Key("samples").Item("logged", books.logged).Item("repeated", books.repeated);
  for (const Session::KpiState& kpi : state.kpis) {
    uint64_t lost = 0;
    kpi.samples.lost.ForEach(
        [&lost](orb::LossCause, uint64_t count) { lost = orb::CheckedAdd<uint64_t>(lost, count); });
    text.Key("kpi." + std::to_string(kpi.id)).Item("type", kpi.type);
    text.Item("window", kpi.window).Item("unit", kpi.unit).Item("open", kpi.samples.open);
    text.Item("records", kpi.samples.records).Item("logged", kpi.samples.logged);
    text.Item("repeated", kpi.samples.repeated).Item("lost", lost);
  }
  for (const auto& [owner, book] : books.owners) {
    const std::string key = "owner." + std::to_string(owner);
    text.Key(key).Item("samples", book.samples);
    Describe(key, book, &text);
  }
  if (books.recovered.sent.events != 0 || books.recovered.Lost().events != 0) {
    Describe("recovered", books.recovered, &text);
  }
  return text.Take();
}
