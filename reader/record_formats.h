// The printers behind RecordPrinter::Create, and what they share.
#pragma once

#include <memory>
#include <ostream>
#include <string>
#include <string_view>

#include "reader/record_printer.h"

namespace orb::reader {

std::unique_ptr<RecordPrinter> MakeTextPrinter(std::ostream* out, const CampaignIndex* campaign);
std::unique_ptr<RecordPrinter> MakeCsvPrinter(std::ostream* out, const CampaignIndex* campaign);
std::unique_ptr<RecordPrinter> MakeJsonPrinter(std::ostream* out, const CampaignIndex* campaign);

// The fewest digits that read back as the same float; "nan", "inf", "-inf".
std::string FloatText(float value);
// Two digits a byte, `separator` between bytes.
std::string Hex(std::string_view bytes, std::string_view separator = "");
// The layout that explains this record; null without one, or when it does not fit.
const HistogramLayout* LayoutFor(const PayloadRecord& record, const CampaignIndex* campaign);
// What the campaign says against the record; empty without a campaign.
std::string NoteFor(const PayloadRecord& record, const CampaignIndex* campaign);

}  // namespace orb::reader
