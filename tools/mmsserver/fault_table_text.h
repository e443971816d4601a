#ifndef HALVARINE_TOOLS_MMSSERVER_FAULT_TABLE_TEXT_H
#define HALVARINE_TOOLS_MMSSERVER_FAULT_TABLE_TEXT_H

// The fault table (faults.tsv) written out for its two readers: the C++
// the servers and the tests include (fault_table.inc, committed, so that a
// cross build needs no generator of its own) and the Markdown tables of
// docs/RELIABILITY.md. Pure text in, text out.

#include <string>
#include <vector>

#include "tools/common/table.h"

namespace mmsserver {

// Checks every row: an option row has 7 cells (flag --word, a field name,
// bool/int/int64, default, largest value, help), a case row 11 (id,
// section, transport, outcome kind, arguments, fault, required, observed,
// the test of a covered row, hazard); flags and ids (per transport) once.
// False with the first bad row named in `error`.
bool checkFaultRows(const std::vector<tools::TableRow>& rows, std::string& error);

// fault_table.inc: one HALVARINE_FAULT_OPTION(...) line per option row, one
// HALVARINE_FAULT_CASE(...) per case row, in the table's order.
std::string faultTableCode(const std::vector<tools::TableRow>& rows);

// `document` with the text between its fault-table markers replaced by
// the tables of the case rows, one per section. False with `error` set
// when the markers are missing.
bool withFaultTables(const std::string& document, const std::vector<tools::TableRow>& rows,
                     std::string& out, std::string& error);

}  // namespace mmsserver

#endif
