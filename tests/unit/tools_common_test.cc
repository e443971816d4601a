// What the tools share: numbers read from their command lines, and the rows
// of the tables that tests and test servers keep their cases in.

#include <gtest/gtest.h>

#include "tests/support/support.h"
#include "tools/common/number.h"
#include "tools/common/table.h"

namespace {

// Every way a word can fail to be a number in range, and the edges that
// must pass; atoi and a bare strtoll each let several of these through.
TEST(ParseNumber, TakesWholeDecimalWordsWithinTheBoundsOnly) {
  const struct {
    const char* text;
    long long min, max;
    const char* error;  // "" when it is a number
    long long value;
  } rows[] = {
      {"10", 0, 10, "", 10},
      {"007", 0, 10, "", 7},
      {"-5", -5, 5, "", -5},
      {"9223372036854775807", 0, INT64_MAX, "", INT64_MAX},
      {"abc", 0, 10, "not a number", 0},
      {"", 0, 10, "not a number", 0},
      {"-", -5, 5, "not a number", 0},
      {"5x", 0, 10, "not a number", 0},
      {" 5", 0, 10, "not a number", 0},
      {"+5", 0, 10, "not a number", 0},
      {"11", 0, 10, "too large", 0},
      {"-1", 0, 10, "too small", 0},
      {"99999999999999999999", 0, INT64_MAX, "too large", 0},
      {"-99999999999999999999", INT64_MIN, 0, "too small", 0},
  };
  for (const auto& row : rows) {
    long long value = 42;
    std::string error;
    const bool taken = tools::parseNumber(row.text, row.min, row.max, value, error);
    EXPECT_EQ(row.error, taken ? "" : error) << '"' << row.text << '"';
    EXPECT_EQ(taken ? row.value : 42, value) << '"' << row.text << "\": refused leaves it";
  }
  EXPECT_EQ("--port needs a number from 0 to 65535, not abc",
            tools::numberWanted("--port", 0, 65535, "abc"));
  EXPECT_EQ("--rate needs a number from 1 to 9", tools::numberWanted("--rate", 1, 9, ""));
}

// Cells at every tab, comments and empty lines skipped; a file without
// rows, or none, is an error.
TEST(TableRows, CellsAtEveryTabAndAFileWithoutRowsIsAnError) {
  const std::string text = "# a comment\n\na\tb\n\t\tc\t\nlast\twithout newline\r\n#x\ty\nz";
  const std::vector<tools::TableRow> expected = {
      {"a", "b"}, {"", "", "c", ""}, {"last", "without newline"}, {"z"}};
  EXPECT_EQ(expected, tools::tableRows(text));

  support::TempDir dir;
  std::vector<tools::TableRow> rows;
  std::string error;
  EXPECT_FALSE(tools::readTable(dir.file("absent.tsv"), rows, error));
  EXPECT_NE(std::string::npos, error.find("cannot read")) << error;
  ASSERT_TRUE(support::writeFile(dir.file("comments.tsv"), "# only\n\n"));
  EXPECT_FALSE(tools::readTable(dir.file("comments.tsv"), rows, error));
  EXPECT_NE(std::string::npos, error.find("no rows")) << error;
}

}  // namespace
