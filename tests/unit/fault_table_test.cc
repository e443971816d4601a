// The fault table's writer: a bad row is refused and named, the C++ and
// the document's tables say what the rows say, and a document without its
// markers is left alone.

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
      {"option\t--stall\tstall\tlong\t0\t\thelp\n", "row 1 (--stall): type long is not bool"},
      {"option\t--stall\tstall\tbool\n", "row 1 (--stall): an option row has 7 columns"},
      {CASE + std::string(CASE), "row 2 (ShortHeader): id ShortHeader twice for one transport"},
      {"case\tX\tmedia\tudp\tdies\t\tf\tr\to\t\t\n", "row 1 (X): transport udp"},
      {"case\tX\tworker\tmmst\tdies\t\tf\tr\to\t\t\n", "row 1 (X): section worker"},
      {"case\tX\tmedia\tmmst\tcovered\t\tf\tr\to\t\t\n", "row 1 (X): a covered row, and only"},
      {"case\tX\tmedia\tmmst\tdies\t\tf\tr\to\tsome_test\t\n",
       "row 1 (X): a covered row, and only"},
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

TEST(FaultTable, CodeAndDocumentSayWhatTheRowsSay) {
  const auto rows = tools::tableRows(OPTION + std::string(CASE) +
                                     "case\tPipe\thazard\tmmsh\tcovered\t\ta | b\tr\to\tother\t"
                                     "mmsh.c \"x\"\n");
  const std::string code = mmsserver::faultTableCode(rows);
  EXPECT_NE(std::string::npos,
            code.find("HALVARINE_FAULT_OPTION(\"--stall-after\", stallAfter, int64_t, -1, "
                      "INT64_MAX, \"stop after N bytes\")\n"))
      << code;
  EXPECT_NE(std::string::npos,
            code.find("HALVARINE_FAULT_CASE(\"ShortHeader\", \"media\", \"both\", \"open-fails\", "
                      "\"--truncate-header 10\", \"header cut short\", \"CONNECT ERR\", "
                      "\"ERR in < 1 s\", \"\")\n"))
      << code;

  const std::string begin =
      "<!-- fault-table: begin (written by scripts/fault-table.sh from "
      "tools/mmsserver/faults.tsv) -->\n";
  const std::string end = "<!-- fault-table: end -->\n";
  std::string doc, error;
  ASSERT_TRUE(
      mmsserver::withFaultTables("intro\n" + begin + "old\n" + end + "after\n", rows, doc, error))
      << error;
  EXPECT_EQ(0u, doc.find("intro\n" + begin + "\n### Media servers\n")) << doc;
  EXPECT_NE(std::string::npos,
            doc.find("| header cut short (`--truncate-header 10`; MMST, MMSH) | CONNECT ERR | "
                     "ERR in < 1 s | `ShortHeaderMmst`, `ShortHeaderMmsh` |\n"))
      << doc;
  EXPECT_NE(std::string::npos,
            doc.find("| mmsh.c \"x\" | a \\| b (MMSH) | r | o | other |\n\n" + end + "after\n"))
      << doc;
  EXPECT_EQ(std::string::npos, doc.find("old"));
  EXPECT_FALSE(mmsserver::withFaultTables("no markers\n", rows, doc, error));
}

}  // namespace
