// halvarine-fault-table: the fault table (tools/mmsserver/faults.tsv) written
// out as tools/mmsserver/fault_table.inc and as the fault tables of
// docs/RELIABILITY.md, or both checked against it.
//
//   halvarine-fault-table write|check SOURCE_DIR
//
// The generated header is committed, so that a cross build compiles the
// servers without running a program built for the host; `check` (a unit
// test) fails when either file is behind the table. Exit status: 0 done or
// up to date, 1 out of date or a bad table, 2 usage.

#include <stdio.h>

#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "tools/common/file.h"
#include "tools/common/table.h"
#include "tools/mmsserver/fault_table_text.h"

namespace {

const char TABLE[] = "tools/mmsserver/faults.tsv";
const char CODE[] = "tools/mmsserver/fault_table.inc";
const char DOCUMENT[] = "docs/RELIABILITY.md";

int fail(const std::string& line) {
  std::cerr << "halvarine-fault-table: " << line << "\n";
  return 1;
}

// `text` into `path` through a file beside it, so that a reader never sees
// half of it.
bool replaceFile(const std::string& path, const std::string& text) {
  const std::string temporary = path + ".tmp";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    if (!(out << text) || !out.flush()) return false;
  }
  return rename(temporary.c_str(), path.c_str()) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc == 3 ? argv[1] : "";
  if (mode != "write" && mode != "check") {
    std::cerr << "usage: halvarine-fault-table write|check SOURCE_DIR\n";
    return 2;
  }
  const std::string top = std::string(argv[2]) + "/";
  std::vector<tools::TableRow> rows;
  std::string error, document, code, tables;
  if (!tools::readTable(top + TABLE, rows, error)) return fail(error);
  if (!mmsserver::checkFaultRows(rows, error)) return fail(std::string(TABLE) + ": " + error);
  if (!tools::readWholeFile(top + DOCUMENT, document, error)) return fail(error);
  if (!mmsserver::withFaultTables(document, rows, tables, error))
    return fail(std::string(DOCUMENT) + ": " + error);
  const std::string wanted = mmsserver::faultTableCode(rows);

  if (mode == "write") {
    if (!replaceFile(top + CODE, wanted)) return fail(std::string("cannot write ") + CODE);
    if (!replaceFile(top + DOCUMENT, tables)) return fail(std::string("cannot write ") + DOCUMENT);
    return 0;
  }
  int status = 0;
  if (!tools::readWholeFile(top + CODE, code, error) || code != wanted)
    status =
        fail(std::string(CODE) + " is not what " + TABLE + " says; run scripts/fault-table.sh");
  if (tables != document)
    status = fail(std::string(DOCUMENT) + ": the fault tables differ from " + TABLE +
                  "; run scripts/fault-table.sh");
  return status;
}
