// The printers behind RecordPrinter::Create, and what they share.
#pragma once

#include <memory>
#include <ostream>
#include <string>

#include "proto/record_statistics.h"
#include "reader/record_printer.h"

namespace orb::reader {

std::unique_ptr<RecordPrinter> MakeTextPrinter(std::ostream* out, const CampaignIndex* campaign);
std::unique_ptr<RecordPrinter> MakeCsvPrinter(std::ostream* out, const CampaignIndex* campaign);
std::unique_ptr<RecordPrinter> MakeJsonPrinter(std::ostream* out, const CampaignIndex* campaign);

// The fewest digits that read back as the same float; "nan", "inf", "-inf".
std::string NumberText(float value);
inline std::string NumberText(int32_t value) { return std::to_string(value); }
inline std::string NumberText(uint64_t value) { return std::to_string(value); }
// The layout that explains this record; null without one, or when it does not fit.
const HistogramLayout* LayoutFor(const PayloadRecord& record, const CampaignIndex* campaign);
// What the campaign says against the record; empty without a campaign.
std::string NoteFor(const PayloadRecord& record, const CampaignIndex* campaign);

}  // namespace orb::reader
