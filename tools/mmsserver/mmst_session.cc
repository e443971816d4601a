// Placeholder until the MMST session is written.
#include "tools/mmsserver/connection.h"

void serveMmstConnection(Connection&, const AsfFile&) {}
