// The fault table's writer: a bad row is refused and named, and a document
// without its markers is left alone.

#include <gtest/gtest.h>

#include "tools/common/table.h"
#include "tools/mmsserver/fault_table_text.h"

namespace {

const char OPTION[] = "option\t--stall-after\tstallAfter\tint64\t-1\t\tstop after N bytes\n";
const char CASE[] =
    "case\tShortHeader\tmedia\tboth\topen-fails\t--truncate-header 10\theader cut short\t"
    "CONNECT ERR\tERR in < 1 s\t\t\n";

TEST(FaultTable, EachBadRowIsRefusedAndNamed) {
  const struct {
    std::string rows;
    const char* error;
  } cases[] = {
      {OPTION + std::string(OPTION), "row 2 (--stall-after): flag --stall-after twice"},
      {"option\t--Stall\tstall\tbool\tfalse\t\thelp\n", "row 1 (--Stall): bad flag or field"},
      {CASE + std::string(CASE), "row 2 (ShortHeader): id ShortHeader twice for one transport"},
      {"case\tX\tmedia\tmmst\tcovered\t\tf\tr\to\t\t\n", "row 1 (X): a covered row, and only"},
      {"rule\tX\n", "row 1 (X): a row is an option or a case"},
  };
  for (const auto& c : cases) {
    std::string error;
    EXPECT_FALSE(mmsserver::checkFaultRows(tools::tableRows(c.rows), error)) << c.rows;
    EXPECT_EQ(0u, error.find(c.error)) << error;
  }
  std::string error;
  EXPECT_TRUE(mmsserver::checkFaultRows(tools::tableRows(OPTION + std::string(CASE)), error))
      << error;
}

// What the committed table writes is checked against its files by the
// fault_table_document test; here only what the table has no row for: a
// '|' inside a cell, and a document without its markers.
TEST(FaultTable, DocumentEscapesCellsAndNeedsItsMarkers) {
  const auto rows = tools::tableRows(
      OPTION + std::string("case\tPipe\thazard\tmmsh\tcovered\t\ta | b\tr\to\tother\tmmsh.c\n"));
  const std::string begin =
      "<!-- fault-table: begin (written by scripts/fault-table.sh from "
      "tools/mmsserver/faults.tsv) -->\n";
  const std::string end = "<!-- fault-table: end -->\n";
  std::string doc, error;
  ASSERT_TRUE(mmsserver::withFaultTables(begin + end, rows, doc, error)) << error;
  EXPECT_NE(std::string::npos, doc.find("| mmsh.c | a \\| b (MMSH) | r | o | other |\n")) << doc;
  EXPECT_FALSE(mmsserver::withFaultTables("no markers\n", rows, doc, error));
}

}  // namespace
